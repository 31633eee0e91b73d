#include "StoreScenario.h"

#include <csignal>
#include <gtest/gtest.h>

namespace Kestrune {
namespace {

using Testing::Family;
using Testing::messagesOf;
using Testing::ParseOutcome;
using Testing::TempDir;

// Three platform ports; their own "Added" traces are left out of the comparisons below.
const char* const ports = R"({"platformType": "Strata", "devices": [], "interfaces": {
    "Ethernet1/1": {"modId": 0, "port": 1, "uc_qbase": 16, "mc_qbase": 48},
    "Ethernet1/2": {"modId": 0, "port": 2, "uc_qbase": 24, "mc_qbase": 56},
    "Ethernet2/1": {"modId": 1, "port": 1, "uc_qbase": 16, "mc_qbase": 48}}})";

struct Case {
    const char* what;
    std::map<std::string, std::string> sections;
    std::vector<std::string> traces; // without the "Kestrune:N " prefix when level 0
    std::vector<std::string> events; // ConfigParser's, without the group
    // attribute checks: {object, attribute, text form}; a missing object reads as "<absent>"
    std::vector<std::array<std::string, 3>> model;
};

std::string modelText(const Testing::ModelText& model, const std::array<std::string, 3>& at) {
    auto object = model.find(at[0]);
    if (object == model.end()) {
        return "<absent>";
    }
    auto attribute = object->second.find(at[1]);
    return attribute == object->second.end() ? "<no attribute>" : attribute->second;
}

void runCases(const std::vector<Case>& cases) {
    for (const auto& c : cases) {
        TempDir dir;
        auto sections = c.sections;
        sections.try_emplace("Tessaline", ports);
        ParseOutcome outcome = parseIn(dir, Family::Strata, storeWith(Family::Strata, sections));
        ASSERT_TRUE(outcome.process.exited) << c.what;

        std::vector<std::string> traces;
        for (const auto& line : outcome.traces) {
            if (line.rfind("Kestrune:0 doExtractInterfaceInfo Added ", 0) != 0) {
                traces.push_back(line.rfind("Kestrune:0 ", 0) == 0 ? line.substr(11) : line);
            }
        }
        EXPECT_EQ(traces, c.traces) << c.what;
        std::vector<std::string> events;
        for (const auto& message : messagesOf(outcome.process.events)) {
            events.push_back(message.substr(std::string("ConfigParser: ").size()));
        }
        EXPECT_EQ(events, c.events) << c.what;
        for (const auto& check : c.model) {
            EXPECT_EQ(modelText(outcome.model, check), check[2])
                << c.what << ": " << check[0] << " " << check[1];
        }
    }
}

TEST(PellSection, CreatesLagsFromUsableMembersAndReportsTheRest) {
    const std::string flags = R"("collectDistribute": {
        "Ethernet1/1": {"collecting": true, "distributing": true},
        "Ethernet1/2": {"collecting": true, "distributing": false}})";
    runCases({
        {"no section",
         {{"Pell", ""}},
         {"Missing Pell key in PStore"},
         {"Missing Pell key in PStore"},
         {}},
        {"no Port-Channels",
         {{"Pell", R"({"collectDistribute": {}})"}},
         {"Missing inputIntfLag in Pell PStore"},
         {"Missing inputIntfLag in Pell PStore"},
         {}},
        {"no member flags at all: not one Port-Channel",
         {{"Pell", R"({"inputIntfLag": {"Port-Channel5": {"member": ["Ethernet1/1"]}}})"}},
         {"Missing collectDistribute key in Pell PStore"},
         {"Missing collectDistribute key in Pell PStore"},
         {{"Port-Channel5", "class", "<absent>"}}},
        {"a name without the full prefix is skipped",
         {{"Pell", R"({"inputIntfLag": {"Po5": {"member": ["Ethernet1/1"]}}, )" + flags + "}"}},
         {"Skipping Po5"},
         {},
         {{"Po5", "class", "<absent>"}}},
        {"a Port-Channel without members",
         {{"Pell", R"({"inputIntfLag": {"Port-Channel5": {}}, )" + flags + "}"}},
         {"Missing member info in Pell"},
         {"Missing member info in Pell"},
         {{"Port-Channel5", "class", "<absent>"}}},
        {"an unknown member port leaves the Port-Channel uncreated",
         {{"Pell",
           R"({"inputIntfLag": {"Port-Channel5": {"member": ["Ethernet9/9"]}}, )" + flags + "}"}},
         {"Skipping member Ethernet9/9 of Port-Channel5"},
         {},
         {{"Port-Channel5", "class", "<absent>"}}},
        {"flags that are not an object are never read when no member is in the configuration",
         {{"Pell", R"({"inputIntfLag": {"Port-Channel5": {"member": ["Ethernet9/9"]}},
                       "collectDistribute": []})"}},
         {"Skipping member Ethernet9/9 of Port-Channel5"},
         {},
         {{"Port-Channel5", "class", "<absent>"}}},
        {"an empty member list creates nothing and says nothing",
         {{"Pell", R"({"inputIntfLag": {"Port-Channel5": {"member": []}}, )" + flags + "}"}},
         {},
         {},
         {{"Port-Channel5", "class", "<absent>"}}},
        {"a member without flags is reported, the others are added",
         {{"Pell", R"({"inputIntfLag": {"Port-Channel5": {"member":
              ["Ethernet1/1", "Ethernet2/1", "Ethernet1/2"]}}, )" +
                       flags + "}"}},
         {"doExtractPellInfo Added Lag Port-Channel5 to config",
          "doExtractPellInfo Added Ethernet1/1 to Port-Channel5",
          "Missing collectDistribute flags for member Ethernet2/1",
          "doExtractPellInfo Added Ethernet1/2 to Port-Channel5"},
         {"Missing collectDistribute flags for member Ethernet2/1"},
         {{"Port-Channel5", "class", "LagInterface"},
          {"Port-Channel5", "interfaceType", "Lag"},
          {"Port-Channel5", "member",
           "{'Ethernet1/1': {'interface': 'Ethernet1/1', 'collecting': true, 'distributing': "
           "true}, 'Ethernet1/2': {'interface': 'Ethernet1/2', 'collecting': true, "
           "'distributing': false}}"},
          {"Ethernet1/1", "interfaceType", "L2"}}},
    });
}

TEST(VantSection, RecordsTheBridgeMacSubinterfacesAndRoutedPorts) {
    const std::string lag = R"({"inputIntfLag": {"Port-Channel5": {"member": ["Ethernet1/2"]}},
        "collectDistribute": {"Ethernet1/2": {"collecting": true, "distributing": true}}})";
    runCases({
        {"no section",
         {{"Vant", ""}},
         {"Missing Vant key in PStore"},
         {"Missing Vant key in PStore"},
         {{"<config>", "bridgeMac", "''"}}},
        {"no bridge MAC",
         {{"Vant", R"({"subIntfNameToEncapVlanId": {}})"}},
         {"Missing bridgeMacAddr in Vant PStore"},
         {"Missing bridgeMacAddr in Vant PStore"},
         {}},
        {"a bridge MAC that is not text silently skips the whole section",
         {{"Vant", R"({"bridgeMacAddr": 2, "subIntfNameToEncapVlanId": {"Ethernet1/1.100": 100},
                       "intfNameToVlanId": {"Ethernet1/1": 1006}})"}},
         {},
         {},
         {{"Ethernet1/1.100", "class", "<absent>"}, {"Ethernet1/1", "interfaceType", "L2"}}},
        {"without subinterfaces the internal VLANs are not read either",
         {{"Vant", R"({"bridgeMacAddr": "02:1c:73:00:00:01",
                       "intfNameToVlanId": {"Ethernet1/1": 1006}})"}},
         {"Missing subIntfNameToEncapVlanId in Vant PStore"},
         {"Missing subIntfNameToEncapVlanId in Vant PStore"},
         {{"<config>", "bridgeMac", "'02:1c:73:00:00:01'"},
          {"Ethernet1/1", "interfaceType", "L2"}}},
        {"no internal VLANs",
         {{"Vant",
           R"({"bridgeMacAddr": "m", "subIntfNameToEncapVlanId": {"Ethernet1/1.100": 100}})"}},
         {"doExtractVantInfo Adding subintf Ethernet1/1.100 to config",
          "Missing intfNameToVlanId in Vant PStore"},
         {"doExtractVantInfo Adding subintf Ethernet1/1.100 to config",
          "Missing intfNameToVlanId in Vant PStore"},
         {{"Ethernet1/1.100", "encapVlan", "100"}, {"Ethernet1/1.100", "internalVlan", "0"}}},
        {"every kind an internal VLAN applies to",
         {{"Pell", lag}, {"Vant", R"({"bridgeMacAddr": "m",
              "subIntfNameToEncapVlanId": {"Ethernet1/1.100": 100, "Port-Channel5.7": 7},
              "intfNameToVlanId": {"Ethernet2/1": 1006, "Ethernet1/1.100": 1007,
                                   "Ethernet9/9": 1009, "Port-Channel5": 1008}})"}},
         {"doExtractPellInfo Added Lag Port-Channel5 to config",
          "doExtractPellInfo Added Ethernet1/2 to Port-Channel5",
          "doExtractVantInfo Adding subintf Ethernet1/1.100 to config",
          "doExtractVantInfo Adding subintf Port-Channel5.7 to config",
          "Changing Ethernet2/1 to routed port",
          "doExtractVantInfo Skipping interface Ethernet9/9 as not in config",
          "Changing Port-Channel5 to routed Lag port"},
         {"doExtractVantInfo Adding subintf Ethernet1/1.100 to config",
          "doExtractVantInfo Adding subintf Port-Channel5.7 to config",
          "doExtractVantInfo Skipping interface Ethernet9/9 as not in config"},
         {{"Ethernet2/1", "class", "StrataInterface"},
          {"Ethernet2/1", "interfaceType", "RoutedPort"},
          {"Ethernet2/1", "internalVlan", "1006"},
          {"Ethernet2/1", "port", "1"},
          {"Ethernet1/1.100", "class", "SubInterface"},
          {"Ethernet1/1.100", "interfaceType", "SubIntf"},
          {"Ethernet1/1.100", "internalVlan", "1007"},
          {"Port-Channel5.7", "internalVlan", "0"},
          {"Port-Channel5", "interfaceType", "LagRouted"},
          {"Port-Channel5", "internalVlan", "1008"},
          {"Ethernet9/9", "class", "<absent>"}}},
    });
}

TEST(OkuSection, CreatesVlanInterfacesAndAppliesAddressesAndVrfs) {
    runCases({
        {"no section",
         {{"Oku", ""}},
         {"Missing Oku key in PStore"},
         {"Missing Oku key in PStore"},
         {}},
        {"no interfaces",
         {{"Oku", "{}"}},
         {"Missing interfaces in Oku PStore"},
         {"Missing interfaces in Oku PStore"},
         {}},
        {"an SVI needs both address keys",
         {{"Oku", R"({"interfaces": {"Vlan10": {"ipAddress": "10.0.10.1/24"}}})"}},
         {"Missing ipAddress information for Vlan10"},
         {"Missing ipAddress information for Vlan10"},
         {{"Vlan10", "class", "<absent>"}}},
        {"an SVI with neither a usable IPv4 nor an IPv6 address is ignored",
         {{"Oku", R"({"interfaces": {"Vlan10": {"ipAddress": "0.0.0.0/0", "ip6Address": []}}})"}},
         {"doExtractOkuInfo Ignoring Vlan10 due to invalid IP"},
         {"doExtractOkuInfo Ignoring Vlan10 due to invalid IP"},
         {{"Vlan10", "class", "<absent>"}}},
        {"an SVI with only an IPv6 address keeps the zero IPv4 address",
         {{"Oku", R"({"interfaces": {"Vlan10": {"ipAddress": "0.0.0.0",
                       "ip6Address": ["2001:db8::1/64"]}}})"}},
         {"doExtractOkuInfo Added Vlan10 to config"},
         {},
         {{"Vlan10", "class", "VlanInterface"},
          {"Vlan10", "interfaceType", "SVI"},
          {"Vlan10", "vlan", "10"},
          {"Vlan10", "primaryIpv4", "'0.0.0.0'"},
          {"Vlan10", "ipv6", "{'2001:db8::1/64': true}"},
          {"Vlan10", "netNsName", "'default'"}}},
        {"addresses and VRFs of ports, SVIs and subinterfaces",
         {{"Vant", R"({"bridgeMacAddr": "m", "subIntfNameToEncapVlanId": {"Ethernet1/1.100": 100},
                       "intfNameToVlanId": {"Ethernet2/1": 1006}})"},
          {"Oku", R"({"interfaces": {
              "Vlan4094": {"ipAddress": "10.0.10.1/24", "ip6Address": [],
                           "secondaryIpAddress": ["10.0.11.1/24", "10.0.12.1/24", "10.0.11.1/24"],
                           "vrf": "red"},
              "Ethernet2/1": {"ipAddress": "10.1.0.1/31", "ip6Address": [], "vrf": "default"},
              "Ethernet1/1.100": {"ipAddress": "10.2.0.1/30", "vrf": "mgmt"},
              "Ethernet1/2": {"ip6Address": ["2001:db8::2/64", "fe80::2/64"]},
              "Ethernet9/9": {"ipAddress": "10.9.0.1/24"},
              "Loopback0": {"ipAddress": "10.255.0.1/32"},
              "Management1": {"ipAddress": "192.0.2.1/24"}}})"}},
         {"doExtractVantInfo Adding subintf Ethernet1/1.100 to config",
          "Changing Ethernet2/1 to routed port", "doExtractOkuInfo Added Vlan4094 to config",
          "doExtractOkuInfo interface Ethernet9/9 not found in config",
          "Unexpected interface found in Oku interfaces Loopback0",
          "Unexpected interface found in Oku interfaces Management1"},
         {"doExtractVantInfo Adding subintf Ethernet1/1.100 to config",
          "doExtractOkuInfo interface Ethernet9/9 not found in config",
          "Unexpected interface found in Oku interfaces Loopback0",
          "Unexpected interface found in Oku interfaces Management1"},
         {{"Vlan4094", "vlan", "4094"},
          {"Vlan4094", "secondaryIpv4", "{'10.0.11.1/24': true, '10.0.12.1/24': true}"},
          {"Vlan4094", "netNsName", "'ns-red'"},
          {"Ethernet2/1", "primaryIpv4", "'10.1.0.1/31'"},
          {"Ethernet2/1", "netNsName", "'default'"},
          {"Ethernet1/1.100", "primaryIpv4", "'10.2.0.1/30'"},
          {"Ethernet1/1.100", "netNsName", "'ns-mgmt'"},
          {"Ethernet1/2", "primaryIpv4", "''"},
          {"Ethernet1/2", "ipv6", "{'2001:db8::2/64': true, 'fe80::2/64': true}"},
          {"Ethernet1/2", "netNsName", "'default'"},
          {"Loopback0", "class", "<absent>"}}},
    });
}

TEST(DorvelSection, SetsBothMtusOfKnownInterfacesOnly) {
    runCases({
        {"no section",
         {{"Dorvel", ""}},
         {"Missing Dorvel key in PStore"},
         {"Missing Dorvel key in PStore"},
         {}},
        {"no MTUs",
         {{"Dorvel", "{}"}},
         {"Missing intfMtus key in Dorvel PStore"},
         {"Missing intfMtus key in Dorvel PStore"},
         {}},
        {"MTUs of every kind, an unknown name and a half entry",
         {{"Oku", R"({"interfaces": {"Vlan10": {"ipAddress": "10.0.0.1/24", "ip6Address": []}}})"},
          {"Dorvel", R"({"intfMtus": {
              "Ethernet9/9": {"mtu": 1500, "l2Mtu": 1514},
              "Ethernet1/1": {"mtu": 1500},
              "Vlan10": {"mtu": 9000, "l2Mtu": 9100},
              "Ethernet1/2": {"mtu": 1400, "l2Mtu": 1414}}})"}},
         {"doExtractOkuInfo Added Vlan10 to config",
          "Missing interface Ethernet9/9 in other PStores. Skipping",
          "Missing MTU info for Ethernet1/1",
          "Kestrune:3 doExtractDorvelInfo Added MTU info to Vlan10",
          "Kestrune:3 doExtractDorvelInfo Added MTU info to Ethernet1/2"},
         {"Missing interface Ethernet9/9 in other PStores. Skipping",
          "Missing MTU info for Ethernet1/1"},
         {{"Ethernet1/1", "mtu", "9214"},
          {"Ethernet1/1", "l2Mtu", "9216"},
          {"Vlan10", "mtu", "9000"},
          {"Vlan10", "l2Mtu", "9100"},
          {"Ethernet1/2", "mtu", "1400"},
          {"Ethernet9/9", "class", "<absent>"}}},
    });
}

TEST(SabrelSection, KeepsTheRuleTextsOnlyWhenBothArePresent) {
    runCases({
        {"no section",
         {{"Sabrel", ""}},
         {"Missing Sabrel key in PStore"},
         {"Missing Sabrel key in PStore"},
         {{"<config>", "iptables", "<no attribute>"}}},
        {"no IPv4 rules",
         {{"Sabrel", R"({"ip6tables": "*filter\nCOMMIT\n"})"}},
         {"Missing iptables key in Sabrel PStore"},
         {"Missing iptables key in Sabrel PStore"},
         {{"<config>", "ip6tables", "<no attribute>"}}},
        {"no IPv6 rules: neither family is restored",
         {{"Sabrel", R"({"iptables": "*filter\nCOMMIT\n"})"}},
         {"Missing ip6tables key in Sabrel PStore"},
         {"Missing ip6tables key in Sabrel PStore"},
         {{"<config>", "iptables", "<no attribute>"}}},
        {"both kept verbatim",
         {{"Sabrel", R"({"iptables": "*filter\n-A INPUT -j ACCEPT\nCOMMIT", "ip6tables": ""})"}},
         {},
         {},
         {{"<config>", "iptables", "'*filter\\n-A INPUT -j ACCEPT\\nCOMMIT'"},
          {"<config>", "ip6tables", "''"}}},
    });
}

// Stores the agents never write: the restore ends on a recorded assertion rather than
// restoring from a model it cannot trust.
TEST(SectionExtractors, ImpossibleStoresEndTheProcessOnARecordedAssertion) {
    const std::string lag = R"({"inputIntfLag": {"Port-Channel5": {"member": ["Ethernet1/1"]}},
        "collectDistribute": {"Ethernet1/1": )";
    const std::pair<std::map<std::string, std::string>, std::string> cases[] = {
        {{{"Vant", R"({"bridgeMacAddr": "m", "subIntfNameToEncapVlanId": {},
                       "intfNameToVlanId": {"Ethernet1/1": 1006, "Ethernet1/1": 1007}})"}},
         "false"},
        {{{"Vant",
           R"({"bridgeMacAddr": "m", "subIntfNameToEncapVlanId": {"Ethernet1/1.5": "5"}})"}},
         "data_.f.flags & kIntFlag"},
        {{{"Oku", R"({"interfaces": {"Vlan": {"ipAddress": "10.0.0.1/24", "ip6Address": []}}})"}},
         "sscanf( intfName.charPtr(), \"Vlan%d\", &vlan ) == 1"},
        {{{"Oku", R"({"interfaces": {"Ethernet1/1": {"ipAddress": ["10.0.0.1/24"]}}})"}},
         "IsString()"},
        {{{"Oku", R"({"interfaces": ["Vlan10"]})"}}, "IsObject()"},
        {{{"Pell", lag + R"({"collecting": true}}})"}}, "false"},
        {{{"Pell", lag + R"({"collecting": 1, "distributing": true}}})"}}, "IsBool()"},
        {{{"Pell", R"({"inputIntfLag": {"Port-Channel5": {"member": ["Ethernet1/1"]}},
                       "collectDistribute": []})"}},
         "IsObject()"},
        {{{"Dorvel", R"({"intfMtus": {"Ethernet1/1": {"mtu": "1500", "l2Mtu": 1514}}})"}},
         "data_.f.flags & kIntFlag"},
        {{{"Sabrel", R"({"iptables": 1, "ip6tables": ""})"}}, "IsString()"},
    };
    for (const auto& [sections, assertion] : cases) {
        TempDir dir;
        auto all = sections;
        all.try_emplace("Tessaline", ports);
        ParseOutcome outcome = parseIn(dir, Family::Strata, storeWith(Family::Strata, all));
        EXPECT_EQ(outcome.process.signal, SIGABRT) << assertion;
        ASSERT_FALSE(outcome.process.events.empty()) << assertion;
        EXPECT_EQ(
            outcome.process.events.back().message.rfind("assertion failed: " + assertion + " (", 0),
            0U)
            << outcome.process.events.back().message;
    }
}

// The store's integers are the agents' ints: one from 2^31 to 2^32-1 ends the process on
// the JSON library's integer assertion, where the value-range guard reads it as the unsigned
// value it is, for its range checks to name. A negative one keeps its bits either way.
TEST(SectionExtractors, IntegersPastTheIntRangeEndTheProcessUnlessTheValueRangeGuardReadsThem) {
    const auto port = [](const char* modId, const char* number) {
        return std::string(R"({"platformType": "Strata", "devices": [], "interfaces": {
            "Ethernet1/1": {"modId": )") +
               modId + R"(, "port": )" + number + R"(, "uc_qbase": 16, "mc_qbase": 48}}})";
    };
    struct Row {
        const char* what;
        std::map<std::string, std::string> sections;
        std::array<std::string, 3> guarded; // the model the guard reads
    };
    const Row rows[] = {
        {"encapsulation VLAN 3000000000",
         {{"Tessaline", ports},
          {"Vant",
           R"({"bridgeMacAddr": "m", "subIntfNameToEncapVlanId": {"Ethernet1/1.5": 3000000000}})"}},
         {"Ethernet1/1.5", "encapVlan", "3000000000"}},
        {"modId 3000000000",
         {{"Tessaline", port("3000000000", "1")}},
         {"Ethernet1/1", "modId", "3000000000"}},
        {"port 4294967295",
         {{"Tessaline", port("0", "4294967295")}},
         {"Ethernet1/1", "port", "4294967295"}},
    };
    for (const Row& row : rows) {
        for (const bool libraryDefaults : {true, false}) {
            TempDir dir;
            const ParseOutcome outcome = parseIn(
                dir, Family::Strata, storeWith(Family::Strata, row.sections), libraryDefaults);
            if (libraryDefaults) {
                EXPECT_EQ(outcome.process.signal, SIGABRT) << row.what;
            } else {
                EXPECT_TRUE(outcome.process.exited) << row.what;
                EXPECT_EQ(modelText(outcome.model, row.guarded), row.guarded[2]) << row.what;
            }
        }
    }
    for (const bool libraryDefaults : {true, false}) {
        TempDir dir;
        const ParseOutcome outcome =
            parseIn(dir, Family::Strata,
                    storeWith(Family::Strata, {{"Tessaline", port("-1", "2")}}), libraryDefaults);
        EXPECT_TRUE(outcome.process.exited);
        EXPECT_EQ(modelText(outcome.model, {"Ethernet1/1", "modId", ""}), "4294967295");
    }
}

} // namespace
} // namespace Kestrune
