#include "util/OwnedFile.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace Kestrune {

std::string notOwnedBecause(const struct stat& status, bool folder) {
    if (folder ? !S_ISDIR(status.st_mode) : !S_ISREG(status.st_mode)) {
        return folder ? "it is not a folder" : "it is not a regular file";
    }
    if (status.st_uid != geteuid()) {
        return "it belongs to uid " + std::to_string(status.st_uid);
    }
    return {};
}

int openOwned(const std::string& path, int flags, std::string& problem, struct stat& status,
              bool folder) {
    const int fd = ::open(path.c_str(), flags | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        const int error = errno;
        problem = error == ELOOP ? "it is a link" : std::strerror(error);
        errno = error;
        return -1;
    }
    problem = fstat(fd, &status) != 0 ? std::strerror(errno) : notOwnedBecause(status, folder);
    if (problem.empty()) {
        return fd;
    }
    ::close(fd);
    errno = EPERM;
    return -1;
}

} // namespace Kestrune
