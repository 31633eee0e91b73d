#pragma once

#include <CLI/CLI.hpp>

namespace Kestrune::Cli {

// `kestrune events`: prints the event history.
void addEventsCommand(CLI::App& app, int& status);

} // namespace Kestrune::Cli
