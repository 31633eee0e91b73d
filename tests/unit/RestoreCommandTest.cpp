#include "RestoreRun.h"
#include "Scenario.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <sys/stat.h>

namespace Kestrune::Testing {
namespace {

TEST(RestoreSummary, SaysWhatWasMadeHowLongEachPhaseTookAndEachFailureOnce) {
    using Cli::RestoreReport;
    RestoreReport report;
    report.started = true;
    report.initialized = true;
    report.platformType = "Strata";
    report.phasesMs = {{"parse", 0.31}, {"init", 3.66}, {"create", 5.8}, {"total", 9.77}};
    report.interfaces = {{"Ethernet1", "et1", "RoutedPort", "ns-red", true, "", {}},
                         {"Ethernet2", "et2", "RoutedPort", "default", true, "", {}},
                         {"Ethernet3", "et3", "L2", "default", true, "", {}},
                         {"Vlan10", "vlan10", "SVI", "default", false, "", {}}};
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
        const std::string output = shellOutput(
            cli + " restore --history '' --pstore-dir " + dir.path().string() + " --report " +
                dir.file("report.json") + " --state " + dir.file("state.json") + " 2>&1",
            &status);
        EXPECT_EQ(status, 2) << c.what << ": " << output;
        EXPECT_NE(output.find("kestrune restore: could not start"), std::string::npos) << c.what;
        const std::string report = shellOutput("cat " + dir.file("report.json"), &status);
        EXPECT_NE(report.find("\"ok\": false"), std::string::npos) << c.what << ": " << report;
        // Others asking whether the restore is done hear that it failed, in this boot.
        const std::string state =
            shellOutput(cli + " status --state " + dir.file("state.json"), &status);
        EXPECT_EQ(status, 1) << c.what << ": " << state;
        EXPECT_EQ(state.rfind("Restore: failed\n", 0), 0U) << c.what << ": " << state;
    }
}

} // namespace
} // namespace Kestrune::Testing

namespace Kestrune::Testing {
namespace {

// What node-exporter reads of the last restore, and that it never reads half a file: the
// text is written beside the file and renamed over it, with its own mode whatever the umask.
TEST(RestoreMetrics, TheLastRestoreAsATextfileReplacedWhole) {
    Cli::RestoreReport report;
    report.started = true;
    report.initialized = true;
    report.phasesMs = {{"parse", 12.5}, {"total", 250}};
    report.failures = {"Driver: Unable to create Kernel interface for Port-Channel1"};
    report.endedMs = 8125;
    const std::string text = report.metrics();
    for (const char* line : {"kestrune_restore_success 0\n", "kestrune_restore_exit_status 1\n",
                             "kestrune_restore_failures 1\n",
                             "kestrune_restore_phase_seconds{phase=\"parse\"} 0.0125\n",
                             "kestrune_restore_phase_seconds{phase=\"total\"} 0.25\n",
                             "kestrune_restore_completion_seconds_since_boot 8.125\n",
                             "# TYPE kestrune_restore_failures gauge\n"}) {
        EXPECT_NE(text.find(line), std::string::npos) << line << " in\n" << text;
    }
    TempDir dir;
    const std::string path = dir.file("kestrune.prom");
    dir.write("kestrune.prom", "old");
    const mode_t mask = umask(077);
    EXPECT_TRUE(Cli::fileReplaced(path, text));
    umask(mask);
    EXPECT_EQ(contentOf(path), text);
    struct stat status {};
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0644U);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()),
                            std::filesystem::directory_iterator()),
              1)
        << "a temporary file was left";
    EXPECT_FALSE(Cli::fileReplaced(dir.file("no-folder/kestrune.prom"), text));
    EXPECT_GT(Cli::msSinceBoot(), 0);
}

} // namespace
} // namespace Kestrune::Testing
