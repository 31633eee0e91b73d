#include "RestoreCommand.h"

#include "CommonOptions.h"
#include "RestoreRun.h"
#include "parser/ConfigParserCreator.h"

#include <cstdlib>
#include <fstream>
#include <iostream>
#include <memory>

namespace Kestrune::Cli {

namespace {

struct RestoreOptions {
    std::string pstoreDir;
    std::string report;
    CommonOptions common;
};

} // namespace

void addRestoreCommand(CLI::App& app, int& status) {
    auto options = std::make_shared<RestoreOptions>();
    CLI::App* command = app.add_subcommand(
        "restore", "Restore the CPU packet path from the persistent store, as the start-up "
                   "process does: exit 0 all done, 1 done with failures, 2 could not start");
    command->add_option("--pstore-dir", options->pstoreDir,
                        "Folder of zel-persistent-store.json (default: $ZEL_PSTORE_PATH, else "
                        "/mnt/flash)");
    command->add_option("--report", options->report, "Write what the restore did as JSON");
    options->common.addTo(*command);
    command->callback([options, &status] {
        options->common.apply();
        if (!options->pstoreDir.empty()) {
            setenv("ZEL_PSTORE_PATH", options->pstoreDir.c_str(), 1);
        }
        const RestoreReport report =
            runRestore([] { return configParserCreatorFactory()->create(); });
        if (!options->report.empty()) {
            std::ofstream(options->report) << report.json() << '\n';
        }
        if (!report.started) {
            std::cerr << "kestrune restore: could not start: no store of a known platform, or "
                         "no driver for its platform (the trace says which)\n";
        } else if (!report.ok()) {
            std::cerr << "kestrune restore: done with " << report.failures.size()
                      << " failure(s)\n";
        }
        status = report.exitStatus();
    });
}

} // namespace Kestrune::Cli
