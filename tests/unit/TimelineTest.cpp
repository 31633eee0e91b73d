// The restore as a picture: at the size of the largest switch it stays a handful of rows, a
// renderer draws it, and what was not made is named.
#include "ReportFile.h"
#include "RestoreRun.h"
#include "Scenario.h"
#include "TimelineCommand.h"

#include <gtest/gtest.h>
#include <sstream>

namespace Kestrune::Testing {
namespace {

bool installed(const std::string& program) {
    int status = -1;
    shellOutput("command -v " + program + " >/dev/null", &status);
    return status == 0;
}

// A restore of 4,000 interfaces 20 s after boot: 2,304 routed ports, 1,000 SVIs and 696
// subinterfaces, of which the last 40 subinterfaces were not made, with 80 distinct failures.
Cli::RestoreReport largestReport() {
    Cli::RestoreReport report;
    report.started = true;
    report.initialized = true;
    report.platformType = "Strata";
    const double start = 20000;
    report.phasesStartMs = {{"total", start},           {"parse", start},
                            {"init", start + 40},       {"filterRules", start + 900},
                            {"create", start + 1200},   {"move", start + 6200},
                            {"configure", start + 6300}};
    report.phasesMs = {{"parse", 40}, {"init", 860},       {"filterRules", 300}, {"create", 5000},
                       {"move", 100}, {"configure", 3000}, {"total", 9300}};
    report.endedMs = start + 9300;
    const struct {
        const char* type;
        const char* prefix;
        int count;
    } classes[] = {
        {"RoutedPort", "Ethernet", 2304}, {"SVI", "Vlan", 1000}, {"SubIntf", "Ethernet1/1.", 696}};
    int index = 0;
    for (const auto& kind : classes) {
        for (int i = 0; i < kind.count; ++i, ++index) {
            const bool made = index < 4000 - 40;
            const double created = start + 1200 + (index + 1) * 1.25;
            std::vector<std::pair<std::string, double>> steps{{"create", created}};
            if (made) {
                steps.emplace_back("configure", start + 6300 + (index + 1) * 0.75);
            }
            report.interfaces.push_back(
                {kind.prefix + std::to_string(i + 1), "", kind.type, "default", made, "", steps});
        }
    }
    for (int i = 0; i < 80; ++i) {
        report.failures.push_back("Driver: Unable to create Kernel interface for Ethernet1/1." +
                                  std::to_string(656 + i));
    }
    return report;
}

TEST(Timeline, TheLargestRestoreIsAFewRowsARendererDrawsWithWhatWasNotMadeNamed) {
    const TempDir dir;
    dir.write("report.json", largestReport().json());
    const std::string cli = KESTRUNE_CLI;
    int status = -1;
    const std::string said = shellOutput(
        cli + " timeline " + dir.file("report.json") + " -o " + dir.file("t.svg"), &status);
    ASSERT_EQ(status, 0) << said;
    const std::string svg = contentOf(dir.file("t.svg"));
    for (const char* row : {">parse<", ">configure<", ">RoutedPort<", ">SVI<", ">SubIntf<",
                            ">2304<", "Not made (40): Ethernet1/1.657, Ethernet1/1.658",
                            "and 68 more", "seconds since boot", ">20<", ">29<"}) {
        EXPECT_NE(svg.find(row), std::string::npos) << row;
    }
    if (installed("xmllint")) {
        shellOutput("xmllint --noout " + dir.file("t.svg") + " 2>&1", &status);
        EXPECT_EQ(status, 0) << "the picture is not well-formed XML";
    }
    if (installed("rsvg-convert")) {
        const std::string rendered = shellOutput(
            "rsvg-convert " + dir.file("t.svg") + " -o " + dir.file("t.png") + " 2>&1", &status);
        ASSERT_EQ(status, 0) << rendered;
        std::istringstream measured(shellOutput(
            "python3 " KESTRUNE_SOURCE_DIR "/tests/support/png-ink.py " + dir.file("t.png"),
            &status));
        int width = 0;
        int height = 0;
        double ink = 0;
        measured >> width >> height >> ink;
        EXPECT_EQ(width, 1200);
        // A row a phase and a class, not a row a device.
        EXPECT_LT(height, 800);
        EXPECT_GT(ink, 0.03) << "the picture is blank";
    }

    const std::string json =
        shellOutput(cli + " timeline --json " + dir.file("report.json"), &status);
    ASSERT_EQ(status, 0) << json;
    Cli::ReportFile report;
    std::string problem;
    ASSERT_TRUE(Cli::reportFileRead(dir.file("report.json"), report, problem)) << problem;
    const Cli::Timeline timeline = Cli::timelineOf(report);
    ASSERT_EQ(timeline.rows.size(), 6U + 3U);
    EXPECT_EQ(timeline.notMade.size(), 40U);
    // The class's create bar runs from the first device's share to the last device.
    const Cli::Timeline::Row& ports = timeline.rows[6];
    ASSERT_EQ(ports.name, "RoutedPort");
    ASSERT_EQ(ports.bars.size(), 2U);
    EXPECT_DOUBLE_EQ(ports.bars[0].startMs, 21200);
    EXPECT_DOUBLE_EQ(ports.bars[0].endMs, 21200 + 2304 * 1.25);
    EXPECT_NE(json.find("\"notMade\""), std::string::npos);

    shellOutput(cli + " timeline " + dir.file("missing.json") + " 2>&1", &status);
    EXPECT_EQ(status, 2);
}

} // namespace
} // namespace Kestrune::Testing
