#include "RestoreRun.h"
#include "Scenario.h"

#include <gtest/gtest.h>

namespace Kestrune::Testing {
namespace {

TEST(RestoreSummary, SaysWhatWasMadeHowLongEachPhaseTookAndEachFailureOnce) {
    using Cli::RestoreReport;
    RestoreReport report;
    report.started = true;
    report.initialized = true;
    report.platformType = "Strata";
    report.phasesMs = {{"parse", 0.31}, {"init", 3.66}, {"create", 5.8}, {"total", 9.77}};
    report.interfaces = {{"Ethernet1", "et1", "RoutedPort", "ns-red", true, ""},
                         {"Ethernet2", "et2", "RoutedPort", "default", true, ""},
                         {"Ethernet3", "et3", "L2", "default", true, ""},
                         {"Vlan10", "vlan10", "SVI", "default", false, ""}};
    struct Case {
        const char* what;
        std::vector<std::string> failures;
        int stoppedBy;
        std::string expected;
    };
    const std::string head =
        "Restored the Strata store: 3 of 4 interfaces made, in 2 "
        "namespace(s)\nPhases (ms): parse 0.3 init 3.7 create 5.8; total 9.8\n";
    const Case cases[] = {
        {"clean", {}, 0, head + "No failures\n"},
        {"repeated failures",
         {"Driver: Unable to set MTU for et1", "StrataDriver: b",
          "Driver: Unable to set MTU for et1", "Driver: Unable to set MTU for et1"},
         0,
         head +
             "4 failure(s):\n  Driver: Unable to set MTU for et1 (3 times)\n  StrataDriver: b\n"},
        {"a name with a control byte",
         {"Driver: et\x1b[2J"},
         0,
         head + "1 failure(s):\n  Driver: et\\x1b[2J\n"},
        {"stopped", {}, 15, head + "No failures\nStopped by SIGTERM before it finished\n"},
    };
    for (const Case& c : cases) {
        report.failures = c.failures;
        report.stoppedBy = c.stoppedBy;
        EXPECT_EQ(report.summary(), c.expected) << c.what;
    }
    report.started = false;
    report.failures.clear();
    report.stoppedBy = 0;
    EXPECT_EQ(report.summary().rfind("Nothing restored: no store of a known platform", 0), 0U);
}

TEST(RestoreCommand, ARestoreThatCannotStartExitsWithTwoAndSaysWhy) {
    const TempDir dir;
    const std::string cli = KESTRUNE_CLI;
    const struct {
        const char* what;
        std::string store;
    } cases[] = {
        {"no store", ""},
        {"a platform without a driver", R"({"SandTessaline": {"platformType": "Other"}})"},
    };
    for (const auto& c : cases) {
        if (!c.store.empty()) {
            dir.write("zel-persistent-store.json", c.store);
        }
        int status = 0;
        const std::string output =
            shellOutput(cli + " restore --history '' --pstore-dir " + dir.path().string() +
                            " --report " + dir.file("report.json") + " 2>&1",
                        &status);
        EXPECT_EQ(status, 2) << c.what << ": " << output;
        EXPECT_NE(output.find("kestrune restore: could not start"), std::string::npos) << c.what;
        const std::string report = shellOutput("cat " + dir.file("report.json"), &status);
        EXPECT_NE(report.find("\"ok\": false"), std::string::npos) << c.what << ": " << report;
    }
}

} // namespace
} // namespace Kestrune::Testing
