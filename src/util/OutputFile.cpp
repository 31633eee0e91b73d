#include "util/OutputFile.h"

#include "util/Descriptor.h"
#include "util/OwnedFile.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Kestrune {
namespace {

// A link in this folder is root's or this user's own doing only when nobody else can write
// the folder at all: in one of another user's, or a sticky one such as /tmp, anyone could
// have left it, or swapped a folder for it.
bool linksTrusted(const struct stat& folder) {
    return (folder.st_uid == 0 || folder.st_uid == geteuid()) &&
           (folder.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

// The folder that holds path, opened (O_PATH) by the walk the header describes, and the
// file's own name; -1 with why in problem.
int folderOf(const std::string& path, std::string& name, std::string& problem) {
    const std::size_t slash = path.rfind('/');
    name = slash == std::string::npos ? path : path.substr(slash + 1);
    if (name.empty() || name == "." || name == "..") {
        problem = "it names a folder";
        return -1;
    }
    const bool absolute = !path.empty() && path[0] == '/';
    std::string walked = absolute ? "/" : ".";
    Descriptor folder(::open(walked.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    struct stat status {};
    if (folder.get() < 0 || fstat(folder.get(), &status) != 0) {
        problem = walked + ": " + std::strerror(errno);
        return -1;
    }
    problem.clear();
    const std::string folders = slash == std::string::npos ? "" : path.substr(0, slash);
    for (std::size_t start = 0; start < folders.size();) {
        const std::size_t end = std::min(folders.find('/', start), folders.size());
        const std::string part = folders.substr(start, end - start);
        start = end + 1;
        if (part.empty() || part == ".") {
            continue;
        }
        walked += (walked.back() == '/' ? "" : "/") + part;
        int next =
            ::openat(folder.get(), part.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (next < 0 && (errno == ELOOP || errno == ENOTDIR)) {
            struct stat link {};
            const bool isLink =
                fstatat(folder.get(), part.c_str(), &link, AT_SYMLINK_NOFOLLOW) == 0 &&
                S_ISLNK(link.st_mode);
            if (isLink && !linksTrusted(status)) {
                problem = walked + " is a link in a folder others can write";
                return -1;
            }
            if (!isLink) {
                problem = walked + ": " + std::strerror(ENOTDIR);
                return -1;
            }
            next = ::openat(folder.get(), part.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
        }
        if (next < 0) {
            problem = walked + ": " + std::strerror(errno);
            return -1;
        }
        folder.reset(next);
        if (fstat(folder.get(), &status) != 0) {
            problem = walked + ": " + std::strerror(errno);
            return -1;
        }
    }
    return folder.release();
}

// The file's own checks, once it is open without following a link or blocking: a regular
// file, then blocking as usual. -1 with why in problem.
int checkedFile(int fd, std::string& problem) {
    if (fd < 0) {
        // A FIFO nobody reads refuses a non-blocking writer with ENXIO.
        problem = errno == ELOOP   ? "it is a link"
                  : errno == ENXIO ? "it is not a regular file"
                                   : std::strerror(errno);
        return -1;
    }
    struct stat status {};
    if (fstat(fd, &status) != 0) {
        problem = std::strerror(errno);
    } else if (!S_ISCHR(status.st_mode)) {
        // Only root makes device nodes: /dev/null is an operator's choice, not a plant.
        problem = notOwnedBecause(status);
        if (problem.empty() && status.st_nlink > 1) {
            problem = "it has another name (a hard link)";
        }
    }
    if (!problem.empty()) {
        ::close(fd);
        return -1;
    }
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
    return fd;
}

// Random letters for a name nobody can guess ahead.
std::string randomLetters() {
    std::array<unsigned char, 12> bytes{};
    if (getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
        return {};
    }
    std::string letters;
    for (const unsigned char byte : bytes) {
        letters += static_cast<char>('a' + byte % 26);
    }
    return letters;
}

bool writeAll(int fd, const std::string& text) {
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t count = ::write(fd, text.data() + done, text.size() - done);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            return false;
        }
        done += static_cast<std::size_t>(count);
    }
    return true;
}

} // namespace

int openOutput(const std::string& path, int flags, std::string& problem) {
    std::string name;
    const Descriptor folder(folderOf(path, name, problem));
    if (folder.get() < 0) {
        return -1;
    }
    const int fd = ::openat(folder.get(), name.c_str(),
                            flags | O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0644);
    return checkedFile(fd, problem);
}

bool outputReplaced(const std::string& path, const std::string& text, std::string& problem) {
    std::string name;
    const Descriptor folder(folderOf(path, name, problem));
    if (folder.get() < 0) {
        return false;
    }
    std::string fresh;
    Descriptor file;
    // Another user may guess nothing, but a name taken by chance is tried again.
    for (int attempt = 0; attempt < 16 && file.get() < 0; ++attempt) {
        const std::string letters = randomLetters();
        if (letters.empty()) {
            problem = std::string("no random name: ") + std::strerror(errno);
            return false;
        }
        fresh = name;
        fresh.append(".new-").append(letters);
        file.reset(::openat(folder.get(), fresh.c_str(),
                            O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
        if (file.get() < 0 && errno != EEXIST) {
            break;
        }
    }
    if (file.get() < 0) {
        problem = std::strerror(errno);
        return false;
    }
    const bool written =
        writeAll(file.get(), text) && fchmod(file.get(), 0644) == 0 && ::close(file.release()) == 0;
    if (written && ::renameat(folder.get(), fresh.c_str(), folder.get(), name.c_str()) == 0) {
        return true;
    }
    problem = std::strerror(errno);
    ::unlinkat(folder.get(), fresh.c_str(), 0);
    return false;
}

} // namespace Kestrune
