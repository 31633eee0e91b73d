#include "platform/ChipDevice.h"

#include "util/RestoreGuards.h"

#include <cstdlib>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Kestrune {
namespace {

class SystemChipDevice : public ChipDevice {
  public:
    // With the guard, a link planted where a chip node belongs is refused: root would open
    // whatever it names. The nodes are root's, in /dev, so by default they open as named.
    int open(const char* path, int flags) override {
        return ::open(path,
                      flags | (restoreGuards().chipNodesNoFollow ? O_NOFOLLOW : 0) | O_CLOEXEC);
    }
    int ioctl(int fd, unsigned long request, void* argument) override {
        return ::ioctl(fd, request, argument);
    }
    int close(int fd) override { return ::close(fd); }
    // The node gets the mode asked for, whatever the umask of the process.
    int mknod(const char* path, mode_t mode, dev_t device) override {
        const mode_t mask = umask(0);
        const int made = ::mknod(path, mode, device);
        umask(mask);
        return made;
    }
};

ChipDevice::Ptr& current() {
    static ChipDevice::Ptr device = std::make_shared<SystemChipDevice>();
    return device;
}

} // namespace

ChipDevice& chipDevice() {
    return *current();
}

void chipDeviceIs(ChipDevice::Ptr device) {
    current() = device ? std::move(device) : std::make_shared<SystemChipDevice>();
}

bool fabricIoctl(int fd, const std::string& command) {
    return chipDevice().ioctl(fd, command.size() + 1, const_cast<char*>(command.c_str())) == 0;
}

bool simulatedSwitch() {
    return std::getenv("SIMULATION_VMID") != nullptr;
}

} // namespace Kestrune
