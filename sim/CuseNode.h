#pragma once

#include "Chip.h"

#include <string>

struct fuse_session;

namespace Kestrune::Sim {

// One of the chip's character devices served through the kernel's CUSE interface: the kernel
// registers it under its major and minor, the node a process makes with mknod reaches it, and
// every open, ioctl and record crosses the kernel to the chip. It checks what only a real
// device can: the open flags, and the node's type, mode and numbers.
class CuseNode {
  public:
    enum class Kind { fabric, bde };

    // Registers the device with the kernel through /dev/cuse (the name devname under
    // major:minor); std::runtime_error when that cannot be done.
    CuseNode(Chip& chip, Kind kind);
    ~CuseNode();
    CuseNode(const CuseNode&) = delete;
    CuseNode& operator=(const CuseNode&) = delete;

    // The descriptor to wait on; handle() takes one request from it. False once the kernel
    // has closed the session.
    int fd() const;
    bool handle();
    // True once the kernel has the device (its CUSE handshake is done).
    bool ready() const { return ready_; }

    // The node a process must open, and what it must look like.
    const char* path() const;
    unsigned deviceMajor() const;

  private:
    friend struct CuseCalls;
    // "" when the open may go ahead, else why it is refused.
    std::string openRefusal(int flags);
    int request(unsigned long number, const void* record, std::size_t size, std::size_t* wanted,
                unsigned client);

    Chip& chip_;
    Kind kind_;
    fuse_session* session_ = nullptr;
    bool ready_ = false;
    unsigned opens_ = 0;
};

} // namespace Kestrune::Sim
