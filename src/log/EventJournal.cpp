#include "log/EventJournal.h"

#include "util/OwnedFile.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Kestrune {

namespace {

constexpr const char* journalInfix = ".pending-";

// The journal of this process, for the signal handler: set once it is open.
int signalFd = -1;

void escapeInto(std::string& out, const std::string& text) {
    for (const char c : text) {
        switch (c) {
        case '\\':
            out += "\\\\";
            break;
        case '\t':
            out += "\\t";
            break;
        case '\n':
            out += "\\n";
            break;
        default:
            out += c;
        }
    }
}

std::string unescaped(const std::string& text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\\' && i + 1 < text.size()) {
            const char next = text[++i];
            out += next == 't' ? '\t' : next == 'n' ? '\n' : next;
        } else {
            out += text[i];
        }
    }
    return out;
}

// A journal is trusted only when this process's user could have written it and nobody else
// could: a FIFO or device would hang the read, and a file another user planted in a folder
// they can write would be folded in as if a restore had recorded it. Opened without blocking
// and without following a link; the descriptor, or -1 with what is wrong in problem.
int trustedJournal(const std::string& path, int flags, std::string* problem) {
    struct stat status {};
    std::string wrong;
    int fd = openOwned(path, flags, wrong, status);
    if (fd >= 0 && (status.st_mode & 07777) != 0600) {
        char mode[8];
        std::snprintf(mode, sizeof mode, "%04o", status.st_mode & 07777);
        wrong = std::string("its mode is ") + mode + ", not 0600";
        ::close(fd);
        fd = -1;
    }
    if (fd >= 0) {
        return fd;
    }
    if (problem != nullptr) {
        *problem = "event journal " + path + " left alone: " + wrong;
    }
    return -1;
}

std::vector<std::string> fieldsOf(const std::string& line) {
    std::vector<std::string> fields;
    std::size_t start = 0;
    for (;;) {
        const std::size_t tab = line.find('\t', start);
        fields.push_back(unescaped(line.substr(start, tab - start)));
        if (tab == std::string::npos) {
            return fields;
        }
        start = tab + 1;
    }
}

std::string folderOf(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
}

std::string baseOf(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

} // namespace

std::string journalRecordOf(const Event& event) {
    std::string record;
    record.reserve(event.message.size() + event.group.size() + 64);
    escapeInto(record, event.origin);
    char time[32];
    std::snprintf(time, sizeof time, "\t%.6f\t", event.time);
    record += time;
    escapeInto(record, event.persistence);
    record += '\t';
    escapeInto(record, event.agent);
    record += '\t';
    escapeInto(record, event.group);
    record += '\t';
    escapeInto(record, event.message);
    return record;
}

EventJournal::~EventJournal() {
    if (fd_ >= 0) {
        if (signalFd == fd_) {
            signalFd = -1;
        }
        ::close(fd_);
    }
}

bool EventJournal::doOpen(const std::string& historyPath, const std::string& processTag) {
    if (fd_ >= 0) {
        return true;
    }
    path_ = historyPath + journalInfix + processTag;
    const int fd = ::open(path_.c_str(),
                          O_WRONLY | O_APPEND | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0 || flock(fd, LOCK_EX | LOCK_NB) != 0 || fchmod(fd, 0600) != 0) {
        error_ = "cannot create the event journal " + path_ + ": " + std::strerror(errno);
        if (fd >= 0) {
            ::close(fd);
        }
        return false;
    }
    fd_ = fd;
    signalFd = fd;
    return true;
}

bool EventJournal::doAppend(const Event& event) {
    if (fd_ < 0) {
        return false;
    }
    std::string record = journalRecordOf(event);
    record += '\n';
    const ssize_t written = ::write(fd_, record.data(), record.size());
    if (written == static_cast<ssize_t>(record.size())) {
        return true;
    }
    error_ = "cannot write the event journal " + path_ + ": " +
             (written < 0 ? std::strerror(errno) : "short write");
    if (written > 0) {
        // A partial record would glue itself to the next one: end it so it is left out.
        [[maybe_unused]] const ssize_t ended = ::write(fd_, "\n", 1);
    }
    return false;
}

void EventJournal::doClear() {
    if (fd_ >= 0) {
        // Left whole, the journal only offers events the history already has: they are
        // stored once, by their origin.
        [[maybe_unused]] const int cleared = ftruncate(fd_, 0);
    }
}

void EventJournal::doRemove() {
    if (fd_ >= 0) {
        ::unlink(path_.c_str());
        if (signalFd == fd_) {
            signalFd = -1;
        }
        ::close(fd_);
        fd_ = -1;
    }
}

void EventJournal::appendFromSignal(const char* record, unsigned size) {
    if (signalFd >= 0) {
        [[maybe_unused]] const ssize_t written = ::write(signalFd, record, size);
        static_cast<void>(::fdatasync(signalFd));
    }
}

std::vector<Event> EventJournal::eventsOf(const std::string& journalPath) {
    std::vector<Event> events;
    const int fd = trustedJournal(journalPath, O_RDONLY, nullptr);
    if (fd < 0) {
        return events;
    }
    std::string bytes;
    char buffer[65536];
    for (ssize_t got; (got = ::read(fd, buffer, sizeof buffer)) > 0;) {
        bytes.append(buffer, static_cast<std::size_t>(got));
    }
    ::close(fd);
    // A last line without its newline is a record cut short: left out.
    for (std::size_t start = 0, end; (end = bytes.find('\n', start)) != std::string::npos;
         start = end + 1) {
        std::vector<std::string> fields = fieldsOf(bytes.substr(start, end - start));
        if (fields.size() != 6) {
            continue;
        }
        Event event = eventFactory(std::move(fields[2]), std::move(fields[3]), std::move(fields[4]),
                                   std::strtod(fields[1].c_str(), nullptr), std::move(fields[5]));
        event.origin = std::move(fields[0]);
        events.push_back(std::move(event));
    }
    return events;
}

std::vector<std::string> EventJournal::journalsOf(const std::string& historyPath,
                                                  std::vector<std::string>* leftAlone) {
    std::vector<std::string> journals;
    const std::string prefix = baseOf(historyPath) + journalInfix;
    const std::string folder = folderOf(historyPath);
    DIR* directory = opendir(folder.c_str());
    if (!directory) {
        return journals;
    }
    while (const dirent* entry = readdir(directory)) {
        if (std::strncmp(entry->d_name, prefix.c_str(), prefix.size()) != 0) {
            continue;
        }
        const std::string journal = folder + "/" + entry->d_name;
        std::string problem;
        const int fd = trustedJournal(journal, O_RDONLY, &problem);
        if (fd >= 0) {
            ::close(fd);
            journals.push_back(journal);
        } else if (leftAlone != nullptr) {
            leftAlone->push_back(problem);
        }
    }
    closedir(directory);
    return journals;
}

std::vector<std::string> EventJournal::orphansOf(const std::string& historyPath,
                                                 std::vector<std::string>* leftAlone) {
    std::vector<std::string> orphans;
    for (const std::string& journal : journalsOf(historyPath, leftAlone)) {
        const int fd = trustedJournal(journal, O_RDONLY, nullptr);
        if (fd < 0) {
            continue;
        }
        if (flock(fd, LOCK_EX | LOCK_NB) == 0) {
            orphans.push_back(journal);
        }
        ::close(fd);
    }
    return orphans;
}

} // namespace Kestrune
