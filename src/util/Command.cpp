#include "util/Command.h"

#include "util/Trace.h"
#include "util/Utils.h"

#include <array>
#include <cerrno>
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
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

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
    for (;;) {
        if (waitpid(pid, status, 0) == pid) {
            return 0;
        }
        if (errno != EINTR) {
            return -1;
        }
    }
}

// Waits at most timeoutMs for the child; kills it when the time is up.
int waitAtMost(const std::string& commandLine, pid_t pid, int timeoutMs, int* status) {
    // Called directly: Debian 12's glibc declares pidfd_open without C linkage.
    const int pidFd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
    if (pidFd >= 0) {
        pollfd exited{pidFd, POLLIN, 0};
        int ready = 0;
        do {
            ready = poll(&exited, 1, timeoutMs);
        } while (ready < 0 && errno == EINTR);
        ::close(pidFd);
        if (ready == 0) {
            kill(pid, SIGKILL);
            waitFor(pid, status);
            TRACE(0) << "runCommand " << commandLine << " killed after " << timeoutMs << " ms";
            return -1;
        }
    }
    return waitFor(pid, status);
}

} // namespace

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

CommandInput::CommandInput(const std::string& commandLine) {
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
    } else {
        ::close(ends[0]);
    }
}

CommandInput::~CommandInput() {
    close();
}

std::size_t CommandInput::write(std::string_view bytes) {
    std::size_t written = 0;
    while (inputFd_ >= 0 && written < bytes.size()) {
        const auto sent =
            send(inputFd_, bytes.data() + written, bytes.size() - written, MSG_NOSIGNAL);
        if (sent < 0) {
            if (errno == EINTR) {
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
    if (waitFor(pid, &status) != 0) {
        return -1;
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
    const int waited = timeoutMs >= 0 ? Kestrune::waitAtMost(commandLine, pid, timeoutMs, &status)
                                      : Kestrune::waitFor(pid, &status);
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
    Kestrune::waitFor(pid, &status);
    return output;
}
