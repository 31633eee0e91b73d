#include "QueueHolder.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <linux/close_range.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace Kestrune::Cli {
namespace {

constexpr const char* holderCommand = "hold";

std::string reason(const std::string& what) {
    return what + ": " + std::strerror(errno);
}

// The pid the file names when it is a holder of ours, else 0: a pid file can outlive its
// process, and the pid be someone else's by now.
pid_t runningHolder() {
    std::ifstream file(holderPidFile);
    pid_t pid = 0;
    if (!(file >> pid) || pid <= 0) {
        return 0;
    }
    std::ifstream commandLine("/proc/" + std::to_string(pid) + "/cmdline");
    std::string argv0;
    std::string argv1;
    std::getline(commandLine, argv0, '\0');
    std::getline(commandLine, argv1, '\0');
    return argv1 == holderCommand && argv0.find("kestrune") != std::string::npos ? pid : 0;
}

// Waits up to `ms` for the process to be gone.
bool gone(pid_t pid, int ms) {
    const int fd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
    if (fd < 0) {
        return errno == ESRCH;
    }
    pollfd ended{fd, POLLIN, 0};
    const bool done = poll(&ended, 1, ms) == 1;
    close(fd);
    return done;
}

// In the new process: only the queues stay open, and they survive the exec.
[[noreturn]] void becomeHolder(std::vector<int> queues, const std::string& self) {
    setsid();
    std::sort(queues.begin(), queues.end());
    unsigned next = 0;
    for (const int queue : queues) {
        if (static_cast<unsigned>(queue) > next) {
            syscall(SYS_close_range, next, static_cast<unsigned>(queue) - 1, 0U);
        }
        fcntl(queue, F_SETFD, 0);
        next = static_cast<unsigned>(queue) + 1;
    }
    syscall(SYS_close_range, next, ~0U, 0U);
    const int null = open("/dev/null", O_RDWR);
    for (int stream = 0; stream < 3 && null >= 0; ++stream) {
        dup2(null, stream);
    }
    execl(self.c_str(), "kestrune", holderCommand, nullptr);
    _exit(127);
}

} // namespace

bool doEndQueueHolder(std::string& problem) {
    const pid_t pid = runningHolder();
    if (pid == 0) {
        return true;
    }
    kill(pid, SIGTERM);
    if (gone(pid, 2000)) {
        unlink(holderPidFile);
        return true;
    }
    kill(pid, SIGKILL);
    if (gone(pid, 2000)) {
        unlink(holderPidFile);
        return true;
    }
    problem = "the queue holder " + std::to_string(pid) + " of a previous restore did not end";
    return false;
}

const std::vector<int>& vrfQueuesOf(const Driver& driver) {
    static const std::vector<int> none;
    return driver.vrfCreate() && driver.vrfCreate()->ioctlUtil()
               ? driver.vrfCreate()->ioctlUtil()->queues()
               : none;
}

bool doHoldQueues(const std::vector<int>& queues, std::string& problem) {
    if (queues.empty()) {
        return true;
    }
    char self[4096];
    const ssize_t length = readlink("/proc/self/exe", self, sizeof self - 1);
    if (length <= 0) {
        problem = reason("cannot find this program");
        return false;
    }
    self[length] = '\0';
    const mode_t mask = umask(022);
    const bool folder = mkdir("/run/kestrune", 0755) == 0 || errno == EEXIST;
    umask(mask);
    const int file =
        folder ? open(holderPidFile, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644)
               : -1;
    if (file < 0) {
        problem = reason(std::string("cannot write ") + holderPidFile);
        return false;
    }
    const pid_t pid = fork();
    if (pid == 0) {
        becomeHolder(queues, self);
    }
    if (pid < 0) {
        problem = reason("cannot start the queue holder");
        close(file);
        return false;
    }
    const std::string text = std::to_string(pid) + "\n";
    const bool written = write(file, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    close(file);
    if (!written) {
        problem = reason(std::string("cannot write ") + holderPidFile);
    }
    return written;
}

void addHoldCommand(CLI::App& app, int& status) {
    CLI::App* command = app.add_subcommand(holderCommand, "");
    command->group(""); // started by the restore, not by people
    command->callback([&status] {
        sigset_t ending;
        sigemptyset(&ending);
        sigaddset(&ending, SIGTERM);
        sigaddset(&ending, SIGINT);
        sigprocmask(SIG_BLOCK, &ending, nullptr);
        signal(SIGHUP, SIG_IGN);
        int received = 0;
        sigwait(&ending, &received);
        status = 0;
    });
}

} // namespace Kestrune::Cli
