#include "util/Command.h"

#include "util/EventSink.h"
#include "util/RestoreGuards.h"
#include "util/Stop.h"
#include "util/Trace.h"
#include "util/Utils.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Kestrune {
namespace {

// What waitAtMost found.
constexpr int waited = 0;
constexpr int cannotWait = -1; // no child to wait for: the caller reaps its children itself
constexpr int killed = -2;     // past its deadline

// The shell's search path when PATH is unset or empty: a start-up process may have no
// environment at all, and the tools the restore runs live in the sbin folders.
constexpr std::string_view shellDefaultPath =
    "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";

// The deadline of a command given none of its own: the caller's guard, if any.
int effectiveTimeout(int timeoutMs) {
    return timeoutMs >= 0 ? timeoutMs : restoreGuards().commandDeadlineMs;
}

// Ends a command that ran past its deadline, with whatever it started (it leads its own
// process group), and says so in the trace and the history.
void killPastDeadline(const std::string& commandLine, pid_t pid, int timeoutMs) {
    kill(-pid, SIGKILL);
    const std::string text =
        commandLine + " killed after " + std::to_string(timeoutMs) + " ms: past its deadline";
    TRACE_EXTRA(0) << "runCommand " << text;
    recordEvent("Command", text);
}

// The program's path: the word itself when it names a folder, else the first executable of
// that name on PATH, as the shell finds it. Found before the child exists, which may only
// make system calls.
std::string programPath(const std::string& name) {
    if (name.find('/') != std::string::npos) {
        return name;
    }
    const char* path = std::getenv("PATH");
    const std::string_view folders =
        path != nullptr && *path != '\0' ? std::string_view(path) : shellDefaultPath;
    for (std::size_t start = 0; start <= folders.size();) {
        const std::size_t end = std::min(folders.find(':', start), folders.size());
        std::string candidate(folders.substr(start, end - start));
        candidate += (candidate.empty() ? "./" : "/") + name;
        if (access(candidate.c_str(), X_OK) == 0) {
            return candidate;
        }
        start = end + 1;
    }
    return {};
}

// The child between vfork and exec, on memory it shares with the restore: system calls only.
// It leads its own process group, so that a deadline or a stop ends all it starts, and it is
// killed when the restore ends, however the restore ends, SIGKILL included.
[[noreturn]] void becomeCommand(const char* program, char* const argv[],
                                const std::array<int, 3>& streams, pid_t restore, int errorFd) {
    setpgid(0, 0);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != restore) {
        _exit(127); // the restore is gone already
    }
    // Default signal handling and nothing blocked, whatever the start-up process that drives
    // the restore has set for itself.
    struct sigaction byDefault {};
    byDefault.sa_handler = SIG_DFL;
    for (int signal = 1; signal < NSIG; ++signal) {
        sigaction(signal, &byDefault, nullptr);
    }
    for (int target = 0; target < 3; ++target) {
        if (streams[target] >= 0) {
            dup2(streams[target], target);
        }
    }
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    execve(program, argv, environ);
    const int error = errno;
    [[maybe_unused]] const ssize_t told = ::write(errorFd, &error, sizeof error);
    _exit(127);
}

// The child's pid, or -1 with errno. No handler of the restore may run in the child while it
// shares the restore's memory: every signal waits until the child has made its own.
pid_t forkCommand(const char* program, char* const argv[], const std::array<int, 3>& streams,
                  int errorFd) {
    sigset_t all;
    sigfillset(&all);
    sigset_t callers;
    pthread_sigmask(SIG_SETMASK, &all, &callers);
    const pid_t restore = getpid();
    // vfork rather than posix_spawn: only the child itself can ask to die with its parent,
    // and the child here makes system calls only (becomeCommand).
    const pid_t pid = vfork(); // NOLINT(clang-analyzer-security.insecureAPI.vfork)
    if (pid == 0) {
        // NOLINTNEXTLINE(clang-analyzer-unix.Vfork)
        becomeCommand(program, argv, streams, restore, errorFd);
    }
    const int forkError = errno;
    pthread_sigmask(SIG_SETMASK, &callers, nullptr);
    errno = forkError;
    return pid;
}

// Starts the command of these words; the child's pid, or -1 with the reason traced.
pid_t spawnWords(const std::string& commandLine, const std::vector<std::string>& words, int stdinFd,
                 int stdoutFd, int stderrFd) {
    if (words.empty()) {
        TRACE_EXTRA(0) << "runCommand"
                       << " empty command line";
        return -1;
    }
    const std::string program = programPath(words[0]);
    if (program.empty()) {
        TRACE_EXTRA(0) << "runCommand"
                       << " cannot start " << commandLine << ": " << std::strerror(ENOENT);
        return -1;
    }
    std::vector<char*> argv;
    argv.reserve(words.size() + 1);
    for (const std::string& word : words) {
        argv.push_back(const_cast<char*>(word.c_str()));
    }
    argv.push_back(nullptr);

    const bool discards =
        stdinFd == commandDiscard || stdoutFd == commandDiscard || stderrFd == commandDiscard;
    const int nullFd = discards ? ::open("/dev/null", O_RDWR | O_CLOEXEC) : -1;
    const auto streamOf = [nullFd](int fd) { return fd == commandDiscard ? nullFd : fd; };
    const std::array<int, 3> streams{streamOf(stdinFd), streamOf(stdoutFd), streamOf(stderrFd)};
    // Closed by a successful exec; carries errno back from a failed one.
    std::array<int, 2> error{-1, -1};
    if (pipe2(error.data(), O_CLOEXEC) != 0) {
        TRACE_EXTRA(0) << "runCommand"
                       << " cannot start " << commandLine << ": " << std::strerror(errno);
        ::close(nullFd);
        return -1;
    }
    // What the restore has written so far comes before anything the command writes to the
    // same files (a simulated chip's log, a shared standard output).
    std::fflush(nullptr);
    const pid_t pid = forkCommand(program.c_str(), argv.data(), streams, error[1]);
    ::close(error[1]);
    if (nullFd >= 0) {
        ::close(nullFd);
    }
    int childError = pid < 0 ? errno : 0;
    if (pid > 0 && ::read(error[0], &childError, sizeof childError) > 0) {
        int status = 0;
        waitpid(pid, &status, 0);
    }
    ::close(error[0]);
    if (childError != 0) {
        TRACE_EXTRA(0) << "runCommand"
                       << " cannot start " << commandLine << ": " << std::strerror(childError);
        return -1;
    }
    TRACE_EXTRA(9) << "runCommand"
                   << " started " << commandLine << " pid " << pid;
    return pid;
}

// Starts the command line without a shell; the child's pid, or -1 with the reason traced.
pid_t spawn(const std::string& commandLine, int stdinFd, int stdoutFd, int stderrFd) {
    return spawnWords(commandLine, commandArgv(commandLine), stdinFd, stdoutFd, stderrFd);
}

int statusOf(const std::string& commandLine, int status) {
    if (WIFEXITED(status)) {
        return WEXITSTATUS(status);
    }
    TRACE_EXTRA(0) << "runCommand " << commandLine << " ended by signal " << WTERMSIG(status);
    return -1;
}

// waited, or cannotWait when the child is not ours to wait for: a caller that ignores SIGCHLD
// has its children reaped by the kernel, and the wait fails as the C library's would.
int waitFor(pid_t pid, int* status) {
    runningCommandIs(pid);
    for (;;) {
        if (waitpid(pid, status, 0) == pid) {
            runningCommandIs(0);
            return waited;
        }
        if (errno != EINTR) {
            runningCommandIs(0);
            return cannotWait;
        }
    }
}

// Waits for the child until the deadline; kills it when the time is up (killed).
int waitAtMost(const std::string& commandLine, pid_t pid, const CommandDeadline& deadline,
               int* status) {
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
            return killed;
        }
    }
    return waitFor(pid, status);
}

} // namespace

int CommandDeadline::leftMs() const {
    if (timeoutMs_ < 0) {
        return commandNoTimeout;
    }
    const auto spent = std::chrono::duration_cast<std::chrono::milliseconds>(
                           std::chrono::steady_clock::now() - start_)
                           .count();
    return spent >= timeoutMs_ ? 0 : static_cast<int>(timeoutMs_ - spent);
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
    : commandLine_(commandLine), deadline_(effectiveTimeout(timeoutMs)) {
    std::array<int, 2> ends{-1, -1};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
        TRACE_EXTRA(0) << "runCommand"
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

std::size_t CommandInput::write(std::string_view bytes) {
    std::size_t written = 0;
    while (inputFd_ >= 0 && pid_ > 0 && written < bytes.size()) {
        // A command that stops reading must not hold the restore past its deadline.
        pollfd room{inputFd_, POLLOUT, 0};
        const int ready = poll(&room, 1, deadline_.leftMs());
        if (ready == 0) {
            killPastDeadline(commandLine_, pid_, deadline_.timeoutMs());
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
    // Killed while its input was written: only its end is left to collect.
    const int outcome = deadline_.leftMs() == 0 ? waitFor(pid, &status)
                                                : waitAtMost(commandLine_, pid, deadline_, &status);
    if (outcome == cannotWait) {
        return -1;
    }
    if (outcome == killed) {
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
    const Kestrune::CommandDeadline deadline(Kestrune::effectiveTimeout(timeoutMs));
    const int outcome = Kestrune::waitAtMost(commandLine, pid, deadline, &status);
    return outcome == Kestrune::waited ? Kestrune::statusOf(commandLine, status) : -1;
}

std::string exec(const char* command) {
    std::array<int, 2> ends{-1, -1};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        std::printf("Unable to run cmd: %s", command);
        return {};
    }
    // The sequence runs the line through the shell, as popen does; the guard keeps the store's
    // text away from one.
    const pid_t pid =
        Kestrune::restoreGuards().noShell
            ? Kestrune::spawn(command, Kestrune::commandInherit, ends[1], Kestrune::commandInherit)
            : Kestrune::spawnWords(command, {"/bin/sh", "-c", command}, Kestrune::commandInherit,
                                   ends[1], Kestrune::commandInherit);
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
    Kestrune::waitAtMost(
        command, pid,
        Kestrune::CommandDeadline(Kestrune::effectiveTimeout(Kestrune::commandNoTimeout)), &status);
    return output;
}
