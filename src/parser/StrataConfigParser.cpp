#include "parser/StrataConfigParser.h"

#include "model/ChipFamily.h"
#include "model/StrataInterface.h"
#include "parser/StoreValue.h"
#include "util/Trace.h"

namespace Kestrune {

Config::Ptr StrataConfigParser::parse() {
    TRACE(0) << "parse";
    auto config = strataConfigFactory();
    config->platformTypeIs(std::string(strataPlatform));
    doExtractDeviceInfo(config);
    doExtractInterfaceInfo(config);
    doExtractCommonSections(config);
    return config;
}

void StrataConfigParser::doExtractDeviceInfo(const StrataConfig::Ptr& strataConfig) {
    const rapidjson::Value* devices = platformMember("devices");
    if (!devices) {
        return;
    }
    std::size_t index = 0;
    for (const auto& device : devices->GetArray()) {
        auto modId = device.FindMember("modId");
        auto busId = device.FindMember("busId");
        auto chipModel = device.FindMember("chipModel");
        if (modId == device.MemberEnd() || busId == device.MemberEnd() ||
            chipModel == device.MemberEnd()) {
            reportMissingDevice(index++);
            continue;
        }
        strataConfig->strataModuleIs(StrataModule(unsignedOf(modId->value),
                                                  unsignedOf(busId->value),
                                                  textOf(chipModel->value)),
                                     true);
        ++index;
    }
}

void StrataConfigParser::doExtractInterfaceInfo(const Config::Ptr& config) {
    const rapidjson::Value* interfaces = platformMember("interfaces");
    if (!interfaces) {
        return;
    }
    for (const auto& entry : interfaces->GetObject()) {
        const std::string name = textOf(entry.name);
        const auto& facts = entry.value;
        auto port = strataInterfaceFactory(name);
        port->interfaceTypeIs(InterfaceType::L2_);
        auto modId = facts.FindMember("modId");
        auto number = facts.FindMember("port");
        auto ucQbase = facts.FindMember("uc_qbase");
        auto mcQbase = facts.FindMember("mc_qbase");
        if (modId == facts.MemberEnd() || number == facts.MemberEnd() ||
            ucQbase == facts.MemberEnd() || mcQbase == facts.MemberEnd()) {
            report("Missing interfaces info for " + name);
            continue;
        }
        port->modIdIs(unsignedOf(modId->value));
        port->portIs(unsignedOf(number->value));
        port->uc_qbaseIs(unsignedOf(ucQbase->value));
        port->mc_qbaseIs(unsignedOf(mcQbase->value));
        TRACE(0) << "doExtractInterfaceInfo Added " << name << " to config";
        config->interfaceIs(port);
    }
}

StrataConfigParser::Ptr strataConfigParserFactory() {
    return std::make_shared<StrataConfigParser>();
}

} // namespace Kestrune
