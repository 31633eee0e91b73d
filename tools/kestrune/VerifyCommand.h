#pragma once

#include <CLI/CLI.hpp>

namespace Kestrune::Cli {

// `kestrune verify [FILE]`: after a restore, whether the kernel still matches the store.
void addVerifyCommand(CLI::App& app, int& status);

} // namespace Kestrune::Cli
