#include "util/RestoreLock.h"

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
    const std::string folder = path_.substr(0, path_.rfind('/'));
    const mode_t mask = umask(0);
    mkdir(folder.c_str(), 0755);
    const int fd = ::open(path_.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0644);
    umask(mask);
    if (fd < 0) {
        error_ = "cannot make the restore lock " + path_ + ": " + std::strerror(errno);
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
