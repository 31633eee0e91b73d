#include "util/NetDevice.h"

#include "util/Namespace.h"
#include "util/Netlink.h"
#include "util/RestoreGuards.h"
#include "util/Trace.h"

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

int failed(const char* operation, std::string_view name, const char* what, int result) {
    TRACE_EXTRA(0) << operation << " " << name << ": " << what << ": " << std::strerror(-result);
    return result;
}

} // namespace

int makeVlanDevice(std::string_view parent, std::string_view name, int vlanId, int netlinkFd,
                   std::string_view nsName, int namespaceFd, unsigned mtu) {
    TRACE_EXTRA(9) << "makeVlanDevice"
                   << " " << name << " id " << vlanId << " on " << parent << " in " << nsName;
    int fd = netlinkFd;
    if (fd < 0) {
        fd = openSocketInNs(AF_NETLINK, SOCK_RAW, NETLINK_ROUTE, nsName);
        if (fd < 0) {
            return failed("makeVlanDevice", name, "no netlink socket", -errno);
        }
    }
    int result = Kestrune::Netlink::linkIndex(fd, parent);
    if (result < 0) {
        failed("makeVlanDevice", name, "parent device", result);
    } else if (vlanId < 0 || vlanId > UINT16_MAX) {
        result = failed("makeVlanDevice", name, "VLAN id", -ERANGE);
    } else {
        const auto id = static_cast<std::uint16_t>(vlanId);
        const int parentIndex = result;
        result = Kestrune::Netlink::vlanLinkAdd(fd, name, parentIndex, id, namespaceFd, mtu);
        if (mtu != 0 && (result == -EINVAL || result == -ERANGE)) {
            result = Kestrune::Netlink::vlanLinkAdd(fd, name, parentIndex, id, namespaceFd);
        }
        if (result < 0) {
            failed("makeVlanDevice", name, "create", result);
        }
    }
    if (fd != netlinkFd) {
        close(fd);
    }
    return result < 0 ? result : 0;
}

int vlanDeviceRefused(std::string_view parent, std::string_view name, int vlanId,
                      std::string_view nsName, int error) {
    TRACE_EXTRA(9) << "makeVlanDevice"
                   << " " << name << " id " << vlanId << " on " << parent << " in " << nsName;
    return failed("makeVlanDevice", name, "create", error);
}

int addRootPrioQdisc(std::string_view deviceName) {
    const int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
    if (fd < 0) {
        return failed("addRootPrioQdisc", deviceName, "no netlink socket", -errno);
    }
    int result = Kestrune::Netlink::linkIndex(fd, deviceName);
    if (result < 0) {
        failed("addRootPrioQdisc", deviceName, "device", result);
    } else {
        result = Kestrune::Netlink::rootPrioQdiscAdd(fd, result);
        if (result < 0) {
            failed("addRootPrioQdisc", deviceName, "qdisc", result);
        }
    }
    close(fd);
    return result < 0 ? result : 0;
}
