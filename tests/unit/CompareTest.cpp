// `compare` reads back what a restore writes with --report, and says where the later one got
// slower and what failed differently.
#include "CompareCommand.h"
#include "ReportFile.h"
#include "RestoreRun.h"
#include "Scenario.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

namespace Kestrune::Testing {
namespace {

// A restore of three devices that began at 1,000 ms since boot; `slowCreate` is added to the
// creation of Ethernet2 (and so to the create phase and the total).
Cli::RestoreReport restoreReport(double slowCreate, std::vector<std::string> failures) {
    Cli::RestoreReport report;
    report.started = true;
    report.initialized = true;
    report.platformType = "Strata";
    report.phasesMs = {{"parse", 2}, {"init", 40},      {"create", 30 + slowCreate},
                       {"move", 10}, {"configure", 20}, {"total", 102 + slowCreate}};
    report.phasesStartMs = {{"total", 1000},
                            {"parse", 1000},
                            {"init", 1002},
                            {"create", 1042},
                            {"move", 1072 + slowCreate},
                            {"configure", 1082 + slowCreate}};
    const double s = slowCreate;
    report.interfaces = {
        {"Ethernet1",
         "et1",
         "RoutedPort_",
         "ns-red",
         true,
         "",
         {{"create", 1052}, {"move", 1082 + s}, {"configure", 1092 + s}}},
        {"Ethernet2",
         "et2",
         "RoutedPort_",
         "default",
         true,
         "",
         {{"create", 1062 + s}, {"configure", 1097 + s}}},
        {"Vlan10",
         "vlan10",
         "SVI_",
         "default",
         true,
         "",
         {{"create", 1072 + s}, {"configure", 1102 + s}}},
    };
    report.failures = std::move(failures);
    report.endedMs = 1102 + s;
    return report;
}

Cli::ReportFile readBack(const TempDir& dir, const std::string& name,
                         const Cli::RestoreReport& report) {
    dir.write(name, report.json());
    Cli::ReportFile file;
    std::string problem;
    EXPECT_TRUE(Cli::reportFileRead(dir.file(name), file, problem)) << problem;
    return file;
}

TEST(Compare, ThePhaseAndTheDeviceThatGotSlowerAreNamedAndTheGateHoldsAtItsThreshold) {
    const TempDir dir;
    const Cli::ReportFile before = readBack(dir, "old.json", restoreReport(0, {}));
    ASSERT_EQ(before.devices.size(), 3U);
    // Each device's share of a step runs from the device before it, or the step's start.
    EXPECT_DOUBLE_EQ(before.devices[1].spentTotalMs(), 10 + 5);
    struct Case {
        const char* what;
        double slowCreate;
        double maxSlower;
        double minMs;
        std::vector<std::string> overGate;
    };
    const Case cases[] = {
        {"the same restore", 0, 0, 0, {}},
        {"create 300 ms slower, no gate", 300, -1, 10, {}},
        {"create 300 ms slower, gate 20%", 300, 20, 10, {"create", "total"}},
        {"the total is 394% slower, gate 400%", 300, 400, 10, {"create"}},
        {"6 ms slower is under the 10 ms floor", 6, 10, 10, {}},
        {"6 ms slower with no floor: create 20%, total 5.9%", 6, 10, 0, {"create"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const Cli::ReportFile after = readBack(dir, "new.json", restoreReport(c.slowCreate, {}));
        const Cli::ReportComparison comparison =
            Cli::reportsCompared(before, after, c.maxSlower, c.minMs);
        EXPECT_EQ(comparison.overGate, c.overGate);
        EXPECT_EQ(comparison.exitStatus(), c.overGate.empty() ? 0 : 1);
        ASSERT_EQ(comparison.phases.back().name, "total");
        if (c.slowCreate == 0) {
            EXPECT_TRUE(comparison.slower.empty());
            continue;
        }
        ASSERT_FALSE(comparison.slower.empty());
        EXPECT_EQ(comparison.slower[0].name, "Ethernet2");
        EXPECT_EQ(comparison.slower[0].step, "create");
        EXPECT_DOUBLE_EQ(comparison.slower[0].newMs - comparison.slower[0].oldMs, c.slowCreate);
        const std::string text = comparison.text();
        EXPECT_NE(text.find("Ethernet2"), std::string::npos) << text;
        EXPECT_NE(comparison.json().find("\"slowerThanAllowed\""), std::string::npos);
    }
}

TEST(Compare, FailuresThatCameAndWentAreCountedByText) {
    const TempDir dir;
    const Cli::ReportFile before = readBack(
        dir, "old.json",
        restoreReport(0, {"Driver: Unable to set MTU for et1", "Driver: Unable to set MTU for et1",
                          "Driver: Unable to add 10.0.0.1/24 to et2"}));
    const Cli::ReportFile after = readBack(
        dir, "new.json",
        restoreReport(0, {"Driver: Unable to set MTU for et1", "Driver: Unable to set MTU for et1",
                          "Driver: Unable to set MTU for et1",
                          "Driver: Unable to create SVI vlan10"}));
    const Cli::ReportComparison comparison = Cli::reportsCompared(before, after, -1, 10);
    using Texts = std::vector<std::pair<std::string, std::size_t>>;
    EXPECT_EQ(comparison.came, (Texts{{"Driver: Unable to set MTU for et1", 1},
                                      {"Driver: Unable to create SVI vlan10", 1}}));
    EXPECT_EQ(comparison.went, (Texts{{"Driver: Unable to add 10.0.0.1/24 to et2", 1}}));
}

TEST(Compare, AFileThatIsNoReportIsRefusedWithWhatAndWhere) {
    const TempDir dir;
    mkdir(dir.file("folder").c_str(), 0755);
    const struct {
        const char* what;
        const char* content; // nullptr: the file is not written
        const char* file;
        const char* problem;
    } cases[] = {
        {"missing", nullptr, "missing.json", "No such file or directory"},
        {"a folder", nullptr, "folder", "it is not a regular file"},
        {"not JSON", "{\"ok\": tru", "broken.json", "is not JSON"},
        {"an array", "[1]", "array.json", "it is not a JSON object"},
        {"no phases", R"({"ok": true, "phasesStartMsSinceBoot": {}})", "nophases.json",
         "\"phasesMs\""},
        {"a phase that is no number",
         R"({"ok": true, "phasesMs": {"init": "fast"}, "phasesStartMsSinceBoot": {}})",
         "badphase.json", "\"phasesMs\""},
        {"steps that are no numbers",
         R"({"ok": true, "phasesMs": {}, "phasesStartMsSinceBoot": {},
             "interfaces": [{"name": "Ethernet1", "stepsMsSinceBoot": {"create": null}}],
             "failures": {"texts": []}})",
         "badsteps.json", "the steps of Ethernet1"},
        {"no failures",
         R"({"ok": true, "phasesMs": {}, "phasesStartMsSinceBoot": {}, "interfaces": []})",
         "nofailures.json", "\"failures\""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        if (c.content != nullptr) {
            dir.write(c.file, c.content);
        }
        Cli::ReportFile report;
        std::string problem;
        EXPECT_FALSE(Cli::reportFileRead(dir.file(c.file), report, problem));
        EXPECT_NE(problem.find(c.problem), std::string::npos) << problem;
        EXPECT_NE(problem.find(dir.file(c.file)), std::string::npos) << problem;
        int status = 0;
        const std::string output =
            shellOutput(std::string(KESTRUNE_CLI) + " compare " + dir.file(c.file) + " " +
                            dir.file(c.file) + " 2>&1",
                        &status);
        EXPECT_EQ(status, 2) << output;
    }
}

} // namespace
} // namespace Kestrune::Testing
