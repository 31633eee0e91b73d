#pragma once

#include <string>

namespace Kestrune {

// One restore at a time on a machine: two at once would each make half the devices. The
// lock is a file under /run holding the pid of the restore that has it; the kernel drops the
// lock when that process ends, however it ends.
class RestoreLock {
  public:
    static constexpr const char* defaultPath = "/run/kestrune/restore.lock";

    explicit RestoreLock(std::string path = defaultPath);
    ~RestoreLock();
    RestoreLock(const RestoreLock&) = delete;
    RestoreLock& operator=(const RestoreLock&) = delete;

    // Takes the lock; false, with what is wrong in error(), when another restore has it or
    // the lock file cannot be made.
    bool doTake();
    const std::string& error() const { return error_; }

  private:
    std::string path_;
    int fd_ = -1;
    std::string error_;
};

} // namespace Kestrune
