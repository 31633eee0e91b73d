#pragma once

#include <CLI/CLI.hpp>

namespace Kestrune::Cli {

// `kestrune show FILE`: parses a store exactly as the restore does and prints the model.
void addShowCommand(CLI::App& app, int& status);

} // namespace Kestrune::Cli
