#include "CheckCommand.h"
#include "CommonOptions.h"
#include "CompareCommand.h"
#include "EventsCommand.h"
#include "RepairCommand.h"
#include "RestoreCommand.h"
#include "RestoreState.h"
#include "ShowCommand.h"
#include "SimulateCommand.h"
#include "TimelineCommand.h"
#include "VerifyCommand.h"
#include "log/ProcessGuard.h"
#include "util/RestoreGuards.h"

#include <CLI/CLI.hpp>
#include <iostream>

int main(int argc, char** argv) {
    CLI::App app{"kestrune: restores a switch's CPU packet path in the Linux kernel after a "
                 "hitless reboot, and inspects what it would restore and what it recorded"};
    app.set_version_flag("--version", "kestrune 0.1.0");
    app.require_subcommand(1);

    Kestrune::ProcessGuard::doRecordUncaughtExceptions();
    // Every guard of the library, for every subcommand; those that run a restore also stop on
    // signals and take their deadline from the command line (RestoreGuardOptions).
    Kestrune::RestoreGuards guards = Kestrune::RestoreGuards::all();
    guards.stopGraceSeconds = 0;
    Kestrune::restoreGuardsIs(guards);
    int status = 0;
    Kestrune::Cli::addRestoreCommand(app, status);
    Kestrune::Cli::addSimulateCommand(app, status);
    Kestrune::Cli::addCheckCommand(app, status);
    Kestrune::Cli::addShowCommand(app, status);
    Kestrune::Cli::addVerifyCommand(app, status);
    Kestrune::Cli::addRepairCommand(app, status);
    Kestrune::Cli::addEventsCommand(app, status);
    Kestrune::Cli::addCompareCommand(app, status);
    Kestrune::Cli::addStatusCommand(app, status);
    Kestrune::Cli::addTimelineCommand(app, status);

    Kestrune::Cli::plainValueNames(app);
    // A mistyped command is named, with the nearest one, before the parser says only that a
    // command is required.
    if (argc > 1 && argv[1][0] != '-' && !Kestrune::Cli::isCommand(app, argv[1])) {
        std::cerr << "kestrune: '" << argv[1] << "' is not a command"
                  << Kestrune::Cli::nearestCommand(app, argv[1])
                  << "; kestrune --help lists them\n";
        return Kestrune::Cli::badUsage;
    }
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForAllHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForVersion& e) {
        return app.exit(e);
    } catch (const CLI::ValidationError& e) {
        app.exit(e);
        return Kestrune::Cli::badUsage;
    } catch (const CLI::ParseError& e) {
        app.exit(e);
        return Kestrune::Cli::badUsage;
    }
    return status;
}
