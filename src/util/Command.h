#pragma once

// Command lines run by the restore. runCommand and the filter-rule tools involve no shell: a
// line is split on blanks into the program and its arguments and started with vfork and exec,
// the program searched on PATH when it is a bare name. `exec` starts its line through /bin/sh,
// as the sequence says, unless RestoreGuards::noShell is on. A command leads its own process
// group and dies with the restore, however the restore ends.

#include <chrono>
#include <string>
#include <string_view>
#include <vector>

namespace Kestrune {

// Values of runCommand's descriptor arguments besides a descriptor of the caller's.
inline constexpr int commandInherit = -1; // the child shares the caller's stream
inline constexpr int commandDiscard = -2; // the stream is /dev/null
// A command given no timeout of its own runs until it ends, or until the caller's command
// deadline (RestoreGuards::commandDeadlineMs) when one is set.
inline constexpr int commandNoTimeout = -1;

// A command's deadline, counted from when it was made.
class CommandDeadline {
  public:
    explicit CommandDeadline(int timeoutMs) : timeoutMs_(timeoutMs) {}
    int timeoutMs() const { return timeoutMs_; }
    // The milliseconds left, 0 once it has passed; commandNoTimeout for no deadline.
    int leftMs() const;

  private:
    int timeoutMs_;
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

// The program and its arguments: the words of the line between runs of blanks and tabs.
std::vector<std::string> commandArgv(std::string_view line);

// A command started with its standard input on a pipe, for tools that read their input
// (the filter-rule restore). The pipe is a socket, so a tool that stops reading gives a
// short write instead of a SIGPIPE that would end the restore.
class CommandInput {
  public:
    // timeoutMs bounds the whole run, the writing of its input included.
    explicit CommandInput(const std::string& commandLine, int timeoutMs = commandNoTimeout);
    ~CommandInput();
    CommandInput(const CommandInput&) = delete;
    CommandInput& operator=(const CommandInput&) = delete;

    bool started() const { return pid_ > 0; }
    // The number of bytes the command's input took: all of them unless it stopped reading.
    std::size_t write(std::string_view bytes);
    // Ends the input and waits: the exit status (128 + the signal for a command a signal
    // ended or the deadline killed), or -1 when the command could not be waited for (the
    // caller ignores SIGCHLD), as pclose gives it.
    int close();

  private:
    std::string commandLine_;
    CommandDeadline deadline_;
    int pid_ = -1;
    int inputFd_ = -1;
};

} // namespace Kestrune

// Runs a command line and returns its exit status, or -1 when it could not start or be waited
// for, was ended by a signal or ran past timeoutMs (commandNoTimeout: the caller's command
// deadline, if any). The descriptors
// become the child's standard input, output and error; commandInherit and commandDiscard as above.
int runCommand(const std::string& commandLine, int stdinFd = Kestrune::commandInherit,
               int stdoutFd = Kestrune::commandInherit, int stderrFd = Kestrune::commandInherit,
               int timeoutMs = Kestrune::commandNoTimeout);
