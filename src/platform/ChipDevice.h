#pragma once

#include <memory>
#include <string>
#include <sys/types.h>

namespace Kestrune {

// The chip's character devices and the bde driver's requests, as its kernel modules define
// them.
inline constexpr const char* fabricDevicePath = "/dev/fabric";
inline constexpr unsigned fabricDeviceMajor = 240;
inline constexpr const char* bdeDevicePath = "/dev/kovana-bde";
inline constexpr unsigned bdeDeviceMajor = 127;
inline constexpr unsigned long bdeAddDeviceRequest = 0x4C34;
inline constexpr unsigned long bdeEnableInterruptsRequest = 0x4C06;

// The one way the platform drivers reach the chip's character devices (/dev/fabric and the
// bde device). The production implementation makes the system calls; the chip simulator sees
// the same bytes the chip's kernel driver would: the fabric request number is the command's
// length plus one, the bde records carry their fields at the driver's byte offsets.
class ChipDevice {
  public:
    using Ptr = std::shared_ptr<ChipDevice>;

    virtual ~ChipDevice() = default;
    virtual int open(const char* path, int flags) = 0;
    virtual int ioctl(int fd, unsigned long request, void* argument) = 0;
    virtual int close(int fd) = 0;
    virtual int mknod(const char* path, mode_t mode, dev_t device) = 0;
};

// The chip devices in use: the system calls unless a simulator was put in their place.
ChipDevice& chipDevice();
// A null handle puts the system calls back.
void chipDeviceIs(ChipDevice::Ptr device);

// Sends one command on a fabric channel: the request number is the command's length with its
// terminating NUL, the argument the text. True when the chip's driver took it.
bool fabricIoctl(int fd, const std::string& command);

// True on a simulated switch ("SIMULATION_VMID" set, any value): its kernel already has the
// chip's modules and nodes, so the drivers load and make none.
bool simulatedSwitch();

} // namespace Kestrune
