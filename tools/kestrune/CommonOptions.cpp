#include "CommonOptions.h"

#include "log/Log.h"
#include "util/Trace.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

namespace Kestrune::Cli {

namespace {

// Whether standard error is the journal's stream, as the service manager says it is.
bool stderrIsJournal() {
    const char* stream = std::getenv("JOURNAL_STREAM");
    struct stat status {};
    unsigned long long device = 0;
    unsigned long long inode = 0;
    return stream != nullptr && std::sscanf(stream, "%llu:%llu", &device, &inode) == 2 &&
           fstat(STDERR_FILENO, &status) == 0 && status.st_dev == device && status.st_ino == inode;
}

// Trace lines for the journal, each with a priority its reader filters on: the failures'
// level as notices, progress as information, detail as debugging.
void journalSink(std::string_view line) {
    constexpr std::size_t levelAt = std::string_view("Kestrune:").size();
    const char level = line.size() > levelAt ? line[levelAt] : '0';
    const char* priority = level == '0' ? "<5>" : level <= '3' ? "<6>" : "<7>";
    std::fprintf(stderr, "%s%.*s\n", priority, static_cast<int>(line.size()), line.data());
    std::fflush(stderr);
}

} // namespace

void CommonOptions::addTo(CLI::App& command, History byDefault) {
    traceOption_ =
        command
            .add_option(
                "--trace", traceLevels_,
                "Trace levels to enable: comma-separated levels and ranges, e.g. 0,3 or "
                "0-9 (0 failures, 3 progress, 9 detail); on a terminal the default is none, "
                "and the command prints what matters")
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
        command
            .add_option("--history", history_,
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
    const bool journal = traceFile_.empty() && stderrIsJournal();
    if (journal) {
        // The journal keeps the line's text as it is and files the prefix as its priority.
        Trace::sinkIs(journalSink);
    } else if (traceOption_->count() == 0 && traceFile_.empty() && isatty(STDERR_FILENO) == 1) {
        Trace::levelsIs(0);
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

void PstoreDirOption::addTo(CLI::App& command, const std::string& when) {
    command.add_option("--pstore-dir", dir_,
                       "Folder of zel-persistent-store.json" + when +
                           " (default: $ZEL_PSTORE_PATH, else /mnt/flash)");
}

void PstoreDirOption::apply() const {
    if (!dir_.empty()) {
        setenv("ZEL_PSTORE_PATH", dir_.c_str(), 1);
    }
}

} // namespace Kestrune::Cli
