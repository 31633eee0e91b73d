#include "util/Namespace.h"

#include "util/Assert.h"
#include "util/Descriptor.h"
#include "util/EventSink.h"
#include "util/Netlink.h"
#include "util/RestoreGuards.h"
#include "util/Trace.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <linux/magic.h>
#include <linux/netlink.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

namespace Kestrune {

std::string namespacePath(std::string_view name) {
    if (name.empty() || name == "." || name == ".." || name.find('/') != std::string_view::npos ||
        name.find('\0') != std::string_view::npos) {
        return {};
    }
    std::string path(namespaceDir);
    path += '/';
    path += name;
    return path;
}

namespace {

constexpr const char* threadNamespace = "/proc/thread-self/ns/net";

int openNamespace(const char* operation, std::string_view name) {
    const std::string path = namespacePath(name);
    if (path.empty()) {
        TRACE_EXTRA(0) << operation << " " << name << " is not a namespace name";
        return -1;
    }
    // A link planted there could lead the restore into any namespace, the host's included.
    const int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) {
        TRACE_EXTRA(0) << operation << " cannot open namespace " << path << ": "
                       << std::strerror(errno);
    }
    return fd;
}

bool isNamespaceMount(const std::string& path) {
    struct stat link {};
    struct statfs filesystem {};
    return lstat(path.c_str(), &link) == 0 && !S_ISLNK(link.st_mode) &&
           statfs(path.c_str(), &filesystem) == 0 && filesystem.f_type == NSFS_MAGIC;
}

// A link where the restore makes its files is refused, traced and recorded: it was planted.
bool isPlantedLink(const char* operation, const std::string& path) {
    struct stat link {};
    if (lstat(path.c_str(), &link) != 0 || !S_ISLNK(link.st_mode)) {
        return false;
    }
    const std::string text = std::string(operation) + " " + path + " is a link; not followed";
    TRACE_EXTRA(0) << text;
    if (restoreGuards().extraReports) {
        recordEvent("Namespace", text);
    }
    return true;
}

bool sameFile(int fd, const char* path) {
    struct stat first {};
    struct stat second {};
    return fstat(fd, &first) == 0 && stat(path, &second) == 0 && first.st_dev == second.st_dev &&
           first.st_ino == second.st_ino;
}

// The folder is made a shared mount, as `ip netns` makes it, so that a namespace mounted
// later shows in every mount namespace that shares the folder.
bool namespaceDirReady(const char* operation) {
    const std::string dir(namespaceDir);
    struct stat existing {};
    if (lstat(dir.c_str(), &existing) != 0 || !S_ISDIR(existing.st_mode)) {
        const mode_t mask = umask(0);
        const int made = mkdir(dir.c_str(), 0755);
        umask(mask);
        if (made != 0 && errno != EEXIST) {
            TRACE_EXTRA(0) << operation << " cannot make " << dir << ": " << std::strerror(errno);
            return false;
        }
        if (isPlantedLink(operation, dir)) {
            return false;
        }
    }
    if (mount("", dir.c_str(), "none", MS_SHARED | MS_REC, nullptr) == 0) {
        return true;
    }
    // Not a mount point yet: make it one by binding it onto itself.
    if (errno == EINVAL &&
        mount(dir.c_str(), dir.c_str(), "none", MS_BIND | MS_REC, nullptr) == 0 &&
        mount("", dir.c_str(), "none", MS_SHARED | MS_REC, nullptr) == 0) {
        return true;
    }
    TRACE_EXTRA(0) << operation << " cannot share " << dir << ": " << std::strerror(errno);
    return false;
}

// Binds the thread's namespace onto the file at path, creating the file (mode 0). The mount
// goes onto the file that was opened, never through a link put there meanwhile.
bool bindThreadNamespace(const char* operation, const std::string& path) {
    if (isPlantedLink(operation, path)) {
        return false;
    }
    const int file = open(path.c_str(), O_RDONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0);
    if (file < 0) {
        TRACE_EXTRA(0) << operation << " cannot create " << path << ": " << std::strerror(errno);
        return false;
    }
    const std::string opened = "/proc/self/fd/" + std::to_string(file);
    const bool mounted = mount(threadNamespace, opened.c_str(), "none", MS_BIND, nullptr) == 0;
    if (!mounted) {
        TRACE_EXTRA(0) << operation << " cannot mount " << path << ": " << std::strerror(errno);
        unlink(path.c_str());
    }
    ::close(file);
    return mounted;
}

} // namespace

NamespaceFiles::~NamespaceFiles() {
    for (const auto& [name, fd] : fds_) {
        ::close(fd);
    }
}

int NamespaceFiles::fdOf(std::string_view name) {
    if (const auto found = fds_.find(name); found != fds_.end()) {
        return found->second;
    }
    const int fd = openNamespace(operation_, name);
    if (fd >= 0) {
        fds_.emplace(std::string(name), fd);
    }
    return fd;
}

int NamespaceWalk::enter(std::string_view name) {
    if (inCurrent_ && name == current_) {
        return 0;
    }
    const int fd = files_.fdOf(name);
    if (fd < 0) {
        return -1;
    }
    inCurrent_ = setns(fd, CLONE_NEWNET) == 0;
    if (!inCurrent_) {
        TRACE_EXTRA(0) << files_.operation() << " cannot enter " << name << ": "
                       << std::strerror(errno);
        return -1;
    }
    current_ = name;
    return 0;
}

NamespaceVisit::NamespaceVisit(const char* operation, std::string_view name) {
    const Descriptor target(openNamespace(operation, name));
    if (target.get() >= 0) {
        enter(operation, name, target.get());
    }
}

NamespaceVisit::NamespaceVisit(const char* operation, std::string_view name, int namespaceFd) {
    if (namespaceFd >= 0) {
        enter(operation, name, namespaceFd);
    }
}

void NamespaceVisit::enter(const char* operation, std::string_view name, int namespaceFd) {
    original_ = open(threadNamespace, O_RDONLY | O_CLOEXEC);
    if (original_ < 0 || setns(namespaceFd, CLONE_NEWNET) != 0) {
        TRACE_EXTRA(0) << operation << " cannot enter " << name << ": " << std::strerror(errno);
        return;
    }
    entered_ = true;
}

NamespaceVisit::~NamespaceVisit() {
    if (entered_) {
        KESTRUNE_ASSERT_TEXT(setns(original_, CLONE_NEWNET) == 0,
                             "setns back to the thread's previous namespace == 0");
    }
    if (original_ >= 0) {
        ::close(original_);
    }
}

} // namespace Kestrune

using Kestrune::Descriptor;

int openSocketInNs(int domain, int type, int protocol, std::string_view name) {
    const Kestrune::NamespaceVisit visit("openSocketInNs", name);
    if (!visit.entered()) {
        return -1;
    }
    // Commands the restore runs later must not inherit the namespaces' sockets.
    const int fd = socket(domain, type | SOCK_CLOEXEC, protocol);
    if (fd < 0) {
        TRACE_EXTRA(0) << "openSocketInNs socket in " << name << ": " << std::strerror(errno);
    }
    return fd;
}

int switchToNs(std::string_view name) {
    const Descriptor target(Kestrune::openNamespace("switchToNs", name));
    if (target.get() < 0) {
        return -1;
    }
    if (setns(target.get(), CLONE_NEWNET) != 0) {
        TRACE_EXTRA(0) << "switchToNs cannot enter " << name << ": " << std::strerror(errno);
        return -1;
    }
    return 0;
}

int mountDefaultNs() {
    const std::string path = Kestrune::namespacePath(DEFAULT_NS);
    if (!Kestrune::namespaceDirReady("mountDefaultNs")) {
        return -1;
    }
    if (Kestrune::isNamespaceMount(path)) {
        const Descriptor mounted(open(path.c_str(), O_RDONLY | O_CLOEXEC));
        if (Kestrune::sameFile(mounted.get(), Kestrune::threadNamespace)) {
            return 0;
        }
        // Left by a run that started in another namespace: this run's default wins.
        umount2(path.c_str(), MNT_DETACH);
    }
    return Kestrune::bindThreadNamespace("mountDefaultNs", path) ? 0 : -1;
}

int addNsEvenIfPresent(std::string_view name) {
    const std::string path = Kestrune::namespacePath(name);
    if (path.empty()) {
        TRACE_EXTRA(0) << "addNsEvenIfPresent " << name << " is not a namespace name";
        return -1;
    }
    if (!Kestrune::namespaceDirReady("addNsEvenIfPresent")) {
        return -1;
    }
    if (Kestrune::isNamespaceMount(path)) {
        return 0;
    }
    if (Kestrune::isPlantedLink("addNsEvenIfPresent", path)) {
        return -1;
    }
    const Descriptor original(open(Kestrune::threadNamespace, O_RDONLY | O_CLOEXEC));
    if (original.get() < 0 || unshare(CLONE_NEWNET) != 0) {
        TRACE_EXTRA(0) << "addNsEvenIfPresent cannot create " << name << ": "
                       << std::strerror(errno);
        return -1;
    }
    const bool bound = Kestrune::bindThreadNamespace("addNsEvenIfPresent", path);
    KESTRUNE_ASSERT_TEXT(setns(original.get(), CLONE_NEWNET) == 0,
                         "setns back to the thread's previous namespace == 0");
    return bound ? 0 : -1;
}

int moveIntfToNs(std::string_view kernelName, std::string_view fromNs, std::string_view toNs) {
    const Descriptor destination(Kestrune::openNamespace("moveIntfToNs", toNs));
    if (destination.get() < 0) {
        return -1;
    }
    const Descriptor netlink(openSocketInNs(AF_NETLINK, SOCK_RAW, NETLINK_ROUTE, fromNs));
    if (netlink.get() < 0) {
        return -1;
    }
    const int result =
        Kestrune::Netlink::linkNamespaceIs(netlink.get(), kernelName, destination.get());
    if (result < 0) {
        TRACE_EXTRA(0) << "moveIntfToNs " << kernelName << " from " << fromNs << " to " << toNs
                       << ": " << std::strerror(-result);
        return -1;
    }
    return 0;
}
