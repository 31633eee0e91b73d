#include "platform/ChipDevice.h"

#include <cstdlib>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Kestrune {
namespace {

class SystemChipDevice : public ChipDevice {
  public:
    int open(const char* path, int flags) override { return ::open(path, flags | O_CLOEXEC); }
    int ioctl(int fd, unsigned long request, void* argument) override {
        return ::ioctl(fd, request, argument);
    }
    int close(int fd) override { return ::close(fd); }
    int mknod(const char* path, mode_t mode, dev_t device) override {
        return ::mknod(path, mode, device);
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
