#pragma once

#include <CLI/CLI.hpp>

namespace Kestrune::Cli {

void addSimulateCommand(CLI::App& app, int& status);

} // namespace Kestrune::Cli
