#include "state/QueueHolder.h"

#include "log/Log.h"
#include "util/Trace.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace Kestrune {
namespace {

// The holder's process name, as /proc/<pid>/comm shows it (at most 15 bytes).
constexpr const char* holderName = "kestrune-hold";

std::string reason(const std::string& what) {
    return what + ": " + std::strerror(errno);
}

std::string firstLine(const std::string& path, char separator = '\n') {
    std::ifstream file(path);
    std::string line;
    std::getline(file, line, separator);
    return line;
}

// The pid the file names when it is a holder of ours, else 0: a pid file can outlive its
// process, and the pid be someone else's by now. A holder an earlier version started was
// `kestrune hold`.
pid_t runningHolder() {
    std::ifstream file(QueueHolder::pidFile);
    pid_t pid = 0;
    if (!(file >> pid) || pid <= 0) {
        return 0;
    }
    const std::string proc = "/proc/" + std::to_string(pid);
    if (firstLine(proc + "/comm") == holderName) {
        return pid;
    }
    std::ifstream commandLine(proc + "/cmdline");
    std::string argv0;
    std::string argv1;
    std::getline(commandLine, argv0, '\0');
    std::getline(commandLine, argv1, '\0');
    return argv1 == "hold" && argv0.find("kestrune") != std::string::npos ? pid : 0;
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

// In the new process, a copy of the caller that never returns to it: only the queues stay
// open, no handler of the caller's runs, and it waits until told to end. No exec: the library
// cannot count on any program of its own being installed beside the caller.
[[noreturn]] void becomeHolder(std::vector<int> queues) {
    setsid();
    prctl(PR_SET_NAME, holderName);
    std::sort(queues.begin(), queues.end());
    unsigned next = 0;
    for (const int queue : queues) {
        if (static_cast<unsigned>(queue) > next) {
            syscall(SYS_close_range, next, static_cast<unsigned>(queue) - 1, 0U);
        }
        next = static_cast<unsigned>(queue) + 1;
    }
    syscall(SYS_close_range, next, ~0U, 0U);
    const int null = open("/dev/null", O_RDWR);
    for (int stream = 0; stream < 3 && null >= 0; ++stream) {
        dup2(null, stream);
    }
    struct sigaction byDefault {};
    byDefault.sa_handler = SIG_DFL;
    for (int signal = 1; signal < NSIG; ++signal) {
        sigaction(signal, &byDefault, nullptr);
    }
    signal(SIGHUP, SIG_IGN);
    sigset_t ending;
    sigemptyset(&ending);
    sigaddset(&ending, SIGTERM);
    sigaddset(&ending, SIGINT);
    sigprocmask(SIG_SETMASK, &ending, nullptr);
    int received = 0;
    sigwait(&ending, &received);
    _exit(0);
}

} // namespace

bool QueueHolder::doEndPrevious(std::string& problem) {
    const pid_t pid = runningHolder();
    if (pid == 0) {
        return true;
    }
    kill(pid, SIGTERM);
    if (gone(pid, 2000)) {
        unlink(pidFile);
        return true;
    }
    kill(pid, SIGKILL);
    if (gone(pid, 2000)) {
        unlink(pidFile);
        return true;
    }
    problem = "the queue holder " + std::to_string(pid) + " of a previous restore did not end";
    return false;
}

const std::vector<int>& QueueHolder::vrfQueuesOf(const Driver& driver) {
    static const std::vector<int> none;
    return driver.vrfCreate() && driver.vrfCreate()->ioctlUtil()
               ? driver.vrfCreate()->ioctlUtil()->queues()
               : none;
}

bool QueueHolder::doHold(const std::vector<int>& queues, std::string& problem) {
    if (queues.empty()) {
        return true;
    }
    const mode_t mask = umask(022);
    const bool folder = mkdir("/run/kestrune", 0755) == 0 || errno == EEXIST;
    umask(mask);
    const int file =
        folder ? open(pidFile, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644) : -1;
    if (file < 0) {
        problem = reason(std::string("cannot write ") + pidFile);
        return false;
    }
    // What the caller has buffered is written once, by the caller.
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        becomeHolder(queues);
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
        problem = reason(std::string("cannot write ") + pidFile);
    }
    return written;
}

bool QueueHolder::doHandOff(const Driver& driver) {
    std::string problem;
    const bool handed = doEndPrevious(problem) && doHold(vrfQueuesOf(driver), problem);
    if (!handed) {
        TRACE(0) << "QueueHolder " << problem;
        Log::logEvent("QueueHolder", problem);
    }
    return handed;
}

} // namespace Kestrune
