#include "parser/StoreCheck.h"

#include "StoreScenario.h"
#include "parser/ConfigParserCreator.h"

#include <algorithm>
#include <csignal>
#include <gtest/gtest.h>

namespace Kestrune {
namespace {

using Testing::Family;
using Testing::runProcess;
using Testing::shellOutput;
using Testing::storeWith;
using Testing::TempDir;

const char* const strataPorts = R"({"platformType": "Strata",
    "devices": [{"modId": 0, "busId": 1, "chipModel": "BCM56850"}],
    "interfaces": {"Ethernet1/1": {"modId": 0, "port": 1, "uc_qbase": 16, "mc_qbase": 48},
                   "Ethernet1/2": {"modId": 0, "port": 2, "uc_qbase": 24, "mc_qbase": 52}}})";
const char* const sandPorts = R"({"platformType": "Sand",
    "driverParams": {"oldestFapType": 3, "maxLags": 1024, "maxMembersPerLag": 16},
    "devices": [], "interfaces": {"Ethernet1/1": {"nativeVlan": 1, "systemPhyPortId": 100,
        "trafficClass": 0, "dot1qTunnel": 0, "deviceName": "Fap0"}}})";

std::string strataStore(std::map<std::string, std::string> sections) {
    sections.try_emplace("Tessaline", strataPorts);
    return storeWith(Family::Strata, sections);
}

std::string lagOf(const std::string& flags) {
    return R"({"inputIntfLag": {"Port-Channel1": {"member": ["Ethernet1/1"]}},
               "collectDistribute": {"Ethernet1/1": )" +
           flags + "}}";
}

// Whether a real restore from the store ends the process.
bool restoreEndsTheProcess(const std::string& store) {
    TempDir dir;
    dir.write("zel-persistent-store.json", store);
    auto outcome = runProcess(dir, [&] {
        auto parser =
            configParserCreatorFactory()->createFrom(dir.file("zel-persistent-store.json"));
        if (parser) {
            parser->parse();
        }
    });
    return outcome.signal == SIGABRT;
}

struct AbortCase {
    const char* name;
    std::string store;
    std::string pointer;
};

class StoreCheckAbort : public ::testing::TestWithParam<AbortCase> {};

// Every store the restore cannot survive is found, at the right place, and the restore
// really does end on it: the check and the restore never disagree.
TEST_P(StoreCheckAbort, FindsWhatEndsTheRestore) {
    const AbortCase& c = GetParam();
    auto problems = StoreCheck::problemsOf(c.store);
    auto found = std::find_if(problems.begin(), problems.end(), [&](const StoreProblem& p) {
        return p.consequence == Consequence::EndsProcess;
    });
    ASSERT_NE(found, problems.end()) << "no fatal problem found";
    EXPECT_EQ(found->pointer, c.pointer) << found->message;
    EXPECT_TRUE(restoreEndsTheProcess(c.store)) << "the restore survives this store";
}

INSTANTIATE_TEST_SUITE_P(
    EveryFatalStore, StoreCheckAbort,
    ::testing::Values(
        AbortCase{"NotJson", R"({"Tessaline": )", ""}, AbortCase{"EmptyFile", "", ""},
        AbortCase{"RootNotAnObject", R"([{"Tessaline": {"platformType": "Strata"}}])", ""},
        AbortCase{"BothPlatformSections",
                  strataStore({{"SandTessaline", R"({"platformType": "Sand"})"}}), ""},
        AbortCase{"PlatformSectionNotAnObject", R"({"Tessaline": "Strata"})", "/Tessaline"},
        AbortCase{"PlatformTypeNotAString", R"({"SandTessaline": {"platformType": 2}})",
                  "/SandTessaline/platformType"},
        AbortCase{"SectionNotAnObject", strataStore({{"Oku", "[]"}}), "/Oku"},
        AbortCase{"AddressNotAString",
                  strataStore({{"Oku", R"({"interfaces": {"Ethernet1/1": {"ipAddress": 1}}})"}}),
                  "/Oku/interfaces/Ethernet1~11/ipAddress"},
        AbortCase{
            "AddressListNotAnArray",
            strataStore({{"Oku", R"({"interfaces": {"Ethernet1/1": {"ip6Address": "::1/128"}}})"}}),
            "/Oku/interfaces/Ethernet1~11/ip6Address"},
        AbortCase{"VlanIdNotAnInteger",
                  strataStore({{"Vant", R"({"bridgeMacAddr": "m", "intfNameToVlanId": {},
                                 "subIntfNameToEncapVlanId": {"Ethernet1/1.5": "5"}})"}}),
                  "/Vant/subIntfNameToEncapVlanId/Ethernet1~11.5"},
        AbortCase{"VlanWithoutNumber",
                  strataStore({{"Oku", R"({"interfaces": {"Vlan": {"ipAddress": "10.0.0.1/24",
                                                                   "ip6Address": []}}})"}}),
                  "/Oku/interfaces/Vlan"},
        AbortCase{"PortTurnedRoutedTwice",
                  strataStore({{"Vant", R"({"bridgeMacAddr": "m", "subIntfNameToEncapVlanId": {},
                      "intfNameToVlanId": {"Ethernet1/1": 1006, "Ethernet1/1": 1007}})"}}),
                  "/Vant/intfNameToVlanId/Ethernet1~11"},
        AbortCase{"MembersNotAnArray", strataStore({{"Pell", R"({"collectDistribute": {},
                      "inputIntfLag": {"Port-Channel1": {"member": "Ethernet1/1"}}})"}}),
                  "/Pell/inputIntfLag/Port-Channel1/member"},
        AbortCase{"CollectingMissing", strataStore({{"Pell", lagOf(R"({"distributing": true})")}}),
                  "/Pell/collectDistribute/Ethernet1~11"},
        AbortCase{"DistributingNotABool",
                  strataStore({{"Pell", lagOf(R"({"collecting": true, "distributing": 1})")}}),
                  "/Pell/collectDistribute/Ethernet1~11/distributing"},
        AbortCase{
            "MtuNotAnInteger",
            strataStore({{"Dorvel",
                          R"({"intfMtus": {"Ethernet1/1": {"mtu": 1500.5, "l2Mtu": 1514}}})"}}),
            "/Dorvel/intfMtus/Ethernet1~11/mtu"},
        AbortCase{"RuleTextNotAString",
                  strataStore({{"Sabrel", R"({"iptables": ["*filter"], "ip6tables": ""})"}}),
                  "/Sabrel/iptables"},
        AbortCase{"DeviceFieldNotAnInteger",
                  strataStore({{"Tessaline", R"({"platformType": "Strata", "interfaces": {},
                      "devices": [{"modId": 0, "busId": "1", "chipModel": "BCM56850"}]})"}}),
                  "/Tessaline/devices/0/busId"},
        AbortCase{"PortFieldOutOfRange",
                  strataStore({{"Tessaline", R"({"platformType": "Strata", "devices": [],
                      "interfaces": {"Ethernet1/1": {"modId": 0, "port": 4294967296,
                                                     "uc_qbase": 16, "mc_qbase": 48}}})"}}),
                  "/Tessaline/interfaces/Ethernet1~11/port"},
        AbortCase{"SandDeviceNameNotAString",
                  storeWith(Family::Sand, {{"SandTessaline", R"({"platformType": "Sand",
                      "driverParams": {"oldestFapType": 3, "maxLags": 1, "maxMembersPerLag": 1},
                      "devices": [], "interfaces": {"Ethernet1/1": {"nativeVlan": 1,
                      "systemPhyPortId": 1, "trafficClass": 0, "dot1qTunnel": 0,
                      "deviceName": 0}}})"}}),
                  "/SandTessaline/interfaces/Ethernet1~11/deviceName"}),
    [](const ::testing::TestParamInfo<AbortCase>& info) { return info.param.name; });

TEST(StoreCheck, ReportsWhatIsSkippedWhereItIsAndGoesOn) {
    auto problems = StoreCheck::problemsOf(strataStore({
        {"Tessaline", R"({"platformType": "Strata",
            "devices": [{"modId": 0, "chipModel": "a"}, {"modId": 1, "busId": "x", "chipModel": "b"},
                        {"modId": 2, "busId": 1}],
            "interfaces": {"Ethernet1/1": {"modId": 0, "port": 1, "uc_qbase": 16, "mc_qbase": 48}}})"},
        {"Dorvel", R"({"intfMtus": {"Ethernet9/9": {"mtu": 1500, "l2Mtu": 1514},
                                     "Ethernet1/1": {"mtu": 1500}}})"},
        {"Oku", R"({"interfaces": {"Loopback0": {}, "Vlan10": {"ipAddress": "10.0.0.1/24"}}})"},
        {"Sabrel", ""},
    }));
    std::vector<std::string> lines;
    for (const auto& p : problems) {
        lines.push_back(p.pointer + " | " + p.message + " | " + std::string(textOf(p.consequence)));
    }
    // Schema problems come in the store's order (sections here in key order), then the
    // entries only the restore's order of sections can tell.
    EXPECT_EQ(
        lines,
        (std::vector<std::string>{
            "/Dorvel/intfMtus/Ethernet1~11 | missing \"l2Mtu\" | skips the entry",
            "/Tessaline/devices/0 | missing \"busId\" | skips the entry",
            "/Tessaline/devices/1/busId | expected \"integer\", found string | ends the process",
            "/Tessaline/devices/2 | missing \"chipModel\" | skips the entry",
            " | missing section \"Sabrel\" | skips the section",
            "/Oku/interfaces/Loopback0 | Unexpected interface found in Oku "
            "interfaces Loopback0 | skips the entry",
            "/Oku/interfaces/Vlan10 | Missing ipAddress information for Vlan10 | "
            "skips the entry",
            "/Dorvel/intfMtus/Ethernet9~19 | Missing interface Ethernet9/9 in other "
            "PStores. Skipping | skips the entry"}));
}

TEST(StoreCheck, StoresThatRestoreNothingAreSaidToRestoreNothing) {
    const std::pair<std::string, std::string> cases[] = {
        {R"({"Oku": {}})", ""},
        {R"({"Tessaline": {"devices": []}})", "/Tessaline"},
        {R"({"Tessaline": {"platformType": "strata"}})", "/Tessaline/platformType"},
    };
    for (const auto& [store, pointer] : cases) {
        auto problems = StoreCheck::problemsOf(store);
        ASSERT_EQ(problems.size(), 1U) << store;
        EXPECT_EQ(problems[0].pointer, pointer);
        EXPECT_EQ(problems[0].consequence, Consequence::NoRestore) << problems[0].message;
    }
}

TEST(StoreCheck, OnlyValuesTheRestoreReadsDecideItsFate) {
    struct Case {
        const char* what;
        std::string store;
        Consequence worst;
    };
    const Case cases[] = {
        {"flags of a member that is skipped",
         strataStore({{"Pell", R"({"inputIntfLag": {"Port-Channel1": {"member": ["Ethernet9/9"]}},
                                   "collectDistribute": {"Ethernet9/9": {"collecting": true}}})"}}),
         Consequence::SkipsEntry},
        {"a key given twice, the first read",
         R"({"Tessaline": {"platformType": "Strata", "platformType": {"x": 1}}})",
         Consequence::SkipsSection},
        {"a key given twice, the first of the wrong type",
         R"({"Tessaline": {"platformType": {"x": 1}, "platformType": "Strata"}})",
         Consequence::EndsProcess},
    };
    for (const Case& c : cases) {
        Consequence worst = Consequence::SkipsEntry;
        for (const auto& problem : StoreCheck::problemsOf(c.store)) {
            worst = std::max(worst, problem.consequence);
        }
        EXPECT_EQ(textOf(worst), textOf(c.worst)) << c.what;
        EXPECT_EQ(worst == Consequence::EndsProcess, restoreEndsTheProcess(c.store)) << c.what;
    }
}

TEST(StoreCheck, KeysTheRestoreDoesNotReadAreWarningsWhereTheyAre) {
    const std::string okuRed = R"({"interfaces": {"Ethernet1/1": {"ipAddress": "10.0.0.1/24",
                                   "ip6Address": [], "vfr": "red"}}})";
    struct Case {
        const char* what;
        std::string store;
        std::vector<std::string> warned;
    };
    const Case cases[] = {
        {"a misspelled vrf", strataStore({{"Oku", okuRed}}), {"/Oku/interfaces/Ethernet1~11/vfr"}},
        {"a key of a section",
         strataStore({{"Dorvel", R"({"intfMtus": {}, "mtus": {}})"}}),
         {"/Dorvel/mtus"}},
        {"a key of a device in an array",
         strataStore({{"Tessaline", R"({"platformType": "Strata", "interfaces": {},
                         "devices": [{"modId": 0, "busId": 1, "chipModel": "x", "bus": 2}]})"}}),
         {"/Tessaline/devices/0/bus"}},
        {"another agent's section, which is not the restore's business",
         strataStore({{"Zorvan", R"({"anything": 1})"}}),
         {}},
    };
    for (const Case& c : cases) {
        std::vector<std::string> warned;
        for (const auto& problem : StoreCheck::problemsOf(c.store)) {
            if (problem.consequence == Consequence::Warning) {
                warned.push_back(problem.pointer);
                EXPECT_NE(problem.message.find("is not a key the restore reads"),
                          std::string::npos);
            }
        }
        EXPECT_EQ(warned, c.warned) << c.what;
    }
}

TEST(CheckCommand, ExitStatusSaysWhetherTheRestoreWouldSucceed) {
    TempDir dir;
    dir.write(
        "skips.json",
        strataStore({{"Dorvel", R"({"intfMtus": {"Ethernet9/9": {"mtu": 1, "l2Mtu": 1}}})"}}));
    dir.write("fatal.json", strataStore({{"Oku", "[]"}}));
    dir.write("warns.json", strataStore({{"Sabrel", R"({"iptables": "", "ip6tables": "",
                                                         "ebtables": ""})"}}));
    const std::string cli = KESTRUNE_CLI;
    const std::string examples = std::string(KESTRUNE_SOURCE_DIR) + "/examples/";
    const std::pair<std::string, int> cases[] = {
        {"check --strict " + examples + "strata.json", 0},
        // A Sand switch makes no subinterface or Port-Channel device: that is a skip.
        {"check " + examples + "sand.json", 0},
        {"check --strict " + examples + "sand.json", 1},
        {"check " + dir.file("skips.json"), 0},
        {"check --strict " + dir.file("skips.json"), 1},
        // A warning does not fail the check; with --strict it does.
        {"check " + dir.file("warns.json"), 0},
        {"check --strict " + dir.file("warns.json"), 1},
        {"check " + dir.file("fatal.json"), 1},
        {"check " + dir.file("missing.json"), 1},
        {"check", 2},
        {"check --bogus " + dir.file("skips.json"), 2},
    };
    for (const auto& [arguments, expected] : cases) {
        int status = -1;
        std::string output = shellOutput(cli + " " + arguments + " 2>&1", &status);
        EXPECT_EQ(status, expected) << arguments << "\n" << output;
    }
    int status = -1;
    std::string json = shellOutput(cli + " check --json " + dir.file("fatal.json"), &status);
    EXPECT_NE(json.find("\"restore\": \"ends the process\""), std::string::npos) << json;
    EXPECT_NE(json.find("\"pointer\": \"/Oku\""), std::string::npos) << json;
}

} // namespace
} // namespace Kestrune
