#pragma once

#include <CLI/CLI.hpp>

namespace Kestrune::Cli {

// `kestrune check FILE`: the pre-flight check of a store before a hitless reboot.
void addCheckCommand(CLI::App& app, int& status);

} // namespace Kestrune::Cli
