#include "CommonOptions.h"

#include "log/Log.h"
#include "util/Trace.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>

namespace Kestrune::Cli {

void CommonOptions::addTo(CLI::App& command, History byDefault) {
    command
        .add_option("--trace", traceLevels_,
                    "Trace levels to enable: comma-separated levels and ranges, e.g. 0,3 or "
                    "0-9 (0 failures, 3 progress, 9 detail)")
        ->capture_default_str();
    command.add_option("--trace-file", traceFile_,
                       "Write trace lines to FILE instead of standard error");
    if (byDefault == History::none) {
        command.add_option("--history", history_,
                           "Record events in the event history FILE (without it, no events are "
                           "recorded)");
        return;
    }
    history_ = Log::defaultHistoryPath;
    CLI::Option* history =
        command.add_option("--history", history_,
                           "Record events in the event history FILE; '' records none")
            ->capture_default_str();
    command.add_flag("--no-history", noHistory_, "Record no events")->excludes(history);
}

void CommonOptions::apply() {
    try {
        Trace::levelsIs(Trace::levelsOf(traceLevels_));
    } catch (const std::invalid_argument& e) {
        throw CLI::ValidationError("--trace", e.what());
    }
    if (!traceFile_.empty()) {
        // Left open for the life of the process: the event log still traces while the
        // process exits.
        std::FILE* stream = std::fopen(traceFile_.c_str(), "a");
        if (!stream) {
            throw CLI::ValidationError("--trace-file",
                                       "cannot open " + traceFile_ + ": " + std::strerror(errno));
        }
        Trace::sinkIs(Trace::streamSink(stream));
    }
    Log::historyPathIs(noHistory_ ? std::string() : history_);
}

} // namespace Kestrune::Cli
