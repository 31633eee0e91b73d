// The Strata driver's devices: ports and LAGs by "ifadd" on the fabric channel, subinterfaces
// as VLAN devices once the chip knows their VLAN, LAG members programmed into the chip.
#include "driver/CpuDevice.h"
#include "model/LagInterface.h"
#include "model/StrataInterface.h"
#include "model/SubInterface.h"
#include "platform/StrataDriver.h"
#include "util/Format.h"
#include "util/KernelName.h"
#include "util/Namespace.h"
#include "util/NetDevice.h"
#include "util/RestoreGuards.h"
#include "util/Trace.h"
#include "util/Utils.h"

#include <cstdio>

namespace Kestrune {
namespace {

bool isLag(InterfaceType type) {
    return type == InterfaceType::Lag_ || type == InterfaceType::LagRouted_;
}

} // namespace

int getLagIdFromName(const std::string& name) {
    int id = -1;
    return std::sscanf(name.c_str(), "Port-Channel%d", &id) == 1 ? id : -1;
}

std::string StrataDriver::chipDeviceCommand(const Interface& intf) const {
    const std::string k = kernelIntfName(intf.name());
    if (isLag(intf.interfaceType())) {
        const auto& lag = dynamic_cast<const LagInterface&>(intf);
        return formatted("ifadd %s -1 -1 %d %d 0 0", k.c_str(), getLagIdFromName(intf.name()),
                         static_cast<int>(lag.internalVlan()));
    }
    const auto& port = dynamic_cast<const StrataInterface&>(intf);
    return formatted("ifadd %s %d %d -1 %d %d %d", k.c_str(), static_cast<int>(port.modId()),
                     static_cast<int>(port.port()), static_cast<int>(port.internalVlan()),
                     static_cast<int>(port.uc_qbase()), static_cast<int>(port.mc_qbase()));
}

bool StrataDriver::createInterface(const Interface* intf, const std::string& mac) {
    TRACE(3) << "StrataDriver::"
             << "createInterface"
             << " " << intf->name() << " " << mac;
    const std::string k = kernelIntfName(intf->name());
    if (k.empty()) {
        return failed("Unable to create " + intf->name() + ": not a kernel device name");
    }
    const std::string command = chipDeviceCommand(*intf);
    if (!doFabIoctl(command)) {
        return failed("Fab Ioctl wasn't successful " + command);
    }
    placement().chipDeviceMade(*this, *intf, k);
    if (const std::string failure = cpuDeviceUp(k, mac, sockFd(DEFAULT_NS), netlinkFd(DEFAULT_NS));
        !failure.empty()) {
        return failed(failure);
    }
    return true;
}

bool StrataDriver::createL2Interface(const Interface* intf, const std::string& mac) {
    TRACE(3) << "StrataDriver::"
             << "createL2Interface"
             << " " << intf->name() << " " << mac;
    return createInterface(intf, mac);
}

bool StrataDriver::createRoutedPortInterface(const Interface* intf, const std::string& mac) {
    TRACE(3) << "StrataDriver::"
             << "createRoutedPortInterface"
             << " " << intf->name() << " " << mac;
    return createInterface(intf, mac);
}

bool StrataDriver::createSubInterface(const Interface* intf, const std::string&) {
    const std::string p = kernelIntfName(parentIntfOfSubIntf(intf->name()));
    const std::string k = kernelIntfName(intf->name());
    if (p.empty() || k.empty()) {
        return failed("Unable to create " + intf->name() + ": not a kernel device name");
    }
    const auto& sub = dynamic_cast<const SubInterface&>(*intf);
    if (restoreGuards().valueRanges && !isVlanId(sub.encapVlan())) {
        return failed("Unable to create " + intf->name() + ": " + vlanIdProblem(sub.encapVlan()));
    }
    const std::string command =
        formatted("internalvlan %s %d 0 1 %d", p.c_str(), static_cast<int>(sub.internalVlan()),
                  static_cast<int>(sub.encapVlan()));
    TRACE(3) << "createSubInterface"
             << " " << command;
    if (!doFabIoctl(command)) {
        return failed("Fab Ioctl wasn't successful " + command);
    }
    NamespaceName madeIn(DEFAULT_NS);
    if (makeLayer3VlanDevice(*intf, p, k, static_cast<std::uint16_t>(sub.encapVlan()), madeIn) !=
        0) {
        return failed("Unable to create " + k);
    }
    if (!setDevUp(k.c_str(), sockFd(madeIn))) {
        return failed("Unable to set devstat UP for " + k);
    }
    return true;
}

bool StrataDriver::createLagInterface(const Interface* intf, const std::string& mac) {
    TRACE(3) << "StrataDriver::"
             << "createLagInterface"
             << " " << intf->name() << " " << mac;
    if (!createInterface(intf, mac)) {
        return false;
    }
    const int id = getLagIdFromName(intf->name());
    const auto& lag = dynamic_cast<const LagInterface&>(*intf);
    for (const auto& [memberName, member] : lag.member()) {
        const auto& port = dynamic_cast<const StrataInterface&>(*member->interface());
        if (!created(port.name())) {
            return failed("createLagInterface" +
                          std::string(" skipping creation due to missing memberIntf ") +
                          port.name());
        }
        const int modId = static_cast<int>(port.modId());
        const int portId = static_cast<int>(port.port());
        const int state = (member->collecting() ? 1 : 0) + (member->distributing() ? 2 : 0);
        for (const std::string& command :
             {formatted("lagmemberconfigadd %d %d %d", id, modId, portId),
              formatted("lagmemberadd %d %d %d", id, modId, portId),
              formatted("lagmemberupdate %d %d %d %d", id, modId, portId, state)}) {
            if (!doFabIoctl(command)) {
                return failed("Fab Ioctl wasn't successful " + command);
            }
        }
    }
    return true;
}

} // namespace Kestrune
