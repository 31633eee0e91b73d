#include "StoreScenario.h"

#include <gtest/gtest.h>

namespace Kestrune {
namespace {

using Testing::Family;
using Testing::messagesOf;
using Testing::ParseOutcome;
using Testing::storeWith;
using Testing::TempDir;

ParseOutcome parse(Family family, const std::map<std::string, std::string>& sections) {
    TempDir dir;
    return parseIn(dir, family, storeWith(family, sections));
}

std::vector<std::string> eventsOf(const ParseOutcome& outcome) {
    return messagesOf(outcome.process.events);
}

TEST(StrataParser, ReadsModulesAndSkipsIncompleteDevices) {
    auto outcome = parse(Family::Strata, {{"Tessaline", R"({"platformType": "Strata",
        "devices": [{"modId": 0, "busId": 1, "chipModel": "BCM56850"},
                    {"modId": 0, "busId": 1, "chipModel": "BCM56850"},
                    {"modId": 1, "chipModel": "BCM56850"},
                    {"modId": 2, "busId": 3, "chipModel": "BCM56960"}],
        "interfaces": {}})"}});
    EXPECT_EQ(outcome.traces,
              (std::vector<std::string>{"Kestrune:0 Missing devices info for device 2"}));
    EXPECT_EQ(eventsOf(outcome),
              (std::vector<std::string>{"ConfigParser: ssing devices info for device "}));
    EXPECT_EQ(outcome.model["<modules>"],
              (std::map<std::string, std::string>{
                  {"Value('Kestrune::StrataModule', ** {'modId': 0, 'busId': 1, 'chipModel': "
                   "'BCM56850'})",
                   "1"},
                  {"Value('Kestrune::StrataModule', ** {'modId': 2, 'busId': 3, 'chipModel': "
                   "'BCM56960'})",
                   "1"}}));
    EXPECT_EQ(outcome.model["<config>"]["platformType"], "'Strata'");
    // The platform section is looked up by the parse itself and by the module and port steps.
    EXPECT_EQ(outcome.platformLookups, 2);
}

TEST(StrataParser, ReadsPortsAndDropsIncompleteOnes) {
    auto outcome =
        parse(Family::Strata,
              {{"Tessaline", R"({"platformType": "Strata", "devices": [],
        "interfaces": {"Ethernet1/1": {"modId": 1, "port": 5, "uc_qbase": 16, "mc_qbase": 48},
                       "Ethernet1/2": {"modId": 1, "port": 6, "uc_qbase": 24}}})"},
               {"Dorvel", R"({"intfMtus": {"Ethernet1/2": {"mtu": 1500, "l2Mtu": 1514}}})"}});
    EXPECT_EQ(outcome.traces,
              (std::vector<std::string>{
                  "Kestrune:0 doExtractInterfaceInfo Added Ethernet1/1 to config",
                  "Kestrune:0 Missing interfaces info for Ethernet1/2",
                  "Kestrune:0 Missing interface Ethernet1/2 in other PStores. Skipping"}));
    EXPECT_EQ(eventsOf(outcome),
              (std::vector<std::string>{
                  "ConfigParser: Missing interfaces info for Ethernet1/2",
                  "ConfigParser: Missing interface Ethernet1/2 in other PStores. Skipping"}));
    auto port = outcome.model["Ethernet1/1"];
    EXPECT_EQ(port["class"], "StrataInterface");
    EXPECT_EQ(port["interfaceType"], "L2");
    EXPECT_EQ(port["modId"] + " " + port["port"] + " " + port["uc_qbase"] + " " + port["mc_qbase"],
              "1 5 16 48");
    EXPECT_EQ(outcome.model.count("Ethernet1/2"), 0U);
}

TEST(StrataParser, MissingPlatformPiecesAreReportedAndTheRestStillParses) {
    struct Case {
        std::string tessaline;
        std::vector<std::string> events;
    };
    const Case cases[] = {
        {R"({"platformType": "Strata", "interfaces": {}})",
         {"ConfigParser: Missing devices key in Tessaline PStore"}},
        {R"({"platformType": "Strata", "devices": []})",
         {"ConfigParser: Missing interfaces key in Tessaline PStore"}},
        {"", // no platform section at all: only a parser made by hand meets this
         {"ConfigParser: Missing Tessaline key in PStore",
          "ConfigParser: Missing Tessaline key in PStore"}},
    };
    for (const auto& c : cases) {
        auto outcome =
            parse(Family::Strata, {{"Tessaline", c.tessaline},
                                   {"Oku", R"({"interfaces": {"Vlan7": {"ipAddress": "10.0.0.1/24",
                                                                   "ip6Address": []}}})"}});
        EXPECT_EQ(eventsOf(outcome), c.events) << c.tessaline;
        EXPECT_EQ(outcome.model["Vlan7"]["vlan"], "7") << "later sections still apply";
    }
}

TEST(SandParser, ReadsDriverParamsDevicesAndPorts) {
    auto outcome = parse(Family::Sand, {{"SandTessaline", R"({"platformType": "Sand",
        "driverParams": {"oldestFapType": 3, "maxLags": 1024, "maxMembersPerLag": 16},
        "devices": [
          {"name": "Fap0", "pciName": "0000:01:00.0", "numFaps": 1, "fapType": 3, "cpuTm": 0,
           "cpuSflow": 1, "cpuAradSysPort": 2, "cpuArad": 3, "cpuAradBridge": 4},
          {"name": "Fap1", "pciName": "0000:02:00.0", "numFaps": 1, "fapType": 3,
           "cpuSflow": 1, "cpuAradSysPort": 2, "cpuArad": 3, "cpuAradBridge": 4},
          {"name": "Fap0", "pciName": "0000:03:00.0", "numFaps": 2, "fapType": 3, "cpuTm": 0,
           "cpuSflow": 1, "cpuAradSysPort": 2, "cpuArad": 3, "cpuAradBridge": 4}],
        "interfaces": {
          "Ethernet1/1": {"nativeVlan": 1, "systemPhyPortId": 100, "trafficClass": 2,
                          "dot1qTunnel": 7, "deviceName": "Fap9"},
          "Ethernet1/2": {"nativeVlan": 1, "systemPhyPortId": 101, "trafficClass": 2,
                          "dot1qTunnel": 0}}})"}});
    EXPECT_EQ(outcome.traces,
              (std::vector<std::string>{
                  "Kestrune:0 doExtractDriverParams", "Kestrune:0 doExtractDeviceInfo",
                  "Kestrune:0 Missing devices info for device 1",
                  "Kestrune:0 doExtractInterfaceInfo Added Ethernet1/1 to config",
                  "Kestrune:0 Missing interfaces info for Ethernet1/2"}));
    EXPECT_EQ(eventsOf(outcome),
              (std::vector<std::string>{"ConfigParser: issing devices info for device ",
                                        "ConfigParser: Missing interfaces info for Ethernet1/2"}));
    EXPECT_EQ(outcome.model["<config>"]["platformType"], "'Sand'");
    EXPECT_EQ(outcome.model["<config>"]["maxLags"], "1024");
    EXPECT_EQ(outcome.model["<config>"]["maxMembersPerLag"], "16");
    EXPECT_EQ(outcome.model["<config>"]["oldestFapType"], "3");
    EXPECT_EQ(outcome.model.count("<fap Fap1>"), 0U);
    EXPECT_EQ(outcome.model["<fap Fap0>"]["value"],
              "Value('Kestrune::SandFapConfig', ** {'name': 'Fap0', 'pciName': '0000:03:00.0', "
              "'numFaps': 2, 'fapType': 3, 'cpuTm': 0, 'cpuSflow': 1, 'cpuAradSysPort': 2, "
              "'cpuArad': 3, 'cpuAradBridge': 4})")
        << "a later device of the same name replaces the earlier";
    auto port = outcome.model["Ethernet1/1"];
    EXPECT_EQ(port["class"], "SandInterface");
    EXPECT_EQ(port["deviceName"], "'Fap9'") << "a port naming no device is still created";
    EXPECT_EQ(port["dot1qTunnel"], "7");
    EXPECT_EQ(outcome.model.count("Ethernet1/2"), 0U);
    // The driver parameters, devices and ports steps each look the platform section up.
    EXPECT_EQ(outcome.platformLookups, 3);
}

TEST(SandParser, IncompleteDriverParamsSetNoneAndAMissingSectionIsReportedPerStep) {
    auto partial = parse(Family::Sand, {{"SandTessaline", R"({"platformType": "Sand",
        "driverParams": {"oldestFapType": 3, "maxLags": 1024}, "devices": [], "interfaces": {}})"}});
    EXPECT_EQ(eventsOf(partial),
              (std::vector<std::string>{"ConfigParser: Missing required info in driverParams"}));
    EXPECT_EQ(partial.model["<config>"]["oldestFapType"], "0");
    EXPECT_EQ(partial.model["<config>"]["maxLags"], "0");

    auto none = parse(Family::Sand, {{"SandTessaline", ""}});
    EXPECT_EQ(eventsOf(none), (std::vector<std::string>(3, "ConfigParser: Missing Tessaline key "
                                                           "in PStore")));
}

} // namespace
} // namespace Kestrune
