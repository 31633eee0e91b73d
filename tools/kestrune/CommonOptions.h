#pragma once

#include <CLI/CLI.hpp>
#include <string>

namespace Kestrune::Cli {

// The trace and history flags every restore-side subcommand shares.
class CommonOptions {
  public:
    // Where events go unless --history says otherwise: the switch's history for the restore
    // itself, none for the commands that only rehearse or read a store.
    enum class History { none, switchHistory };

    void addTo(CLI::App& command, History byDefault = History::none);
    // Sets the trace levels and sink and the history file; throws CLI::ValidationError
    // for levels that do not parse and a trace file that cannot be opened. Unless --trace or
    // --trace-file says otherwise, a terminal gets no trace lines (the commands print what
    // matters) and anything else the failures' level, as the restore has always traced; the
    // journal of a service gets its lines with a priority each.
    void apply();

  private:
    CLI::Option* traceOption_ = nullptr;
    std::string traceLevels_ = "0";
    std::string traceFile_;
    std::string history_;
    bool noHistory_ = false;
};

// --pstore-dir: the folder of the store that the start-up process reads, for the commands
// that read that store.
class PstoreDirOption {
  public:
    // `when` completes the help text: in which case the folder is read.
    void addTo(CLI::App& command, const std::string& when = "");
    // Points the store's lookup ($ZEL_PSTORE_PATH) at the folder given, if one was.
    void apply() const;

  private:
    std::string dir_;
};

// Under a service manager, a failure of the restore (its event's text) is the journal's
// warning: the trace line it was recorded with, or a line of its own. Nothing elsewhere.
void journalFailureIs(const std::string& message);
// The priority prefix ("<5>" and the like) for a line of the command's own on standard
// error or output when those are the journal's, else "".
const char* journalPriority(const char* priority);

// Why no parser came of the store, for people: the failure the store's loading recorded (which
// names the path it looked for), or that its platform type is not one Kestrune knows.
std::string whyNoStore();

// Whether the word names a subcommand of the app; and, for one that does not, " (did you mean
// 'events'?)" naming the nearest (at most two letters changed), else "".
bool isCommand(const CLI::App& app, const std::string& word);
std::string nearestCommand(const CLI::App& app, const std::string& word);

// Gives every option of every command the word its help shows for its value as people read
// it ("FILE", "first|last", "SECONDS"), instead of the parser's type words ("TEXT=0",
// "UINT:POSITIVE"); the man page and the completion are written from that help.
void plainValueNames(CLI::App& app);

// Exit status of a command line that is not understood.
constexpr int badUsage = 2;

} // namespace Kestrune::Cli
