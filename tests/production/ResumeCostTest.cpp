// A restore killed with SIGKILL at any point, then finished with --resume, costs no more than a
// fresh restore: the resume makes only what is missing and takes over the rest. Five points,
// from the chip's bring-up to the layer-3 settings, on a store of KESTRUNE_RESUME_PORTS ports
// (64 by default), each against a fresh restore of the same store run just before it, after
// the same reset. The bound is loose, as the guest is shared with whatever else runs: it catches a
// resume that redoes work (once 15 times a restore), not a few percent.
#include "ProductionSwitch.h"

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <gtest/gtest.h>
#include <sstream>

namespace Kestrune::Testing {
namespace {

// The report's time of each phase, as its JSON has them.
std::string phasesOf(const std::string& report) {
    const std::size_t start = report.find("\"phasesMs\"");
    return start == std::string::npos ? ""
                                      : report.substr(start, report.find('}', start) - start + 1);
}

class ResumeCost : public ProductionSwitch {
  protected:
    // Back to a switch before any restore: the chip (its daemon) gone with every device and
    // namespace, as after a reboot.
    void machineReset() {
        doEndDaemonAndHolder();
        std::remove(file("daemon.pid").c_str());
        std::remove(queueHolderPidFile.c_str());
        // The restore makes the chip's nodes itself, on a /dev that has none.
        std::remove("/dev/fabric");
        std::remove("/dev/kovana-bde");
        run({"ip", "-all", "netns", "delete"});
        std::istringstream links(outputOf({"ip", "-o", "link", "show"}));
        for (std::string line; std::getline(links, line);) {
            const std::size_t start = line.find(": ") + 2;
            std::string name = line.substr(start, line.find(':', start) - start);
            name = name.substr(0, name.find('@'));
            if (name != "lo") {
                outputOf({"ip", "link", "delete", name});
            }
        }
    }
};

TEST_F(ResumeCost, AResumeAfterAKillCostsNoMoreThanAFreshRestore) {
    const char* asked = std::getenv("KESTRUNE_RESUME_PORTS");
    const int ports = asked != nullptr ? std::atoi(asked) : 64;
    std::filesystem::create_directories(file("pstore"));
    run({"python3", KESTRUNE_SOURCE_DIR "/bench/generate-store.py", "--ports",
         std::to_string(ports), "--vrfs", "4", "--rules", "50", "-o",
         file("pstore/zel-persistent-store.json")});
    moduleIs("strata");
    struct Point {
        const char* where;
        const char* marker;
        int count;
    };
    const Point points[] = {
        {"in the chip's bring-up", "doAddDevice", 1},
        {"after the first port", "Created Kernel interface for", 1},
        {"halfway through the ports", "Created Kernel interface for", ports / 2},
        {"as the layer-3 settings start", "configureIntfsInNs", 1},
        {"halfway through the addresses", "ipAddrAdd", ports / 8},
    };
    std::ostringstream figures;
    for (const Point& point : points) {
        SCOPED_TRACE(point.where);
        // A fresh restore right before, after the same reset: the kernel may still be taking
        // the last run's namespaces apart, and both runs meet the same.
        machineReset();
        const CliResult fresh = restore();
        ASSERT_EQ(fresh.exitCode, 0) << joined(fresh.recorded);
        const std::string freshPhases = phasesOf(contentOf(file("report.json")));
        machineReset();
        CliRun killed;
        killed.args = {"restore", "--pstore-dir", file("pstore"), "--history", file("history.db")};
        killed.traceFile = file("killed-trace.txt");
        killed.toolsFirst = KESTRUNE_CHIP_TOOLS;
        killed.marker = point.marker;
        killed.markerCount = point.count;
        killed.signal = SIGKILL;
        const CliResult first = runCli(killed);
        ASSERT_TRUE(first.faulted) << "the restore ended before " << point.marker;
        const CliResult resumed = restore({"--resume"});
        EXPECT_EQ(resumed.exitCode, 0) << joined(resumed.recorded);
        int status = -1;
        const std::string drift =
            outputOf({KESTRUNE_CLI, "verify", "--pstore-dir", file("pstore")}, &status);
        EXPECT_EQ(status, 0) << "the resumed restore left drift:\n" << drift;
        figures << "killed " << point.where << " (after " << first.ms << " ms), resumed in "
                << resumed.ms << " ms; a fresh restore took " << fresh.ms
                << " ms: " << resumed.ms / fresh.ms << "\n  phases, fresh: " << freshPhases
                << "\n  phases, resumed: " << phasesOf(contentOf(file("report.json"))) << "\n";
        EXPECT_LT(resumed.ms, 3 * fresh.ms + 2000);
    }
    std::printf("%s", figures.str().c_str());
}

} // namespace
} // namespace Kestrune::Testing
