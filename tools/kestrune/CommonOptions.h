#pragma once

#include <CLI/CLI.hpp>
#include <string>

namespace Kestrune::Cli {

// The trace and history flags every restore-side subcommand shares.
class CommonOptions {
  public:
    void addTo(CLI::App& command);
    // Sets the trace levels and sink and the history file; throws CLI::ValidationError
    // for levels that do not parse and a trace file that cannot be opened.
    void apply();

  private:
    std::string traceLevels_ = "0";
    std::string traceFile_;
    std::string history_;
};

// Exit status of a command line that is not understood.
constexpr int badUsage = 2;

} // namespace Kestrune::Cli
