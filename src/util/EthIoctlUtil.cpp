#include "util/EthIoctlUtil.h"

#include "util/KernelName.h"
#include "util/Namespace.h"
#include "util/RestoreGuards.h"
#include "util/Trace.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <linux/if.h>
#include <linux/if_tun.h>
#include <net/if_arp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace Kestrune {
namespace {

bool failed(const std::string& name, const char* step) {
    TRACE_EXTRA(0) << "createIntf " << name << " " << step << ": " << std::strerror(errno);
    return false;
}

bool isZero(const ether_addr& mac) {
    return std::all_of(std::begin(mac.ether_addr_octet), std::end(mac.ether_addr_octet),
                       [](std::uint8_t byte) { return byte == 0; });
}

// The device's settings, made from inside its namespace; `socket` is one of that namespace.
bool configureTap(int queue, int socket, const std::string& name, const ether_addr& mac,
                  bool operStatus) {
    if (!isZero(mac)) {
        if (socket < 0) {
            return failed(name, "socket");
        }
        ifreq request{};
        name.copy(request.ifr_name, IFNAMSIZ - 1);
        request.ifr_hwaddr.sa_family = ARPHRD_ETHER;
        std::memcpy(request.ifr_hwaddr.sa_data, mac.ether_addr_octet, ETH_ALEN);
        if (ioctl(socket, SIOCSIFHWADDR, &request) < 0) {
            return failed(name, "MAC address");
        }
    }
    int carrier = operStatus ? 1 : 0;
    if (ioctl(queue, TUNSETCARRIER, &carrier) < 0) {
        return failed(name, "carrier");
    }
    return true;
}

} // namespace

EthIoctlUtil::~EthIoctlUtil() {
    for (const int queue : queues_) {
        close(queue);
    }
    for (const auto& [ns, socket] : sockets_) {
        close(socket);
    }
}

int EthIoctlUtil::socketOfThreadNs(std::string_view nsName) {
    const auto found = sockets_.find(nsName);
    if (found != sockets_.end()) {
        return found->second;
    }
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd >= 0) {
        sockets_.emplace(std::string(nsName), fd);
    }
    return fd;
}

bool EthIoctlUtil::createIntf(const std::string& name, const ether_addr& mac, bool operStatus,
                              std::string_view nsName) {
    TRACE_EXTRA(3) << "createIntf " << name << " in " << nsName;
    if (restoreGuards().kernelNames && !isKernelDeviceName(name)) {
        TRACE_EXTRA(0) << "createIntf " << name << " is not a kernel device name";
        return false;
    }
    const NamespaceVisit visit("createIntf", nsName, namespaces_.fdOf(nsName));
    if (!visit.entered()) {
        return false;
    }

    bool made = false;
    const int queue = open("/dev/net/tun", O_RDWR | O_CLOEXEC);
    if (queue < 0) {
        failed(name, "/dev/net/tun");
    } else {
        ifreq request{};
        name.copy(request.ifr_name, IFNAMSIZ - 1);
        request.ifr_flags = IFF_TAP | IFF_NO_PI;
        if (ioctl(queue, TUNSETIFF, &request) < 0) {
            failed(name, "TUNSETIFF");
        } else if (ioctl(queue, TUNSETPERSIST, 1) < 0) {
            failed(name, "TUNSETPERSIST");
        } else {
            made = configureTap(queue, socketOfThreadNs(nsName), name, mac, operStatus);
        }
        if (made) {
            queues_.push_back(queue);
        } else {
            close(queue);
        }
    }
    return made;
}

} // namespace Kestrune
