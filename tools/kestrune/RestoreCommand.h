#pragma once

#include <CLI/CLI.hpp>

namespace Kestrune::Cli {

void addRestoreCommand(CLI::App& app, int& status);

} // namespace Kestrune::Cli
