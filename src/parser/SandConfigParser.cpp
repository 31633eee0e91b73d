#include "parser/SandConfigParser.h"

#include "model/ChipFamily.h"
#include "model/SandInterface.h"
#include "parser/StoreValue.h"
#include "util/Trace.h"

#include <array>

namespace Kestrune {

namespace {

// True when every key is present; looked up in the order given.
template <std::size_t N>
bool hasAll(const rapidjson::Value& object, const std::array<const char*, N>& keys) {
    for (const char* key : keys) {
        if (!object.HasMember(key)) {
            return false;
        }
    }
    return true;
}

} // namespace

Config::Ptr SandConfigParser::parse() {
    TRACE(0) << "parse";
    auto config = sandConfigFactory();
    config->platformTypeIs(std::string(sandPlatform));
    doExtractDriverParams(config);
    doExtractDeviceInfo(config);
    doExtractInterfaceInfo(config);
    doExtractCommonSections(config);
    return config;
}

void SandConfigParser::doExtractDriverParams(const SandConfig::Ptr& sandConfig) {
    TRACE(0) << "doExtractDriverParams";
    const rapidjson::Value* params = platformMember("driverParams");
    if (!params) {
        return;
    }
    if (!hasAll(*params, std::array{"oldestFapType", "maxLags", "maxMembersPerLag"})) {
        report("Missing required info in driverParams");
        return;
    }
    sandConfig->oldestFapTypeIs(unsignedOf((*params)["oldestFapType"]));
    sandConfig->maxLagsIs(unsignedOf((*params)["maxLags"]));
    sandConfig->maxMembersPerLagIs(unsignedOf((*params)["maxMembersPerLag"]));
}

void SandConfigParser::doExtractDeviceInfo(const SandConfig::Ptr& sandConfig) {
    TRACE(0) << "doExtractDeviceInfo";
    const rapidjson::Value* devices = platformMember("devices");
    if (!devices) {
        return;
    }
    std::size_t index = 0;
    for (const auto& device : devices->GetArray()) {
        if (!hasAll(device, std::array{"name", "pciName", "numFaps", "fapType", "cpuTm", "cpuSflow",
                                       "cpuAradSysPort", "cpuArad", "cpuAradBridge"})) {
            reportMissingDevice(index++);
            continue;
        }
        const std::string name = textOf(device["name"]);
        sandConfig->sandFapConfigIs(
            name,
            SandFapConfig(name, textOf(device["pciName"]), unsignedOf(device["numFaps"]),
                          unsignedOf(device["fapType"]), unsignedOf(device["cpuTm"]),
                          unsignedOf(device["cpuSflow"]), unsignedOf(device["cpuAradSysPort"]),
                          unsignedOf(device["cpuArad"]), unsignedOf(device["cpuAradBridge"])));
        ++index;
    }
}

void SandConfigParser::doExtractInterfaceInfo(const Config::Ptr& config) {
    const rapidjson::Value* interfaces = platformMember("interfaces");
    if (!interfaces) {
        return;
    }
    for (const auto& entry : interfaces->GetObject()) {
        const std::string name = textOf(entry.name);
        const auto& facts = entry.value;
        auto port = sandInterfaceFactory(name);
        port->interfaceTypeIs(InterfaceType::L2_);
        if (!hasAll(facts, std::array{"nativeVlan", "systemPhyPortId", "trafficClass",
                                      "dot1qTunnel", "deviceName"})) {
            report("Missing interfaces info for " + name);
            continue;
        }
        port->nativeVlanIs(unsignedOf(facts["nativeVlan"]));
        port->systemPhyPortIdIs(unsignedOf(facts["systemPhyPortId"]));
        port->trafficClassIs(unsignedOf(facts["trafficClass"]));
        port->dot1qTunnelIs(unsignedOf(facts["dot1qTunnel"]));
        port->deviceNameIs(textOf(facts["deviceName"]));
        TRACE(0) << "doExtractInterfaceInfo Added " << name << " to config";
        config->interfaceIs(port);
    }
}

SandConfigParser::Ptr sandConfigParserFactory() {
    return std::make_shared<SandConfigParser>();
}

} // namespace Kestrune
