#include "SimulateCommand.h"

#include "ChipSimulator.h"
#include "CommonOptions.h"
#include "RestoreRun.h"
#include "VerifyCommand.h"
#include "log/ProcessGuard.h"
#include "parser/ConfigParserCreator.h"
#include "platform/ChipDevice.h"
#include "state/KernelState.h"
#include "state/QueueHolder.h"
#include "state/Verification.h"
#include "util/Namespace.h"
#include "util/Stop.h"
#include "util/Trace.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>
#include <vector>

namespace Kestrune::Cli {

namespace {

// A file the package installs, found from this program's own folder, or where the build
// tree keeps it when this program has not been installed.
std::string installedOr(const std::string& fromProgram, const std::string& inBuildTree) {
    std::error_code error;
    const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", error);
    const std::filesystem::path installed = self.parent_path() / fromProgram;
    return !error && std::filesystem::exists(installed, error)
               ? installed.lexically_normal().string()
               : inBuildTree;
}

struct SimulateOptions {
    std::string file =
        installedOr(KESTRUNE_EXAMPLES_FROM_BIN "/strata.json", KESTRUNE_EXAMPLE_STORE);
    std::string chipLog;
    std::string report;
    std::vector<std::string> refused;
    bool keep = false;
    bool brief = false;
    CommonOptions common;
    RestoreGuardOptions guard;
};

// Fresh network and mount namespaces with a /run of their own: the restore's devices, named
// namespaces and filter rules never touch the host.
bool sandboxed() {
    if (unshare(CLONE_NEWNET | CLONE_NEWNS) != 0) {
        std::cerr << "kestrune simulate: cannot make a private network namespace ("
                  << std::strerror(errno) << "): run it as root\n";
        return false;
    }
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("kestrune-simulate", "/run", "tmpfs", 0, "mode=0755") != 0) {
        std::cerr << "kestrune simulate: cannot make a private /run (" << std::strerror(errno)
                  << ")\n";
        return false;
    }
    return true;
}

// The VRFs' routed ports are TAP devices with carrier only while a queue of theirs is open,
// and the restore's queues close with its driver: the simulation keeps copies of them for
// its life, and its keeper's.
void keepQueues(const Driver& driver, std::vector<int>& queues) {
    for (const int queue : QueueHolder::vrfQueuesOf(driver)) {
        queues.push_back(fcntl(queue, F_DUPFD_CLOEXEC, 0));
    }
}

// Leaves a process behind that holds the sandbox (and the devices' queues) until killed.
void keepSandbox() {
    std::cout.flush();
    const pid_t keeper = fork();
    if (keeper == 0) {
        for (;;) {
            pause();
        }
    }
    std::cout << "\nThe sandbox stays. Enter it with:  nsenter -t " << keeper
              << " -n -m\nCheck it with:      nsenter -t " << keeper
              << " -n -m env SIMULATION_VMID=1 kestrune verify FILE\nEnd it with:        kill "
              << keeper << "\n";
}

} // namespace

void addSimulateCommand(CLI::App& app, int& status) {
    auto options = std::make_shared<SimulateOptions>();
    CLI::App* command = app.add_subcommand(
        "simulate", "Restore a store on this machine inside a private network namespace, with "
                    "the chip simulator in place of the switch chip, and show what the kernel "
                    "holds afterwards");
    command->add_option(
        "FILE", options->file,
        "The persistent store, of either chip family (default: the Strata example)");
    command->add_option("--chip-log", options->chipLog,
                        "Keep the chip log (every chip operation, in order) in this file");
    command->add_option("--report", options->report, "Write what the restore did as JSON");
    command->add_option("--chip-refuses", options->refused,
                        "Rehearse a failing chip: it refuses every fabric command of this name "
                        "(repeatable)");
    command->add_flag("--keep", options->keep, "Leave the sandbox alive and say how to enter it");
    command->add_flag("--brief", options->brief,
                      "Show each namespace's devices by name, instead of the whole table");
    options->common.addTo(*command);
    options->guard.addTo(*command);
    command->callback([options, &status] {
        options->common.apply();
        options->guard.apply();
        // Found before the sandbox: in a chroot, a new mount namespace sees this program's
        // path from outside the chroot.
        const std::string chipTools = installedOr(KESTRUNE_TOOLS_FROM_BIN, KESTRUNE_CHIP_TOOLS);
        if (!sandboxed()) {
            status = 2;
            return;
        }
        const std::string chipLog =
            options->chipLog.empty() ? "/run/kestrune-chip.log" : options->chipLog;
        if (!std::ofstream(chipLog)) {
            std::cerr << "kestrune simulate: cannot write the chip log " << chipLog << " ("
                      << std::strerror(errno) << ")\n";
            status = 2;
            return;
        }
        Sim::ChipSimulator::environmentIs(chipTools, chipLog, "/run/kestrune-chip-registers");
        mountDefaultNs();
        std::shared_ptr<Sim::ChipSimulator> simulator;
        RestoreChoices choices{
            false, options->guard.filterRulesFirst(), options->guard.restoreOrder(), {}, {}};
        Config::PtrConst restored;
        std::vector<int> queues;
        choices.finished = [&restored, &queues](const Driver& driver) {
            restored = driver.config();
            keepQueues(driver, queues);
        };
        RestoreReport report =
            runRestore([&] { return configParserCreatorFactory()->createFrom(options->file); },
                       [&](const Config& config) {
                           simulator = std::make_shared<Sim::ChipSimulator>(
                               chipLog, Sim::ChipSimulator::familyOf(config.platformType()));
                           simulator->refusedIs({options->refused.begin(), options->refused.end()});
                           chipDeviceIs(simulator);
                       },
                       choices);
        if (simulator) {
            simulator->doFlushLog();
        }
        const auto state = kernelState();
        std::cout << (options->brief ? kernelStateBrief(state) : kernelStateTable(state)) << "\n"
                  << report.summary();
        std::vector<std::pair<std::string, std::string>> extra{{"kernel", kernelStateJson(state)}};
        // Whether what the restore left matches the store, read back as `verify` reads it.
        bool drifted = false;
        if (restored && report.stoppedBy == 0) {
            // The trace is the restore's; what verifying reads stays out of it.
            const std::uint16_t levels = Trace::levels();
            Trace::levelsIs(0);
            const Verification verified = verification(*restored);
            Trace::levelsIs(levels);
            if (stopSignal() != 0) {
                // Asked to stop while reading back (which may have cut a command short): the
                // run was stopped, whatever the reading found.
                report.stoppedBy = stopSignal();
                ProcessGuard::doRecordStop(report.stoppedBy);
                std::cout << "\nStopped by " << signalName(report.stoppedBy)
                          << " while verifying\n";
            } else {
                std::cout << "\n" << verified.text();
                extra.emplace_back("verify", verified.json());
                drifted = verified.exitStatus() != 0;
            }
        }
        const bool reported =
            options->report.empty() || reportWritten(options->report, report.json(extra));
        if (options->keep) {
            keepSandbox();
        }
        // A restore that says it succeeded while the kernel does not match has not.
        status = (reported && !drifted) || !report.ok() ? report.exitStatus() : 1;
    });
}

} // namespace Kestrune::Cli
