// The bridging ("Vant") and routing ("Oku") sections of ConfigParser: the layer-3 facts.
#include "model/RoutedPortInterface.h"
#include "model/SubInterface.h"
#include "model/VlanInterface.h"
#include "parser/ConfigParser.h"
#include "parser/StoreValue.h"
#include "util/Trace.h"

#include <cstdio>

namespace Kestrune {

namespace {

template <class Class>
std::shared_ptr<Class> as(const Interface::Ptr& interface) {
    auto object = std::dynamic_pointer_cast<Class>(interface);
    KESTRUNE_ASSERT(object != nullptr);
    return object;
}

void applyAddresses(Interface& interface, const rapidjson::Value& facts) {
    if (auto ip = facts.FindMember("ipAddress"); ip != facts.MemberEnd()) {
        interface.primaryIpv4Is(textOf(ip->value));
    }
    if (auto secondary = facts.FindMember("secondaryIpAddress"); secondary != facts.MemberEnd()) {
        for (const auto& address : secondary->value.GetArray()) {
            interface.secondaryIpv4Is(textOf(address), true);
        }
    }
    if (auto ip6 = facts.FindMember("ip6Address"); ip6 != facts.MemberEnd()) {
        for (const auto& address : ip6->value.GetArray()) {
            interface.ipv6Is(textOf(address), true);
        }
    }
    if (auto vrf = facts.FindMember("vrf"); vrf != facts.MemberEnd()) {
        const std::string name = textOf(vrf->value);
        interface.netNsNameIs(name == "default" ? name : "ns-" + name);
    }
}

} // namespace

void ConfigParser::doExtractVantInfo(const Config::Ptr& config) {
    const auto& doc = store();
    const rapidjson::Value* vant = memberOrReport(doc, "Vant", "Missing Vant key in PStore");
    if (!vant) {
        return;
    }
    const auto& section = *vant;
    const rapidjson::Value* mac =
        memberOrReport(section, "bridgeMacAddr", "Missing bridgeMacAddr in Vant PStore");
    // A bridge MAC that is not text ends the section without a word, as it always has.
    if (!mac || !mac->IsString()) {
        return;
    }
    config->bridgeMacIs(textOf(*mac));

    const rapidjson::Value* encapVlans = memberOrReport(
        section, "subIntfNameToEncapVlanId", "Missing subIntfNameToEncapVlanId in Vant PStore");
    if (!encapVlans) {
        return;
    }
    for (const auto& entry : encapVlans->GetObject()) {
        const std::string name = textOf(entry.name);
        auto subIntf = subInterfaceFactory(name);
        subIntf->interfaceTypeIs(InterfaceType::SubIntf_);
        subIntf->encapVlanIs(unsignedOf(entry.value));
        report("doExtractVantInfo Adding subintf " + name + " to config");
        config->interfaceIs(subIntf);
    }

    const rapidjson::Value* internalVlans =
        memberOrReport(section, "intfNameToVlanId", "Missing intfNameToVlanId in Vant PStore");
    if (!internalVlans) {
        return;
    }
    for (const auto& entry : internalVlans->GetObject()) {
        const std::string name = textOf(entry.name);
        const std::uint32_t vlan = unsignedOf(entry.value);
        Interface::Ptr interface = config->interface(name);
        if (!interface) {
            report("doExtractVantInfo Skipping interface " + name + " as not in config");
            continue;
        }
        switch (interface->interfaceType()) {
        case InterfaceType::SubIntf_:
            as<SubInterface>(interface)->internalVlanIs(vlan);
            break;
        case InterfaceType::Lag_:
            interface->interfaceTypeIs(InterfaceType::LagRouted_);
            as<RoutedPortInterface>(interface)->internalVlanIs(vlan);
            TRACE(0) << "Changing " << name << " to routed Lag port";
            break;
        case InterfaceType::L2_:
            interface->interfaceTypeIs(InterfaceType::RoutedPort_);
            TRACE(0) << "Changing " << name << " to routed port";
            as<RoutedPortInterface>(interface)->internalVlanIs(vlan);
            break;
        default:
            // A port may be turned routed only once; the agents never save it twice.
            KESTRUNE_ASSERT(false);
        }
    }
}

void ConfigParser::doExtractOkuInfo(const Config::Ptr& config) {
    const auto& doc = store();
    const rapidjson::Value* oku = memberOrReport(doc, "Oku", "Missing Oku key in PStore");
    if (!oku) {
        return;
    }
    const rapidjson::Value* interfaces =
        memberOrReport(*oku, "interfaces", "Missing interfaces in Oku PStore");
    if (!interfaces) {
        return;
    }
    for (const auto& entry : interfaces->GetObject()) {
        const std::string name = textOf(entry.name);
        const auto& facts = entry.value;
        Interface::Ptr interface;
        if (startsWith(name, "Vlan")) {
            auto ip = facts.FindMember("ipAddress");
            auto ip6 = facts.FindMember("ip6Address");
            if (ip == facts.MemberEnd() || ip6 == facts.MemberEnd()) {
                report("Missing ipAddress information for " + name);
                continue;
            }
            if (ip6->value.Empty() && startsWith(textOf(ip->value), "0.0.0.0")) {
                report("doExtractOkuInfo Ignoring " + name + " due to invalid IP");
                continue;
            }
            auto svi = vlanInterfaceFactory(name);
            svi->interfaceTypeIs(InterfaceType::SVI_);
            int vlan = 0;
            KESTRUNE_ASSERT_TEXT(std::sscanf(name.c_str(), "Vlan%d", &vlan) == 1,
                                 "sscanf( intfName.charPtr(), \"Vlan%d\", &vlan ) == 1");
            svi->vlanIs(static_cast<std::uint32_t>(vlan));
            TRACE(0) << "doExtractOkuInfo Added " << name << " to config";
            config->interfaceIs(svi);
            interface = svi;
        } else if (startsWith(name, "Ethernet") || startsWith(name, "Port-Channel")) {
            interface = config->interface(name);
            if (!interface) {
                report("doExtractOkuInfo interface " + name + " not found in config");
                continue;
            }
        } else {
            report("Unexpected interface found in Oku interfaces " + name);
            continue;
        }
        applyAddresses(*interface, facts);
    }
}

} // namespace Kestrune
