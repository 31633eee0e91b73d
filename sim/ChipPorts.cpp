#include "ChipPorts.h"

#include "util/KernelName.h"
#include "util/Namespace.h"
#include "util/NetDevice.h"
#include "util/Netlink.h"
#include "util/Utils.h"

#include <cerrno>
#include <fcntl.h>
#include <linux/if.h>
#include <linux/if_tun.h>
#include <linux/netlink.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace Kestrune::Sim {

ChipPorts::ChipPorts()
    : socket_(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)),
      netlink_(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE)) {}

ChipPorts::~ChipPorts() {
    for (const auto& [name, fd] : queues_) {
        ::close(fd);
    }
    ::close(socket_);
    ::close(netlink_);
}

int ChipPorts::queue(const std::string& name, bool ethernet) {
    const int fd = ::open("/dev/net/tun", O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        return -1;
    }
    ifreq request{};
    name.copy(request.ifr_name, IFNAMSIZ - 1);
    // A driver registers a new device: a name another device has is taken (EXCL), where the
    // open would otherwise attach to a TAP already there.
    request.ifr_flags =
        static_cast<short>((ethernet ? IFF_TAP : IFF_TUN) | IFF_NO_PI | IFF_TUN_EXCL);
    if (ioctl(fd, TUNSETIFF, &request) < 0 || ioctl(fd, TUNSETPERSIST, 1) < 0) {
        const int error = errno == EBUSY ? EEXIST : errno;
        ::close(fd);
        errno = error;
        return -1;
    }
    queues_[name] = fd;
    return 0;
}

int ChipPorts::made(const std::string& name, Kind kind, const std::string& record) {
    if (queues_.count(name) != 0 || !isKernelDeviceName(name)) {
        errno = queues_.count(name) != 0 ? EEXIST : EINVAL;
        return -1;
    }
    if (kind == Kind::noUp || kind == Kind::jumbo) {
        // A VLAN device cannot come up over a lower device that is down, nor take frames
        // larger than it does.
        const std::string lower = "chip" + std::to_string(queues_.size());
        if (queue(lower, true) != 0) {
            return -1;
        }
        if (kind == Kind::jumbo &&
            (!setMtu(lower.c_str(), cpuMtu, socket_) || !setDevUp(lower.c_str(), socket_))) {
            return -1;
        }
        const int made = makeVlanDevice(lower, name, 1, netlink_, DEFAULT_NS);
        if (made != 0) {
            errno = -made;
            return -1;
        }
        queues_[name] = -1;
        lowers_[name] = lower;
    } else if (queue(name, kind == Kind::ethernet) != 0) {
        return -1;
    }
    setMtu(name.c_str(), cpuMtu, socket_);
    if (!record.empty()) {
        Netlink::linkAliasIs(netlink_, name, record);
    }
    return 0;
}

bool ChipPorts::reset(const std::string& name) {
    const auto lower = lowers_.find(name);
    const std::string device = lower != lowers_.end() ? lower->second : name;
    ifreq request{};
    device.copy(request.ifr_name, IFNAMSIZ - 1);
    if (ioctl(socket_, SIOCGIFFLAGS, &request) < 0) {
        return false;
    }
    request.ifr_flags = static_cast<short>(request.ifr_flags & ~IFF_UP);
    return ioctl(socket_, SIOCSIFFLAGS, &request) == 0;
}

} // namespace Kestrune::Sim
