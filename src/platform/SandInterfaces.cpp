// The Sand driver's devices: each front-panel port becomes a CPU device by "ifadd" on the
// fabric channel, with its native VLAN, its internal VLAN when routed, and a prio root qdisc.
#include "driver/CpuDevice.h"
#include "model/SandInterface.h"
#include "platform/SandDriver.h"
#include "util/Command.h"
#include "util/Format.h"
#include "util/KernelName.h"
#include "util/Namespace.h"
#include "util/Netlink.h"
#include "util/Trace.h"

namespace Kestrune {

std::string SandDriver::chipDeviceCommand(const Interface& intf) const {
    const auto& port = dynamic_cast<const SandInterface&>(intf);
    return formatted("ifadd %s %d %d %s ctrl", kernelIntfName(intf.name()).c_str(),
                     static_cast<int>(port.systemPhyPortId()),
                     static_cast<int>(port.trafficClass()), port.deviceName().c_str());
}

bool SandDriver::createInterface(const Interface* intf, const std::string& mac, bool routed) {
    TRACE(3) << "SandDriver::"
             << "createInterface"
             << " " << intf->name() << " " << mac;
    const std::string k = kernelIntfName(intf->name());
    if (k.empty()) {
        return failed("Unable to create " + intf->name() + ": not a kernel device name");
    }
    const auto& port = dynamic_cast<const SandInterface&>(*intf);
    const auto integer = [](std::uint32_t value) { return static_cast<int>(value); };
    if (!doFabIoctl(chipDeviceCommand(*intf))) {
        return failed("Unable to create kernel Interface for " + intf->name());
    }
    const int nativeVlan = port.nativeVlan() == 0 ? noNativeVlan : integer(port.nativeVlan());
    if (!doFabIoctl(formatted("native_vlan %s %d %d", k.c_str(), integer(port.dot1qTunnel()),
                              nativeVlan))) {
        return failed("Unable to set native vlan for " + intf->name());
    }
    // The Sand command takes the VLAN first, unlike Strata's "internalvlan".
    if (routed &&
        !doFabIoctl(formatted("internalvlan %d %s", integer(port.internalVlan()), k.c_str()))) {
        return failed("Unable to set internalvlan for " + intf->name());
    }
    placement().chipDeviceMade(*this, *intf, k);
    if (const std::string failure = cpuDeviceUp(k, mac, sockFd(DEFAULT_NS), netlinkFd(DEFAULT_NS));
        !failure.empty()) {
        return failed(failure);
    }
    // tc's complaint about a qdisc already there is noise: only a tc that did not run fails.
    if (!placement().portQdiscAdded(*this, k)) {
        return failed("Failed to add prio qdisc for " + k);
    }
    return true;
}

bool SandDriver::createL2Interface(const Interface* intf, const std::string& mac) {
    TRACE(3) << "SandDriver::"
             << "createL2Interface"
             << " " << intf->name() << " " << mac;
    return createInterface(intf, mac, false);
}

bool SandDriver::createRoutedPortInterface(const Interface* intf, const std::string& mac) {
    TRACE(3) << "SandDriver::"
             << "createRoutedPortInterface"
             << " " << intf->name() << " " << mac;
    return createInterface(intf, mac, true);
}

// This platform makes no kernel devices for subinterfaces and LAGs: the restore reports them
// as not created.
bool SandDriver::createSubInterface(const Interface* intf, const std::string& mac) {
    TRACE(3) << "SandDriver::"
             << "createSubInterface"
             << " " << intf->name() << " " << mac;
    return false;
}

bool SandDriver::createLagInterface(const Interface* intf, const std::string& mac) {
    TRACE(3) << "SandDriver::"
             << "createLagInterface"
             << " " << intf->name() << " " << mac;
    return false;
}

} // namespace Kestrune
