#include "ProductionSwitch.h"

#include <csignal>
#include <gtest/gtest.h>

namespace Kestrune::Testing {
namespace {

// Trace lines (level 0, as written) and events that must appear, each list in its order.
struct BringUpFault {
    const char* name;
    const char* family;        // the example store and its chip family
    const char* refused;       // what the chip refuses, see the daemon's --refuse
    const char* moduleCommand; // instead of the daemon, when set
    const char* edit;          // "" or how the example store is changed (see edited)
    const char* deviceTaken;   // a device of this name made before the restore
    std::vector<std::string> traces;
    std::vector<std::string> events;
    int signal; // SIGABRT when the bring-up must end the process
};

std::ostream& operator<<(std::ostream& out, const BringUpFault& fault) {
    return out << fault.name;
}

// The first of `wanted` that no line holds (after `prefix`) in order, or "" when all are there.
std::string missing(const std::vector<std::string>& lines, const std::vector<std::string>& wanted,
                    const std::string& prefix) {
    auto at = lines.begin();
    for (const std::string& line : wanted) {
        at = std::find_if(at, lines.end(), [&](const std::string& have) {
            const std::size_t start = have.find(prefix);
            return start != std::string::npos && have.find(line, start) != std::string::npos;
        });
        if (at == lines.end()) {
            return line;
        }
        ++at;
    }
    return {};
}

// The changes to an example store that lead the restore into a fault.
void edited(rapidjson::Document& store, const std::string& edit) {
    if (edit == "no chips") {
        store["Tessaline"]["devices"].SetArray();
    } else if (edit == "Ethernet1/1 MTU 9500") {
        store["Dorvel"]["intfMtus"]["Ethernet1/1"]["mtu"].SetInt(9500);
    } else if (!edit.empty()) {
        ADD_FAILURE() << "no store edit " << edit;
    }
}

class BringUpFaults : public ProductionSwitch,
                      public ::testing::WithParamInterface<BringUpFault> {};

TEST_P(BringUpFaults, EachIsTracedAndRecordedWithItsText) {
    const BringUpFault& fault = GetParam();
    if (fault.moduleCommand[0] != '\0') {
        moduleCommandIs(std::string(fault.family) == "sand" ? "sand-dma" : "strata-dma-drv",
                        fault.moduleCommand);
    } else {
        moduleIs(fault.family, fault.refused);
    }
    storeIs(fault.family, [&](rapidjson::Document& store) { edited(store, fault.edit); });
    if (fault.deviceTaken[0] != '\0') {
        run({"ip", "tuntap", "add", "dev", fault.deviceTaken, "mode", "tap"});
    }
    const CliResult result = restore();
    EXPECT_EQ(result.signal, fault.signal);
    std::string said;
    for (const std::string& line : result.traces) {
        said += line.rfind("Kestrune:0 ", 0) == 0 ? line + "\n" : "";
    }
    EXPECT_EQ(missing(result.traces, fault.traces, "Kestrune:0 "), "")
        << "not traced at level 0, in this order; level 0 said:\n"
        << said;
    EXPECT_EQ(missing(result.recorded, fault.events, "logEvent "), "")
        << "not recorded, in this order";
}

const std::string sandPort = "Ethernet1/1";

INSTANTIATE_TEST_SUITE_P(
    Production, BringUpFaults,
    ::testing::Values(
        BringUpFault{"ModuleFailsToLoad",
                     "strata",
                     "",
                     "/bin/false",
                     "",
                     "",
                     {"setupFabricDevicemodprobe strata-dma-drv rc 1",
                      "setupFabricDevice open failed. errno: 6"},
                     {"setupFabricDevicemodprobe strata-dma-drv failed",
                      "setupFabricDevice open failed.", "assertion failed: 0"},
                     SIGABRT},
        BringUpFault{"BdeNodeOpensOnlyOnce",
                     "strata",
                     "bde-reopen",
                     "",
                     "",
                     "",
                     {"Unable to open /dev/kovana-bde", "Unable to add device 0"},
                     {"Unable to open /dev/kovana-bde", "Unable to add device "},
                     0},
        BringUpFault{"BdeNodeOpensOnlyOnceWithNoChips",
                     "strata",
                     "bde-reopen",
                     "",
                     "no chips",
                     "",
                     {"Unable to open /dev/kovana-bde", "Unable to enable device interrupts"},
                     {"Unable to open /dev/kovana-bde", "Unable to enable device interrupts"},
                     0},
        BringUpFault{"AddDeviceRefused",
                     "strata",
                     "adddevice",
                     "",
                     "",
                     "",
                     {},
                     {"assertion failed: rc == 0"},
                     SIGABRT},
        BringUpFault{"InterruptsRefused",
                     "strata",
                     "interrupts",
                     "",
                     "",
                     "",
                     {},
                     {"assertion failed: rc == 0"},
                     SIGABRT},
        BringUpFault{"FabricMacRefused",
                     "strata",
                     "fabric-mac",
                     "",
                     "",
                     "",
                     {"Unable to set fabric MAC address"},
                     {"Unable to set fabric MAC address"},
                     0},
        BringUpFault{"FabricUpRefused",
                     "strata",
                     "fabric-up",
                     "",
                     "",
                     "",
                     {"Unable to set fabric device state to Up"},
                     {"Unable to set fabric device state to Up"},
                     0},
        BringUpFault{"SandFabricUpRefused",
                     "sand",
                     "fabric-up",
                     "",
                     "",
                     "",
                     {"Unable to set fabric device state to Up"},
                     {"Unable to set fabric device state to Up"},
                     0},
        BringUpFault{"IfaddRefused",
                     "strata",
                     "ifadd",
                     "",
                     "",
                     "",
                     {"Fab Ioctl wasn't successful ifadd et1_1 0 1 -1 1006 16 1040"},
                     {"Fab Ioctl wasn't successful ifadd et1_1 0 1 -1 1006 16 1040"},
                     0},
        BringUpFault{"SandIfaddRefused",
                     "sand",
                     "ifadd",
                     "",
                     "",
                     "",
                     {"Unable to create kernel Interface for " + sandPort},
                     {"Unable to create kernel Interface for " + sandPort},
                     0},
        BringUpFault{"PortMacRefused",
                     "strata",
                     "port-mac",
                     "",
                     "",
                     "",
                     {"Couldn't set MAC address for et1_1"},
                     {"Couldn't set MAC address for et1_1"},
                     0},
        BringUpFault{"PortUpRefused",
                     "strata",
                     "port-up",
                     "",
                     "",
                     "",
                     {"Couldn't set Device state UP for et1_1"},
                     {"Couldn't set Device state UP for et1_1"},
                     0},
        BringUpFault{"SandPortUpRefused",
                     "sand",
                     "port-up",
                     "",
                     "",
                     "",
                     {"Couldn't set Device state UP for et1_1"},
                     {"Couldn't set Device state UP for et1_1"},
                     0},
        BringUpFault{"PortsTakeNoLargerFrames",
                     "strata",
                     "port-mtu",
                     "",
                     "Ethernet1/1 MTU 9500",
                     "",
                     {"Unable to set MTU of et1_2 to 10240", "Unable to set MTU for et1_1"},
                     {"Unable to set MTU of et1_2 to 10240", "Unable to set MTU for et1_1"},
                     0},
        BringUpFault{"FabricResetUnderTheSvis",
                     "strata",
                     "fabric-reset",
                     "",
                     "",
                     "",
                     {"Unable to set devstat UP for vlan10"},
                     {"Unable to set devstat UP for vlan10"},
                     0},
        BringUpFault{
            "PortResetUnderItsSubinterface",
            "strata",
            "port-reset",
            "",
            "",
            "",
            {"Unable to set devstat UP for et1_1.100", "Unable to set devstat UP for et1_1"},
            {"Unable to set devstat UP for et1_1.100", "Unable to set devstat UP for et1_1"},
            0},
        BringUpFault{"SubinterfaceDeviceTaken",
                     "strata",
                     "",
                     "",
                     "",
                     "et1_1.100",
                     {"Unable to create et1_1.100"},
                     {"Unable to create et1_1.100"},
                     0}),
    [](const ::testing::TestParamInfo<BringUpFault>& info) { return info.param.name; });

} // namespace
} // namespace Kestrune::Testing
