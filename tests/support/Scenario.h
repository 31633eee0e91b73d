#pragma once

#include "log/Event.h"

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

namespace Kestrune::Testing {

// A private folder removed with everything in it when the test ends.
class TempDir {
  public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::filesystem::path& path() const { return path_; }
    std::string file(const std::string& name) const { return (path_ / name).string(); }
    void write(const std::string& name, const std::string& content) const;

  private:
    std::filesystem::path path_;
};

// What a process left behind: how it ended, its trace lines and its event history.
struct Outcome {
    bool exited = false;
    int exitCode = -1;
    int signal = 0;
    std::vector<std::string> traces;   // without the lines below
    std::vector<std::string> recorded; // the "logEvent" trace of each event as it was recorded
    std::vector<Event> events;
};

// The trace line that begins each recorded event: a witness written before the event itself.
extern const std::string recordedTrace;

// Runs body in a child process that owns its event log (history in dir), with every trace
// level on and traces written to a file as they happen, then exits the child normally. A
// process is the unit here because the event log is per process and is stored at exit.
Outcome runProcess(const TempDir& dir, const std::function<void()>& body);

// "<group>: <message>" of each event.
std::vector<std::string> messagesOf(const std::vector<Event>& events);
// The pieces of a file between separators (its lines by default); none when it cannot be read.
std::vector<std::string> linesOf(const std::string& path, char separator = '\n');
// The first line of a file, or "" when it cannot be read.
std::string firstLineOf(const std::string& path);
// The lines, each ended by a newline, as a file holds them.
std::string joined(const std::vector<std::string>& lines);
// Whether any of the lines holds text.
bool anyContains(const std::vector<std::string>& lines, const std::string& text);
// The whole of a file, or "" when it cannot be read.
std::string contentOf(const std::string& path);
std::string shellOutput(const std::string& command, int* status);

} // namespace Kestrune::Testing
