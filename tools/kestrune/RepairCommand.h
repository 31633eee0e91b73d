#pragma once

#include <CLI/CLI.hpp>

namespace Kestrune::Cli {

// `kestrune repair [FILE] [--apply]`: puts back what drifted since the restore.
void addRepairCommand(CLI::App& app, int& status);

} // namespace Kestrune::Cli
