#include "util/RestoreLock.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Kestrune {

namespace {

// flock works on any descriptor, read-only too: whoever can open the lock can hold it. So the
// folder and the file must be this process's own, and nobody else may open or replace them.
std::string ownershipProblem(const struct stat& status, const std::string& path, bool folder) {
    if (folder ? !S_ISDIR(status.st_mode) : !S_ISREG(status.st_mode)) {
        return path + (folder ? " is not a folder" : " is not a regular file");
    }
    if (status.st_uid != geteuid()) {
        return path + " belongs to uid " + std::to_string(status.st_uid) + ", not " +
               std::to_string(geteuid());
    }
    if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        return path + " can be written by others";
    }
    return {};
}

} // namespace

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
    // The folder is opened without following a link and checked through that descriptor, so
    // what is checked is what the lock is made in.
    const int dir = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    struct stat status {};
    if (dir < 0 || fstat(dir, &status) != 0) {
        error_ = "cannot open the restore lock's folder " + folder + ": " +
                 (errno == ELOOP || errno == ENOTDIR ? "it is a link or not a folder"
                                                     : std::strerror(errno));
        if (dir >= 0) {
            ::close(dir);
        }
        return false;
    }
    if (std::string problem = ownershipProblem(status, folder, true); !problem.empty()) {
        error_ = "will not lock in " + folder + ": " + problem;
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
    if (fstat(fd, &status) != 0 || !ownershipProblem(status, path_, false).empty() ||
        ((status.st_mode & 07777) != 0600 && fchmod(fd, 0600) != 0)) {
        error_ = "will not use the restore lock " + path_ + ": " +
                 ownershipProblem(status, path_, false);
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
