#include "util/RestoreLock.h"

#include "util/OwnedFile.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Kestrune {

RestoreLock::RestoreLock(std::string path) : path_(std::move(path)) {}

RestoreLock::~RestoreLock() {
    if (fd_ >= 0) {
        ::close(fd_);
    }
}

bool RestoreLock::doTake() {
    const std::size_t slash = path_.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : path_.substr(0, slash);
    const std::string name = slash == std::string::npos ? path_ : path_.substr(slash + 1);
    const mode_t mask = umask(0);
    mkdir(folder.c_str(), 0755);
    umask(mask);
    // flock works on any descriptor, read-only too: whoever can open the lock can hold it. So
    // the folder must be this process's own and closed to others' writes, and the lock must be
    // nobody else's to open. Both are checked through their descriptors, so what is checked is
    // what the lock is made in.
    std::string problem;
    struct stat status {};
    const int dir = openOwned(folder, O_RDONLY | O_DIRECTORY, problem, status, true);
    if (dir < 0) {
        error_ = errno == EPERM
                     ? "will not lock in " + folder + ": " + problem
                     : "cannot open the restore lock's folder " + folder + ": " +
                           (errno == ELOOP || errno == ENOTDIR ? "it is a link or not a folder"
                                                               : problem);
        return false;
    }
    if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        error_ = "will not lock in " + folder + ": others can write it";
        ::close(dir);
        return false;
    }
    const int fd =
        ::openat(dir, name.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600);
    ::close(dir);
    if (fd < 0) {
        error_ = "cannot make the restore lock " + path_ + ": " + std::strerror(errno);
        return false;
    }
    // A lock left by an older version may be readable by all: make it this process's alone
    // before anything else can open it again.
    problem = fstat(fd, &status) != 0 ? std::strerror(errno) : notOwnedBecause(status);
    if (problem.empty() && (status.st_mode & 07777) != 0600 && fchmod(fd, 0600) != 0) {
        problem = std::string("it cannot be made 0600: ") + std::strerror(errno);
    }
    if (!problem.empty()) {
        error_ = "will not use the restore lock " + path_ + ": " + problem;
        ::close(fd);
        return false;
    }
    if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        char holder[32] = {};
        const ssize_t size = pread(fd, holder, sizeof holder - 1, 0);
        error_ = "another restore is running (pid " +
                 std::string(holder, size > 0 ? static_cast<std::size_t>(size) : 0) + ", lock " +
                 path_ + "); this one does nothing";
        ::close(fd);
        return false;
    }
    const std::string pid = std::to_string(getpid());
    if (ftruncate(fd, 0) != 0 || pwrite(fd, pid.data(), pid.size(), 0) < 0) {
        error_ = "cannot write the restore lock " + path_ + ": " + std::strerror(errno);
        ::close(fd);
        return false;
    }
    fd_ = fd;
    return true;
}

} // namespace Kestrune
