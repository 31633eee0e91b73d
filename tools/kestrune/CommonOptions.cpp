#include "CommonOptions.h"

#include "log/Log.h"
#include "util/Assert.h"
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

// Trace lines for the journal, each with a priority its reader filters on: a failure of the
// restore as a warning, findings and progress as information, detail as debugging. Whether a
// level-0 line is a failure is known once the restore records it as an event, which it does
// right after tracing it: so the last level-0 line is held until the next line, an event or
// a flush says what it was.
class JournalSink {
  public:
    void line(std::string_view text) {
        doFlush();
        constexpr std::size_t levelAt = std::string_view("Kestrune:").size();
        const char level = text.size() > levelAt ? text[levelAt] : '0';
        if (level == '0') {
            held_ = text;
            return;
        }
        doWrite(level <= '3' ? "<6>" : "<7>", text);
    }
    void failure(const std::string& message) {
        constexpr std::string_view prefix = "Kestrune:0 ";
        if (held_.size() > prefix.size() &&
            std::string_view(held_).substr(prefix.size()) == message) {
            doWrite("<4>", held_);
            held_.clear();
            return;
        }
        // A failure whose event text is not its trace line still gets its one warning.
        doFlush();
        doWrite("<4>", std::string(prefix) + message);
    }
    void doFlush() {
        if (!held_.empty()) {
            doWrite("<6>", held_);
            held_.clear();
        }
    }

  private:
    static void doWrite(const char* priority, std::string_view text) {
        std::fprintf(stderr, "%s%.*s\n", priority, static_cast<int>(text.size()), text.data());
        std::fflush(stderr);
    }

    std::string held_;
};

JournalSink*& journal() {
    static JournalSink* sink = nullptr;
    return sink;
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
    if (traceFile_.empty() && stderrIsJournal()) {
        // The journal keeps the line's text as it is and files the prefix as its priority.
        static JournalSink sink;
        journal() = &sink;
        Trace::sinkIs([](std::string_view line) { journal()->line(line); });
        Trace::flusherIs([] { journal()->doFlush(); });
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

void journalFailureIs(const std::string& message) {
    if (journal() != nullptr) {
        journal()->failure(message);
    }
}

const char* journalPriority(const char* priority) {
    return journal() != nullptr ? priority : "";
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
