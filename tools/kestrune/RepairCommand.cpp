#include "RepairCommand.h"

#include "CommonOptions.h"
#include "log/Log.h"
#include "parser/ConfigParserCreator.h"
#include "state/Repair.h"
#include "util/RestoreLock.h"

#include <iostream>
#include <memory>

namespace Kestrune::Cli {

void addRepairCommand(CLI::App& app, int& status) {
    struct Options {
        std::string file;
        PstoreDirOption pstoreDir;
        bool apply = false;
        bool json = false;
        CommonOptions common;
    };
    auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand(
        "repair", "Put back what drifted from the store since the restore, and nothing else: "
                  "without --apply, print the steps and change nothing; exit 0 nothing is left "
                  "drifting, 1 drift is left (what the store does not name is listed and left "
                  "as it is), 2 the kernel or the store could not be read");
    command->add_option("FILE", options->file,
                        "The persistent store (default: the one restore reads)");
    options->pstoreDir.addTo(*command, ", when no FILE is given");
    command->add_flag("--apply", options->apply,
                      "Take the steps, each recorded as an event, then verify again");
    command->add_flag("--json", options->json, "Print the result as one JSON object");
    options->common.addTo(*command, CommonOptions::History::switchHistory);
    command->callback([options, &status] {
        options->common.apply();
        // A restore at work is not drift, and two writers of the kernel's state are one too
        // many: the restore's lock is held throughout.
        RestoreLock lock;
        if (!lock.doTake()) {
            std::cerr << "kestrune repair: " << lock.error() << "; repair once it is done\n";
            status = 2;
            return;
        }
        options->pstoreDir.apply();
        const Repair result =
            repairOfStore(options->file.empty() ? ConfigParserCreator::storePath() : options->file,
                          options->apply);
        Log::doStorePending();
        std::cout << (options->json ? result.json() + "\n" : result.text());
        if (!result.read) {
            std::cerr << "kestrune repair: " << result.problem << "\n";
        }
        status = result.exitStatus();
    });
}

} // namespace Kestrune::Cli
