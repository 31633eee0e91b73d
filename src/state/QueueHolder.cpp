#include "state/QueueHolder.h"

#include "log/Log.h"
#include "util/RestoreGuards.h"
#include "util/Trace.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <poll.h>
#include <set>
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

// The network namespace a process is in, as its link names it.
std::string netNamespaceOf(const std::string& proc) {
    std::array<char, 64> target{};
    const ssize_t length = readlink((proc + "/ns/net").c_str(), target.data(), target.size() - 1);
    return length > 0 ? std::string(target.data(), static_cast<std::size_t>(length)) : "";
}

// Whether the process is a holder of ours: named so, leading its own session, this user's,
// and in the network namespace `ownNamespace` names (a switch has one default namespace; a
// test machine may run several restores side by side). A holder an earlier version started
// was `kestrune hold`. The name is read first: it rules out nearly every process at once.
bool isHolder(pid_t pid, const std::string& ownNamespace) {
    const std::string proc = "/proc/" + std::to_string(pid);
    bool named = firstLine(proc + "/comm") == holderName;
    if (!named) {
        std::ifstream commandLine(proc + "/cmdline");
        std::string argv0;
        std::string argv1;
        std::getline(commandLine, argv0, '\0');
        std::getline(commandLine, argv1, '\0');
        if (argv1 != "hold" || argv0.find("kestrune") == std::string::npos) {
            return false;
        }
    }
    struct stat status {};
    if (stat(proc.c_str(), &status) != 0 || status.st_uid != geteuid() ||
        netNamespaceOf(proc) != ownNamespace) {
        return false;
    }
    if (!named) {
        return true;
    }
    // The session is the fifth field of stat, after the name in parentheses.
    const std::string stat = firstLine(proc + "/stat");
    const std::size_t nameEnd = stat.rfind(')');
    pid_t parent = 0;
    pid_t group = 0;
    pid_t session = 0;
    char state = 0;
    return nameEnd != std::string::npos &&
           std::sscanf(stat.c_str() + nameEnd + 1, " %c %d %d %d", &state, &parent, &group,
                       &session) == 4 &&
           session == pid;
}

// Every holder of ours that runs, found by name and session: the pid file's, and any other
// for a pid file that was removed, or names another process, while its holder lived.
std::set<pid_t> runningHolders() {
    const std::string ownNamespace = netNamespaceOf("/proc/self");
    std::set<pid_t> holders;
    DIR* proc = opendir("/proc");
    for (const dirent* entry = proc ? readdir(proc) : nullptr; entry != nullptr;
         entry = readdir(proc)) {
        char* end = nullptr;
        const long pid = std::strtol(entry->d_name, &end, 10);
        if (*end == '\0' && pid > 0 && pid != getpid() &&
            isHolder(static_cast<pid_t>(pid), ownNamespace)) {
            holders.insert(static_cast<pid_t>(pid));
        }
    }
    if (proc != nullptr) {
        closedir(proc);
    }
    return holders;
}

// Whether the pid file names one of the holders.
bool pidFileNamesOneOf(const std::set<pid_t>& holders) {
    std::ifstream file(QueueHolder::pidFile);
    pid_t pid = 0;
    return file >> pid && holders.count(pid) != 0;
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
[[noreturn]] void becomeHolder(std::vector<int> queues, int ready) {
    setsid();
    prctl(PR_SET_NAME, holderName);
    // Findable by its name and session from here on.
    [[maybe_unused]] const ssize_t told = write(ready, "r", 1);
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
    const std::set<pid_t> holders = runningHolders();
    if (!holders.empty() && !pidFileNamesOneOf(holders)) {
        TRACE_EXTRA(0) << "QueueHolder " << pidFile << " names no holder; ending " << holders.size()
                       << " found by name";
    }
    std::vector<pid_t> stubborn;
    for (const pid_t pid : holders) {
        kill(pid, SIGTERM);
    }
    for (const pid_t pid : holders) {
        if (!gone(pid, 2000)) {
            kill(pid, SIGKILL);
            if (!gone(pid, 2000)) {
                stubborn.push_back(pid);
            }
        }
    }
    if (stubborn.empty()) {
        unlink(pidFile);
        return true;
    }
    problem = "the queue holder " + std::to_string(stubborn.front()) +
              " of a previous restore did not end";
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
    std::array<int, 2> ready{-1, -1};
    if (pipe2(ready.data(), O_CLOEXEC) != 0) {
        problem = reason("cannot start the queue holder");
        close(file);
        return false;
    }
    // What the caller has buffered is written once, by the caller.
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        becomeHolder(queues, ready[1]);
    }
    close(ready[1]);
    if (pid < 0) {
        problem = reason("cannot start the queue holder");
        close(ready[0]);
        close(file);
        return false;
    }
    // Returns once the holder has its name, so that a restore right after this one finds it
    // even where the pid file is gone.
    pollfd named{ready[0], POLLIN, 0};
    poll(&named, 1, 2000);
    close(ready[0]);
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
