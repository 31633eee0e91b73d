#include "VerifyCommand.h"

#include "CommonOptions.h"
#include "parser/ConfigParserCreator.h"
#include "state/Verification.h"
#include "util/RestoreLock.h"

#include <iostream>
#include <memory>

namespace Kestrune::Cli {

namespace {

struct VerifyOptions {
    std::string file;
    PstoreDirOption pstoreDir;
    bool json = false;
    CommonOptions common;
};

} // namespace

void addVerifyCommand(CLI::App& app, int& status) {
    auto options = std::make_shared<VerifyOptions>();
    CLI::App* command = app.add_subcommand(
        "verify", "Compare what the kernel holds, in every namespace, with what the store says "
                  "the restore makes: exit 0 it matches, 1 it drifted, 2 it could not be read");
    command->add_option("FILE", options->file,
                        "The persistent store (default: the one restore reads)");
    options->pstoreDir.addTo(*command, ", when no FILE is given");
    command->add_flag("--json", options->json, "Print the result as one JSON object");
    options->common.addTo(*command);
    command->callback([options, &status] {
        options->common.apply();
        const auto answer = [&](const Verification& result) {
            std::cout << (options->json ? result.json() + "\n" : result.text());
            if (!result.read) {
                std::cerr << "kestrune verify: " << result.problem << "\n";
            }
            status = result.exitStatus();
        };
        // Half a restore is not drift: one at work is waited for by the operator, not read.
        RestoreLock lock;
        if (!lock.doTake()) {
            Verification waiting;
            waiting.problem = lock.error() + "; verify once it is done";
            answer(waiting);
            return;
        }
        options->pstoreDir.apply();
        answer(verificationOfStore(options->file.empty() ? ConfigParserCreator::storePath()
                                                         : options->file));
    });
}

} // namespace Kestrune::Cli
