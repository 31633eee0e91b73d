#include "parser/ConfigParserCreator.h"
#include "state/Drift.h"
#include "state/ExpectedState.h"
#include "state/FilterRules.h"
#include "util/Trace.h"

#include <algorithm>
#include <arpa/inet.h>
#include <gtest/gtest.h>

namespace Kestrune {
namespace {

ExpectedState expectedOf(const std::string& example, bool simulated = false) {
    const std::uint16_t levels = Trace::levels();
    Trace::levelsIs(0);
    auto parser = configParserCreatorFactory()->createFrom(std::string(KESTRUNE_SOURCE_DIR) +
                                                           "/examples/" + example + ".json");
    auto config = parser->parse();
    Trace::levelsIs(levels);
    return expectedState(*config, simulated, true);
}

const ExpectedDevice* find(const ExpectedState& state, const std::string& ns,
                           const std::string& name) {
    for (const ExpectedDevice& device : state.devices) {
        if (device.ns == ns && device.name == name) {
            return &device;
        }
    }
    return nullptr;
}

// What each kind of interface of the Strata example leaves in the kernel.
struct DeviceCase {
    const char* ns;
    const char* name;
    bool vlan;
    std::optional<std::uint32_t> mtu; // none: the chip's own
    std::uint16_t vlanId;
    const char* parent;
    const char* qdisc;
    std::vector<std::string> ipv4;
    std::vector<std::string> ipv6;
};

TEST(ExpectedState, EachKindOfStrataInterfaceIsTheDeviceTheRestoreMakes) {
    const ExpectedState state = expectedOf("strata");
    const std::vector<DeviceCase> cases{
        // The chip's device, with the prio root its bring-up adds.
        {"default", "fabric", false, {}, 0, "", "prio", {}, {}},
        // A routed port of the default VRF, "2001:db8:1:0::1" as the kernel prints it.
        {"default",
         "et1_1",
         false,
         9000,
         0,
         "",
         "",
         {"10.1.0.1/24", "10.101.1.1/24"},
         {"2001:db8:1::1/64"}},
        // A routed port of a VRF: the chip's device at the largest frame, its TAP in the VRF.
        {"default", "et1_2", false, 10240, 0, "", "", {}, {}},
        {"ns-red", "et1_2", false, 1500, 0, "", "", {"10.1.1.1/24"}, {"2001:db8:1:1::1/64"}},
        // A layer-2 port and a layer-2 LAG: no MTU of the store's, no address.
        {"default", "et1_13", false, {}, 0, "", "", {}, {}},
        {"default", "po2", false, {}, 0, "", "", {}, {}},
        // A routed LAG in a VRF.
        {"ns-red", "po3", false, 9000, 0, "", "", {"10.2.1.1/24"}, {"2001:db8:2:1::1/64"}},
        // Subinterfaces on their parent's chip device, in the default VRF and in one.
        {"default", "po1.100", true, 1500, 100, "po1", "", {"10.3.0.1/24"}, {"2001:db8:3::1/64"}},
        {"ns-blue",
         "et1_2.100",
         true,
         1500,
         100,
         "et1_2",
         "",
         {"10.3.2.1/24"},
         {"2001:db8:3:2::1/64"}},
        // SVIs on "fabric".
        {"default",
         "vlan10",
         true,
         1500,
         10,
         "fabric",
         "",
         {"10.104.1.1/24", "10.104.2.1/24", "10.4.0.1/24"},
         {"2001:db8:4::1/64"}},
        {"ns-red", "vlan11", true, 1500, 11, "fabric", "", {"10.4.1.1/24"}, {"2001:db8:4:1::1/64"}},
    };
    for (const DeviceCase& c : cases) {
        SCOPED_TRACE(std::string(c.ns) + " " + c.name);
        const ExpectedDevice* device = find(state, c.ns, c.name);
        ASSERT_NE(device, nullptr);
        EXPECT_EQ(device->vlan, c.vlan);
        EXPECT_EQ(device->mtu, c.mtu);
        EXPECT_EQ(device->vlanId, c.vlanId);
        EXPECT_EQ(device->parent, c.parent);
        EXPECT_EQ(device->qdisc, c.qdisc);
        EXPECT_EQ(device->mac, "02:1c:73:5e:00:01");
        EXPECT_EQ(device->ipv4, c.ipv4);
        EXPECT_EQ(device->ipv6, c.ipv6);
    }
    // Every interface once, "fabric", and a TAP for each of the 9 routed ports and LAGs in VRFs.
    EXPECT_EQ(state.devices.size(), 64U + 1 + 9);
    EXPECT_EQ(state.namespaces, (std::vector<std::string>{"ns-blue", "ns-red"}));
    EXPECT_NE(state.iptables.find("CONTROL-PLANE"), std::string::npos);
    EXPECT_NE(state.ip6tables.find("CONTROL-PLANE"), std::string::npos);
}

TEST(ExpectedState, SandMakesNoLagOrSubinterfaceAndGivesEachPortPrio) {
    const ExpectedState state = expectedOf("sand");
    for (const ExpectedDevice& device : state.devices) {
        SCOPED_TRACE(device.ns + " " + device.name);
        EXPECT_NE(device.name.substr(0, 2), "po");
        EXPECT_EQ(device.name.find('.'), std::string::npos);
        const bool chipPort = device.ns == "default" && device.name.substr(0, 2) == "et";
        EXPECT_EQ(device.qdisc, chipPort ? "prio" : "");
    }
    ASSERT_NE(find(state, "ns-red", "vlan11"), nullptr);
}

TEST(ExpectedState, ASimulatedStrataBringUpAddsNoPrioToFabric) {
    EXPECT_EQ(find(expectedOf("strata", true), "default", "fabric")->qdisc, "");
}

TEST(ExpectedState, AddressesAreComparedAsTheKernelPrintsThem) {
    const std::vector<std::tuple<std::string, int, std::string>> cases{
        {"10.0.0.1/24", AF_INET, "10.0.0.1/24"},
        {"2001:DB8:0:0::1/64", AF_INET6, "2001:db8::1/64"},
        {"2001:db8::1/64", AF_INET, ""},
        {"10.0.0.1/x", AF_INET, ""},
        {"banana/24", AF_INET, ""},
    };
    for (const auto& [address, family, canonical] : cases) {
        EXPECT_EQ(canonicalAddress(address, family), canonical) << address;
    }
}

// A kernel holding exactly what the expected state says, for one break at a time.
std::vector<NamespaceState> kernelOf(const ExpectedState& expected) {
    std::vector<NamespaceState> kernel{{"default", {}}};
    for (const std::string& ns : expected.namespaces) {
        kernel.push_back({ns, {}});
    }
    for (const ExpectedDevice& e : expected.devices) {
        DeviceState device;
        device.name = e.name;
        device.kind = e.vlan ? "vlan" : "tun";
        device.mtu = e.mtu.value_or(9216);
        device.mac = e.mac;
        device.adminUp = true;
        device.carrier = true;
        device.qdisc = e.qdisc.empty() ? "fq_codel" : e.qdisc;
        device.ipv4 = e.ipv4;
        device.ipv6 = e.ipv6;
        device.vlanId = e.vlanId;
        device.parent = e.parent;
        device.parentNamespace = e.vlan ? "default" : "";
        std::find_if(kernel.begin(), kernel.end(), [&](const auto& ns) {
            return ns.name == e.ns;
        })->devices.push_back(device);
    }
    return kernel;
}

DeviceState& deviceIn(std::vector<NamespaceState>& kernel, const std::string& ns,
                      const std::string& name) {
    auto& devices = std::find_if(kernel.begin(), kernel.end(), [&](const auto& n) {
                        return n.name == ns;
                    })->devices;
    return *std::find_if(devices.begin(), devices.end(),
                         [&](const auto& device) { return device.name == name; });
}

struct DriftCase {
    const char* what;
    std::function<void(std::vector<NamespaceState>&)> breakIt;
    std::vector<Drift> drift;
};

TEST(DeviceDrift, EachBreakIsReportedOnceAndNothingElse) {
    const ExpectedState expected = expectedOf("strata");
    auto remove = [](std::vector<NamespaceState>& kernel, const std::string& ns,
                     const std::string& name) {
        auto& devices = std::find_if(kernel.begin(), kernel.end(), [&](const auto& n) {
                            return n.name == ns;
                        })->devices;
        const DeviceState device = deviceIn(kernel, ns, name);
        devices.erase(std::find_if(devices.begin(), devices.end(),
                                   [&](const auto& d) { return d.name == name; }));
        return device;
    };
    const std::vector<DriftCase> cases{
        {"untouched", [](auto&) {}, {}},
        {"deleted",
         [&](auto& k) { remove(k, "ns-red", "vlan11"); },
         {{"ns-red", "vlan11", "device", "present", "missing"}}},
        {"moved",
         [&](auto& k) { k[1].devices.push_back(remove(k, "ns-red", "vlan11")); },
         {{"ns-red", "vlan11", "device", "present", "in ns-blue"}}},
        {"mtu",
         [](auto& k) { deviceIn(k, "default", "et1_1").mtu = 1400; },
         {{"default", "et1_1", "mtu", "9000", "1400"}}},
        {"address removed",
         [](auto& k) { deviceIn(k, "default", "vlan10").ipv4.pop_back(); },
         {{"default", "vlan10", "address", "10.4.0.1/24", "missing"}}},
        {"address added",
         [](auto& k) { deviceIn(k, "default", "et1_13").ipv6.push_back("2001:db8::9/64"); },
         {{"default", "et1_13", "address", "-", "2001:db8::9/64"}}},
        {"admin down",
         [](auto& k) { deviceIn(k, "ns-red", "et1_2").adminUp = false; },
         {{"ns-red", "et1_2", "admin", "up", "down"}}},
        // Down says it all; up without carrier is a queue or a parent lost.
        {"admin down and no carrier",
         [](auto& k) {
             deviceIn(k, "ns-red", "et1_5").adminUp = false;
             deviceIn(k, "ns-red", "et1_5").carrier = false;
         },
         {{"ns-red", "et1_5", "admin", "up", "down"}}},
        {"no carrier",
         [](auto& k) { deviceIn(k, "ns-blue", "et1_9").carrier = false; },
         {{"ns-blue", "et1_9", "carrier", "on", "off"}}},
        {"mac",
         [](auto& k) { deviceIn(k, "default", "po1").mac = "02:00:00:00:00:09"; },
         {{"default", "po1", "mac", "02:1c:73:5e:00:01", "02:00:00:00:00:09"}}},
        {"qdisc",
         [](auto& k) { deviceIn(k, "default", "fabric").qdisc = "noqueue"; },
         {{"default", "fabric", "qdisc", "prio", "noqueue"}}},
        {"vlan id",
         [](auto& k) { deviceIn(k, "default", "po1.100").vlanId = 200; },
         {{"default", "po1.100", "vlan id", "100", "200"}}},
        {"parent elsewhere",
         [](auto& k) { deviceIn(k, "ns-red", "vlan11").parentNamespace = "ns-blue"; },
         {{"ns-red", "vlan11", "parent", "fabric", "fabric in ns-blue"}}},
        {"kind",
         [](auto& k) { deviceIn(k, "default", "vlan13").kind = "macvlan"; },
         {{"default", "vlan13", "kind", "vlan", "macvlan"}}},
        // A whole VRF gone is said once, not once for each of its devices.
        {"namespace",
         [](auto& k) { k.pop_back(); },
         {{"ns-red", "-", "namespace", "present", "missing"}}},
    };
    for (const DriftCase& c : cases) {
        std::vector<NamespaceState> kernel = kernelOf(expected);
        ASSERT_EQ(kernel[1].name, "ns-blue");
        c.breakIt(kernel);
        EXPECT_EQ(deviceDrift(expected, kernel), c.drift) << c.what;
    }
}

constexpr const char* savedFilter =
    R"(# Generated by iptables-save v1.8.9 on Sun Nov 22 13:00:00 2026
*filter
:INPUT DROP [12:3400]
:FORWARD ACCEPT [0:0]
:CONTROL-PLANE - [0:0]
-A INPUT -j CONTROL-PLANE
-A CONTROL-PLANE -p tcp -m tcp --dport 22 -j ACCEPT
-A CONTROL-PLANE -p udp -m udp --dport 161 -j ACCEPT
COMMIT
# Completed on Sun Nov 22 13:00:00 2026
)";

std::string withCounters(std::string text, const std::string& from, const std::string& to) {
    return text.replace(text.find(from), from.size(), to);
}

TEST(RuleDrift, TheTablesTheStoreRestoresAreComparedRuleByRule) {
    const auto stored = ruleTablesOf(savedFilter);
    ASSERT_EQ(stored.at("filter").rules.size(), 3U);
    EXPECT_EQ(stored.at("filter").policies.at("INPUT"), "DROP");
    const std::string extraTable = "*nat\n:PREROUTING ACCEPT [0:0]\n-A PREROUTING -j RETURN\n"
                                   "COMMIT\n";
    const std::vector<std::tuple<const char*, std::string, std::vector<Drift>>> cases{
        // Counters and comments differ, another table is there: nothing the store restores.
        {"same", withCounters(savedFilter, "[12:3400]", "[99:99]") + extraTable, {}},
        {"flushed rule",
         "*filter\n:INPUT DROP\n:FORWARD ACCEPT\n:CONTROL-PLANE -\n-A INPUT -j CONTROL-PLANE\n"
         "-A CONTROL-PLANE -p udp -m udp --dport 161 -j ACCEPT\nCOMMIT\n",
         {{"default", "iptables filter", "rule",
           "-A CONTROL-PLANE -p tcp -m tcp --dport 22 -j ACCEPT", "missing"}}},
        {"added rule",
         std::string(savedFilter) + "*filter\n-A INPUT -s 192.0.2.0/24 -j ACCEPT\nCOMMIT\n",
         {{"default", "iptables filter", "rule", "-", "-A INPUT -s 192.0.2.0/24 -j ACCEPT"}}},
        {"reordered",
         "*filter\n:INPUT DROP\n:FORWARD ACCEPT\n:CONTROL-PLANE -\n-A INPUT -j CONTROL-PLANE\n"
         "-A CONTROL-PLANE -p udp -m udp --dport 161 -j ACCEPT\n"
         "-A CONTROL-PLANE -p tcp -m tcp --dport 22 -j ACCEPT\nCOMMIT\n",
         {{"default", "iptables filter", "order", "as stored", "reordered"}}},
        {"policy and chain",
         "*filter\n:INPUT ACCEPT\n:FORWARD ACCEPT\n-A INPUT -j CONTROL-PLANE\n"
         "-A CONTROL-PLANE -p tcp -m tcp --dport 22 -j ACCEPT\n"
         "-A CONTROL-PLANE -p udp -m udp --dport 161 -j ACCEPT\nCOMMIT\n",
         {{"default", "iptables filter", "chain", "CONTROL-PLANE -", "missing"},
          {"default", "iptables filter", "policy", "INPUT DROP", "INPUT ACCEPT"}}},
        // Nothing loaded yet: the built-in chains let everything through.
        {"nothing in force",
         "",
         {{"default", "iptables filter", "chain", "CONTROL-PLANE -", "missing"},
          {"default", "iptables filter", "policy", "INPUT DROP", "INPUT ACCEPT"},
          {"default", "iptables filter", "rule", "-A INPUT -j CONTROL-PLANE", "missing"},
          {"default", "iptables filter", "rule",
           "-A CONTROL-PLANE -p tcp -m tcp --dport 22 -j ACCEPT", "missing"},
          {"default", "iptables filter", "rule",
           "-A CONTROL-PLANE -p udp -m udp --dport 161 -j ACCEPT", "missing"}}},
        // The same rules twice, as a second restore that adds to the tables leaves them.
        {"doubled",
         std::string(savedFilter) + savedFilter,
         {{"default", "iptables filter", "rule", "-", "-A INPUT -j CONTROL-PLANE"},
          {"default", "iptables filter", "rule", "-",
           "-A CONTROL-PLANE -p tcp -m tcp --dport 22 -j ACCEPT"},
          {"default", "iptables filter", "rule", "-",
           "-A CONTROL-PLANE -p udp -m udp --dport 161 -j ACCEPT"}}},
    };
    for (const auto& [what, inForce, drift] : cases) {
        EXPECT_EQ(ruleDrift(ipv4Rules, stored, ruleTablesOf(inForce)), drift) << what;
    }
}

TEST(DriftTable, LinesUpItsColumns) {
    EXPECT_EQ(driftTable({{"ns-red", "vlan11", "device", "present", "in ns-blue"},
                          {"default", "et1_1", "mtu", "9000", "1400"}}),
              "namespace  device  check   expected  found\n"
              "ns-red     vlan11  device  present   in ns-blue\n"
              "default    et1_1   mtu     9000      1400\n");
}

} // namespace
} // namespace Kestrune
