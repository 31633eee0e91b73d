#include "RestoreCommand.h"

#include "CommonOptions.h"
#include "RestoreRun.h"
#include "RestoreState.h"
#include "log/Log.h"
#include "parser/ConfigParserCreator.h"
#include "state/QueueHolder.h"
#include "util/RestoreLock.h"
#include "util/Stop.h"
#include "util/Trace.h"

#include <cstdlib>
#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>

namespace Kestrune::Cli {

namespace {

struct RestoreOptions {
    PstoreDirOption pstoreDir;
    std::string report;
    std::string metrics;
    std::string state = defaultStatePath;
    bool resume = false;
    CommonOptions common;
    RestoreGuardOptions guard;
};

} // namespace

void addRestoreCommand(CLI::App& app, int& status) {
    auto options = std::make_shared<RestoreOptions>();
    CLI::App* command = app.add_subcommand(
        "restore", "Restore the CPU packet path from the persistent store, as the start-up "
                   "process does: exit 0 all done, 1 done with failures, 2 could not start");
    options->pstoreDir.addTo(*command);
    command->add_option("--report", options->report, "Write what the restore did as JSON");
    command->add_option("--metrics", options->metrics,
                        "Write the restore's result, failures, each phase's duration and when it "
                        "ended (seconds since boot) for node-exporter's textfile collector, "
                        "replacing the file whole; '' for none");
    command
        ->add_option("--state", options->state,
                     "Keep the restore's state here for others to read (kestrune status): "
                     "\"running\" from its start, then \"done\", \"failed\" or \"stopped\", "
                     "with this boot's id; '' for none")
        ->capture_default_str();
    command->add_flag("--resume", options->resume,
                      "Finish a restore that was interrupted: devices already there are taken over "
                      "and configured, addresses already there kept, and the filter rules replace "
                      "the tables they name instead of adding to them");
    options->common.addTo(*command, CommonOptions::History::switchHistory);
    options->guard.addTo(*command);
    command->callback([options, &status] {
        options->common.apply();
        RestoreLock lock;
        if (!lock.doTake()) {
            std::cerr << "kestrune restore: " << lock.error() << "\n";
            status = 2;
            return;
        }
        options->guard.apply();
        options->pstoreDir.apply();
        const RestoreState started = RestoreState::started();
        if (!options->state.empty()) {
            restoreStateWritten(options->state, started);
        }
        // The devices a previous restore made are taken over, which its holder would refuse.
        std::string problem;
        if (!QueueHolder::doEndPrevious(problem)) {
            std::cerr << "kestrune restore: " << problem << "\n";
            Log::logEvent("QueueHolder", problem);
        }
        RestoreChoices choices{options->resume,
                               options->guard.filterRulesFirst(),
                               options->guard.restoreOrder(),
                               {},
                               {}};
        choices.finished = [](const Driver& driver) { QueueHolder::doHandOff(driver); };
        choices.progress = [](const char* phase, std::size_t done, std::size_t of) {
            serviceStatusIs(progressLine(phase, done, of));
        };
        const RestoreReport report =
            runRestore([] { return configParserCreatorFactory()->create(); }, {}, choices);
        const bool reported =
            (options->report.empty() || reportWritten(options->report, report.json())) &&
            (options->metrics.empty() || fileReplaced(options->metrics, report.metrics())) &&
            (options->state.empty() ||
             restoreStateWritten(options->state,
                                 RestoreState::ended(started, report, options->report)));
        serviceStatusIs(statusLine(report));
        // In the journal the failures' summary is a notice: each failure is a warning already.
        std::istringstream summary(report.summary());
        bool failureLines = false;
        for (std::string line; std::getline(summary, line);) {
            failureLines = failureLines || line.find(" failure(s):") != std::string::npos;
            std::cout << journalPriority(failureLines && line.rfind("Stopped", 0) != 0 ? "<5>"
                                                                                       : "<6>")
                      << line << "\n";
        }
        if (!report.started) {
            std::cerr << journalPriority("<3>")
                      << "kestrune restore: could not start: no store of a known platform: "
                      << whyNoStore() << "\n";
        } else if (report.stoppedBy != 0) {
            std::cerr << journalPriority("<4>") << "kestrune restore: stopped by "
                      << signalName(report.stoppedBy) << " before it finished\n";
        } else if (!report.ok()) {
            std::cerr << journalPriority("<5>") << "kestrune restore: done with "
                      << report.failures.size() << " failure(s)\n";
        }
        for (const std::string& problem : report.history.problems) {
            std::cerr << journalPriority("<4>") << "kestrune restore: event history: " << problem
                      << "\n";
        }
        status = reported || !report.ok() ? report.exitStatus() : 1;
    });
}

} // namespace Kestrune::Cli
