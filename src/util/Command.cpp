#include "util/Command.h"

#include "log/Log.h"
#include "util/Stop.h"
#include "util/Trace.h"
#include "util/Utils.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Kestrune {
namespace {

int deadlineMs = commandDefaultDeadlineMs;

// The time left of a command's deadline; commandNoTimeout when it has none.
class Deadline {
  public:
    explicit Deadline(int timeoutMs, std::chrono::steady_clock::time_point start =
                                         std::chrono::steady_clock::now())
        : timeoutMs_(timeoutMs), start_(start) {}
    int timeoutMs() const { return timeoutMs_; }
    int leftMs() const {
        if (timeoutMs_ < 0) {
            return commandNoTimeout;
        }
        const auto spent = std::chrono::duration_cast<std::chrono::milliseconds>(
                               std::chrono::steady_clock::now() - start_)
                               .count();
        return spent >= timeoutMs_ ? 0 : static_cast<int>(timeoutMs_ - spent);
    }

  private:
    int timeoutMs_;
    std::chrono::steady_clock::time_point start_;
};

// The deadline of a command given none of its own: the process-wide one.
int effectiveTimeout(int timeoutMs) {
    return timeoutMs >= 0 ? timeoutMs : deadlineMs;
}

// Ends a command that ran past its deadline, with whatever it started (it leads its own
// process group), and says so in the trace and the history.
void killPastDeadline(const std::string& commandLine, pid_t pid, int timeoutMs) {
    kill(-pid, SIGKILL);
    const std::string text =
        commandLine + " killed after " + std::to_string(timeoutMs) + " ms: past its deadline";
    TRACE(0) << "runCommand " << text;
    Log::logEvent("Command", text);
}

// The child's end of one standard stream: inherited, /dev/null, or a descriptor of ours.
void streamOf(posix_spawn_file_actions_t* actions, int fd, int target) {
    if (fd == commandDiscard) {
        posix_spawn_file_actions_addopen(actions, target, "/dev/null", O_RDWR, 0);
    } else if (fd >= 0) {
        posix_spawn_file_actions_adddup2(actions, fd, target);
    }
}

// Starts the command; the child's pid, or -1 with the reason traced.
pid_t spawn(const std::string& commandLine, int stdinFd, int stdoutFd, int stderrFd) {
    const std::vector<std::string> words = commandArgv(commandLine);
    if (words.empty()) {
        TRACE(0) << "runCommand"
                 << " empty command line";
        return -1;
    }
    std::vector<char*> argv;
    argv.reserve(words.size() + 1);
    for (const std::string& word : words) {
        argv.push_back(const_cast<char*>(word.c_str()));
    }
    argv.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    streamOf(&actions, stdinFd, STDIN_FILENO);
    streamOf(&actions, stdoutFd, STDOUT_FILENO);
    streamOf(&actions, stderrFd, STDERR_FILENO);
    // The child starts with default signal handling and nothing blocked, whatever the
    // start-up process that drives the restore has set for itself.
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none;
    sigemptyset(&none);
    sigset_t all;
    sigfillset(&all);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &all);
    // Its own process group, so that a deadline or a stop ends all it started.
    posix_spawnattr_setpgroup(&attributes, 0);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF |
                                              POSIX_SPAWN_SETPGROUP);

    pid_t pid = -1;
    const int error = posix_spawnp(&pid, argv[0], &actions, &attributes, argv.data(), environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) {
        TRACE(0) << "runCommand"
                 << " cannot start " << commandLine << ": " << std::strerror(error);
        return -1;
    }
    TRACE(9) << "runCommand"
             << " started " << commandLine << " pid " << pid;
    return pid;
}

int statusOf(const std::string& commandLine, int status) {
    if (WIFEXITED(status)) {
        return WEXITSTATUS(status);
    }
    TRACE(0) << "runCommand " << commandLine << " ended by signal " << WTERMSIG(status);
    return -1;
}

int waitFor(pid_t pid, int* status) {
    runningCommandIs(pid);
    for (;;) {
        if (waitpid(pid, status, 0) == pid) {
            runningCommandIs(0);
            return 0;
        }
        if (errno != EINTR) {
            runningCommandIs(0);
            return -1;
        }
    }
}

// Waits for the child until the deadline; kills it when the time is up (-1).
int waitAtMost(const std::string& commandLine, pid_t pid, const Deadline& deadline, int* status) {
    if (deadline.timeoutMs() < 0) {
        return waitFor(pid, status);
    }
    runningCommandIs(pid);
    // Called directly: Debian 12's glibc declares pidfd_open without C linkage.
    const int pidFd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
    if (pidFd >= 0) {
        pollfd exited{pidFd, POLLIN, 0};
        int ready = 0;
        do {
            ready = poll(&exited, 1, deadline.leftMs());
        } while (ready < 0 && errno == EINTR);
        ::close(pidFd);
        if (ready == 0) {
            killPastDeadline(commandLine, pid, deadline.timeoutMs());
            waitFor(pid, status);
            return -1;
        }
    }
    return waitFor(pid, status);
}

} // namespace

void commandDeadlineMsIs(int milliseconds) {
    deadlineMs = milliseconds;
}

int commandDeadlineMs() {
    return deadlineMs;
}

std::vector<std::string> commandArgv(std::string_view line) {
    std::vector<std::string> words;
    std::size_t position = 0;
    while (position < line.size()) {
        const std::size_t start = line.find_first_not_of(" \t", position);
        if (start == std::string_view::npos) {
            break;
        }
        const std::size_t end = std::min(line.find_first_of(" \t", start), line.size());
        words.emplace_back(line.substr(start, end - start));
        position = end;
    }
    return words;
}

CommandInput::CommandInput(const std::string& commandLine, int timeoutMs)
    : commandLine_(commandLine), timeoutMs_(effectiveTimeout(timeoutMs)),
      start_(std::chrono::steady_clock::now()) {
    std::array<int, 2> ends{-1, -1};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
        TRACE(0) << "runCommand"
                 << " cannot make a pipe for " << commandLine << ": " << std::strerror(errno);
        return;
    }
    // The command only reads; shutting our reading side tells it so.
    shutdown(ends[1], SHUT_WR);
    pid_ = spawn(commandLine, ends[1], commandInherit, commandInherit);
    ::close(ends[1]);
    if (pid_ > 0) {
        inputFd_ = ends[0];
        runningCommandIs(pid_);
    } else {
        ::close(ends[0]);
    }
}

CommandInput::~CommandInput() {
    close();
}

int CommandInput::leftMs() const {
    return Deadline(timeoutMs_, start_).leftMs();
}

std::size_t CommandInput::write(std::string_view bytes) {
    std::size_t written = 0;
    while (inputFd_ >= 0 && pid_ > 0 && written < bytes.size()) {
        // A command that stops reading must not hold the restore past its deadline.
        pollfd room{inputFd_, POLLOUT, 0};
        const int ready = poll(&room, 1, leftMs());
        if (ready == 0) {
            killPastDeadline(commandLine_, pid_, timeoutMs_);
            break;
        }
        const auto sent = ready < 0 ? -1
                                    : send(inputFd_, bytes.data() + written, bytes.size() - written,
                                           MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent < 0) {
            if (errno == EINTR || errno == EAGAIN) {
                continue;
            }
            break;
        }
        written += static_cast<std::size_t>(sent);
    }
    return written;
}

int CommandInput::close() {
    if (pid_ <= 0) {
        return -1;
    }
    ::close(inputFd_);
    inputFd_ = -1;
    int status = 0;
    const pid_t pid = pid_;
    pid_ = -1;
    const int left = leftMs();
    if (left == 0) {
        // Killed while its input was written: only its end is left to collect.
        waitFor(pid, &status);
    } else if (waitAtMost(commandLine_, pid, Deadline(left), &status) != 0) {
        return 128 + SIGKILL;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

} // namespace Kestrune

int runCommand(const std::string& commandLine, int stdinFd, int stdoutFd, int stderrFd,
               int timeoutMs) {
    const pid_t pid = Kestrune::spawn(commandLine, stdinFd, stdoutFd, stderrFd);
    if (pid < 0) {
        return -1;
    }
    int status = 0;
    const Kestrune::Deadline deadline(Kestrune::effectiveTimeout(timeoutMs));
    const int waited = Kestrune::waitAtMost(commandLine, pid, deadline, &status);
    return waited == 0 ? Kestrune::statusOf(commandLine, status) : -1;
}

std::string exec(const char* command) {
    std::array<int, 2> ends{-1, -1};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        std::printf("Unable to run cmd: %s", command);
        return {};
    }
    const pid_t pid =
        Kestrune::spawn(command, Kestrune::commandInherit, ends[1], Kestrune::commandInherit);
    close(ends[1]);
    if (pid < 0) {
        close(ends[0]);
        std::printf("Unable to run cmd: %s", command);
        return {};
    }
    std::string output;
    std::array<char, 4096> piece{};
    for (;;) {
        const auto count = read(ends[0], piece.data(), piece.size());
        if (count > 0) {
            output.append(piece.data(), static_cast<std::size_t>(count));
        } else if (count == 0 || errno != EINTR) {
            break;
        }
    }
    close(ends[0]);
    int status = 0;
    Kestrune::waitAtMost(command, pid, Kestrune::Deadline(Kestrune::deadlineMs), &status);
    return output;
}
