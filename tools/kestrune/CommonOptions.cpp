#include "CommonOptions.h"

#include "log/Log.h"
#include "util/Assert.h"
#include "util/OutputFile.h"
#include "util/Trace.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <stdexcept>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

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
        // process exits. As root, nothing another user could swap is followed on the way, and
        // a FIFO there would hold the restore before it starts.
        std::string problem;
        const int fd = openOutput(traceFile_, O_APPEND, problem);
        std::FILE* stream = fd >= 0 ? fdopen(fd, "a") : nullptr;
        if (!stream) {
            if (fd >= 0) {
                problem = std::strerror(errno);
                ::close(fd);
            }
            throw CLI::ValidationError("--trace-file",
                                       "cannot open " + traceFile_ + ": " + problem);
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

namespace {

// Letters inserted, deleted, changed or swapped to make one word of the other.
std::size_t editDistance(const std::string& a, const std::string& b) {
    std::vector<std::vector<std::size_t>> d(a.size() + 1, std::vector<std::size_t>(b.size() + 1));
    for (std::size_t i = 0; i <= a.size(); ++i) {
        for (std::size_t j = 0; j <= b.size(); ++j) {
            if (i == 0 || j == 0) {
                d[i][j] = i + j;
                continue;
            }
            d[i][j] = std::min({d[i - 1][j] + 1, d[i][j - 1] + 1,
                                d[i - 1][j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1)});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) {
                d[i][j] = std::min(d[i][j], d[i - 2][j - 2] + 1);
            }
        }
    }
    return d[a.size()][b.size()];
}

std::vector<std::string> commandNames(const CLI::App& app) {
    std::vector<std::string> names;
    for (const CLI::App* command : app.get_subcommands([](const CLI::App*) { return true; })) {
        names.push_back(command->get_name());
    }
    return names;
}

} // namespace

bool isCommand(const CLI::App& app, const std::string& word) {
    const std::vector<std::string> names = commandNames(app);
    return std::find(names.begin(), names.end(), word) != names.end();
}

std::string nearestCommand(const CLI::App& app, const std::string& word) {
    std::string nearest;
    std::size_t best = 3;
    for (const std::string& name : commandNames(app)) {
        if (const std::size_t distance = editDistance(word, name); distance < best) {
            best = distance;
            nearest = name;
        }
    }
    return nearest.empty() ? "" : " (did you mean '" + nearest + "'?)";
}

void plainValueNames(CLI::App& app) {
    // The default a value has stays shown: "=30" says what no flag means.
    static const std::map<std::string, std::string> names{
        {"FILE", ""}, // the positional's name says it
        {"OLD", ""},
        {"NEW", ""},
        {"REPORT", ""},
        {"--output", "FILE"},
        {"--state", "FILE"},
        {"--max-slower", "PERCENT"},
        {"--min-ms", "MS"},
        {"--pstore-dir", "DIR"},
        {"--report", "FILE"},
        {"--metrics", "FILE"},
        {"--trace", "LEVELS"},
        {"--trace-file", "FILE"},
        {"--history", "FILE"},
        {"--chip-log", "FILE"},
        {"--chip-refuses", "COMMAND"},
        {"--command-deadline", "SECONDS"},
        {"--filter-rules", "first|last"},
        {"--order", "fast|library"},
        {"--since", "TIME|AGE"},
        {"--group", "GROUP"},
        {"--limit", "N"},
    };
    for (CLI::App* command : app.get_subcommands([](CLI::App*) { return true; })) {
        for (CLI::Option* option : command->get_options()) {
            const std::string name =
                option->get_lnames().empty() ? option->get_name() : "--" + option->get_lnames()[0];
            if (const auto found = names.find(name); found != names.end()) {
                option->type_name(found->second);
                // A check's own words ("NONNEGATIVE", "{first,last}") stay in its errors.
                for (int index = 0;; ++index) {
                    try {
                        option->get_validator(index)->description("");
                    } catch (const CLI::OptionNotFound&) {
                        break;
                    }
                }
            }
        }
    }
}

std::string whyNoStore() {
    const std::string& last = Log::lastEvent();
    constexpr std::string_view group = "ConfigParserCreator: ";
    if (last.rfind(group, 0) == 0) {
        return last.substr(group.size());
    }
    return "its platformType is neither \"Strata\" nor \"Sand\"";
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
