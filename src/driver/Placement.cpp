// The two orders of the restore's kernel work, each a placement the driver's steps ask.
#include "driver/Placement.h"

#include "driver/Driver.h"
#include "model/ChipFamily.h"
#include "util/Command.h"
#include "util/Format.h"
#include "util/NetDevice.h"
#include "util/Netlink.h"

#include <cerrno>
#include <linux/if.h>
#include <sys/ioctl.h>

namespace Kestrune {
namespace {

class LibraryPlacement final : public Placement {
  public:
    RestoreOrder order() const override { return RestoreOrder::library; }

    int vlanDeviceMade(Driver& driver, const Interface&, std::string_view parent,
                       const std::string& kernelName, std::uint16_t vlan,
                       NamespaceName& madeIn) override {
        madeIn = NamespaceName(DEFAULT_NS);
        return makeVlanDevice(parent, kernelName, vlan, driver.netlinkFd(DEFAULT_NS), DEFAULT_NS);
    }

    void chipDeviceMade(const Driver&, const Interface&, const std::string&) const override {}

    bool portQdiscAdded(const Driver&, const std::string& kernelName) const override {
        return runCommand(
                   formatted("/sbin/tc qdisc add dev %s root handle 1: prio", kernelName.c_str()),
                   commandInherit, commandInherit, commandDiscard, commandNoTimeout) >= 0;
    }
};

class FastPlacement final : public Placement {
  public:
    RestoreOrder order() const override { return RestoreOrder::fast; }

    int vlanDeviceMade(Driver& driver, const Interface& intf, std::string_view parent,
                       const std::string& kernelName, std::uint16_t vlan,
                       NamespaceName& madeIn) override {
        madeIn = NamespaceName(DEFAULT_NS);
        // Only a namespace doInit opened sockets in: configure reaches the device through them.
        const NamespaceName target(intf.netNsName().empty() ? std::string(DEFAULT_NS)
                                                            : intf.netNsName());
        int namespaceFd = -1;
        if (target != NamespaceName(DEFAULT_NS) && driver.sockFd().count(target) != 0) {
            namespaceFd = namespaceFiles_.fdOf(target.text());
        }
        // The library's order makes every VLAN device in the default namespace first, where a
        // second device of a name fails, in whichever namespace the first one ended.
        if (namesMade_.count(kernelName) != 0) {
            return vlanDeviceRefused(parent, kernelName, vlan, DEFAULT_NS, -EEXIST);
        }
        const int made =
            makeVlanDevice(parent, kernelName, vlan, driver.netlinkFd(DEFAULT_NS), DEFAULT_NS,
                           namespaceFd, static_cast<unsigned>(vlanMtu(driver, intf)));
        if (made == 0) {
            namesMade_.insert(kernelName);
        }
        if (made == 0 && namespaceFd >= 0) {
            madeIn = target;
            driver.vrfCreate()->madeInPlaceIs(kernelName);
        }
        return made;
    }

    // A routed port's or LAG's chip device, still down, gets the MTU it ends with in the
    // default namespace (its VRF copy's largest frames, or its own), as an MTU changed on a
    // device that is up walks the namespace's IPv6 routes; the steps that set it later find it
    // set. Silent: those steps say what fails.
    void chipDeviceMade(const Driver& driver, const Interface& intf,
                        const std::string& kernelName) const override {
        const InterfaceType type = intf.interfaceType();
        if (intf.netNsName().empty() ||
            (type != InterfaceType::RoutedPort_ && type != InterfaceType::LagRouted_)) {
            return;
        }
        const int mtu = presetMtu(
            intf.netNsName() == DEFAULT_NS ? intf.mtu() : static_cast<int>(vrfPortChipMtu));
        if (mtu > 0) {
            ifreq request{};
            kernelName.copy(request.ifr_name, IFNAMSIZ - 1);
            request.ifr_mtu = mtu;
            ioctl(driver.sockFd(DEFAULT_NS), SIOCSIFMTU, &request);
        }
    }

    // Asked of the kernel itself, as tc would, which costs no process: whatever the kernel
    // answers counts as a tc that ran.
    bool portQdiscAdded(const Driver& driver, const std::string& kernelName) const override {
        const int netlink = driver.netlinkFd(DEFAULT_NS);
        const int index = Netlink::linkIndex(netlink, kernelName);
        if (index > 0) {
            Netlink::rootPrioQdiscAdd(netlink, index);
        }
        return true;
    }

  private:
    // The MTU the fast order may give a device before it first comes up: the MTU, or 0 (none)
    // for one below IPv6's minimum. A device that comes into being below it never gets IPv6 at
    // all, and the configure pass would find no IPv6 switches to set: such an MTU is left to
    // that pass, which takes IPv6 off the device as the library's order does.
    static int presetMtu(int mtu) { return mtu >= static_cast<int>(ipv6MinimumMtu) ? mtu : 0; }

    // A VLAN device's own MTU when the configure pass will take it, and where that pass will
    // refuse it, the chip's, which the library's order makes every VLAN device with (as the
    // device keeps what it was made with).
    static int vlanMtu(Driver& driver, const Interface& intf) {
        const PlannedDevice* planned = driver.plan().firstOf(intf.name());
        const int mtu = intf.mtu();
        const bool taken = planned != nullptr && mtu >= smallestDeviceMtu &&
                           mtu <= largestDeviceMtu &&
                           static_cast<std::uint32_t>(mtu) <= planned->lowerMtu;
        return taken ? presetMtu(mtu) : static_cast<int>(chipDeviceMtu);
    }

    NamespaceFiles namespaceFiles_{"makeVlanDevice"};
    // The names of the VLAN devices made, in whichever namespace.
    std::set<std::string> namesMade_;
};

} // namespace

const char* restoreOrderName(RestoreOrder order) {
    return order == RestoreOrder::fast ? "fast" : "library";
}

std::unique_ptr<Placement> placementFor(RestoreOrder order) {
    if (order == RestoreOrder::fast) {
        return std::make_unique<FastPlacement>();
    }
    return std::make_unique<LibraryPlacement>();
}

} // namespace Kestrune
