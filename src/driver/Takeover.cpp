// Finishing an interrupted restore: which devices already there the restore takes as its own.
// Only a device that is what the restore would have made is taken over; anything else by that
// name (another user's, a store's older shape) is said and left to the creation, which fails
// on it, so that verify shows it rather than the restore adopting it.
#include "driver/Takeover.h"

#include "driver/Driver.h"
#include "util/KernelName.h"
#include "util/Netlink.h"
#include "util/Trace.h"

#include <net/if.h>
#include <sys/ioctl.h>
#include <vector>

namespace Kestrune {
namespace {

bool isChipDevice(InterfaceType type) {
    return type == InterfaceType::L2_ || type == InterfaceType::RoutedPort_ ||
           type == InterfaceType::Lag_ || type == InterfaceType::LagRouted_;
}

// The name of the device with this index in the namespace of the socket; "" for none.
std::string deviceNamed(int sockFd, int index) {
    ifreq request{};
    request.ifr_ifindex = index;
    return ioctl(sockFd, SIOCGIFNAME, &request) == 0 ? std::string(request.ifr_name) : "";
}

// Whether the device is in the namespace, with what it is. Asked over rtnetlink: an interface
// ioctl naming a device that is not there has the kernel run modprobe twice ("netdev-NAME",
// then NAME) before it answers, which costs a guest a few hundred milliseconds a device.
bool deviceFound(const Driver& driver, const NamespaceName& ns, const std::string& kernelName,
                 Netlink::LinkFacts& facts) {
    return driver.sockFd().count(ns) != 0 &&
           Netlink::linkFactsOf(driver.netlinkFd(ns), kernelName, facts) == 0;
}

class FreshStart final : public Takeover {
  public:
    bool resumes() const override { return false; }
    bool takenOver(Driver&, const Interface&) override { return false; }
    bool inPlace(Driver&, const Interface&) override { return false; }
    bool replacesAddresses() const override { return false; }
    std::string filterRestoreCommand(const std::string& tool) const override {
        return tool + " -n";
    }
};

class Resumption final : public Takeover {
  public:
    bool resumes() const override { return true; }

    bool takenOver(Driver& driver, const Interface& intf) override {
        const std::string kernelName = kernelIntfName(intf.name());
        if (kernelName.empty()) {
            return false;
        }
        // The chip makes its devices in the default namespace (a VRF's routed port is made
        // anew in its namespace whatever is there); a VLAN device may be where it ends, or
        // still where the library's order makes it.
        std::vector<std::string> places{std::string(DEFAULT_NS)};
        if (!isChipDevice(intf.interfaceType()) && intf.netNsName() != DEFAULT_NS) {
            places.insert(places.begin(), intf.netNsName());
        }
        for (const std::string& ns : places) {
            Netlink::LinkFacts facts;
            if (ns.empty() || !deviceFound(driver, NamespaceName(ns), kernelName, facts)) {
                continue;
            }
            if (const std::string problem = why(driver, intf, facts, NamespaceName(ns));
                !problem.empty()) {
                std::string text = "Not taking over ";
                text.append(kernelName).append(" in ").append(ns).append(" for ");
                text.append(intf.name()).append(": ").append(problem);
                TRACE(0) << text;
                Driver::eventIs(text);
                return false;
            }
            TRACE(0) << "Taking over " << kernelName << " in " << ns << " for " << intf.name();
            found_[intf.name()] = ns;
            driver.createdIs(intf.name(), true);
            return true;
        }
        return false;
    }

    bool inPlace(Driver& driver, const Interface& intf) override {
        const NamespaceName ns(intf.netNsName());
        const std::string kernelName = kernelIntfName(intf.name());
        Netlink::LinkFacts facts;
        if (!deviceFound(driver, ns, kernelName, facts)) {
            return false;
        }
        TRACE(0) << "Found " << kernelName << " in " << ns << " already";
        found_[intf.name()] = intf.netNsName();
        return true;
    }

    bool replacesAddresses() const override { return true; }

    // The rules may be in force already: the saved tables replace what they hold instead of
    // getting a second copy of every rule.
    std::string filterRestoreCommand(const std::string& tool) const override { return tool; }

  private:
    // Why the device found in `ns` is not the one the restore makes for intf: its kind, its
    // lower device and VLAN id for a VLAN device, the chip's record of a chip device; "" when
    // it is.
    static std::string why(Driver& driver, const Interface& intf, const Netlink::LinkFacts& facts,
                           const NamespaceName& ns) {
        if (isChipDevice(intf.interfaceType())) {
            const std::string command = driver.chipDeviceCommand(intf);
            if (command.empty() || facts.alias == command) {
                return {};
            }
            return facts.alias.empty() ? "the chip holds no record of making it"
                                       : "the chip made it by \"" + facts.alias +
                                             "\" where the restore sends \"" + command + "\"";
        }
        if (facts.kind != "vlan") {
            return "it is " + (facts.kind.empty() ? std::string("a plain") : "a " + facts.kind) +
                   " device where a vlan device belongs";
        }
        // Where the plan makes no such device, nothing found by its name is the restore's.
        const PlannedDevice* planned = driver.plan().deviceOf(
            intf.name(), intf.netNsName().empty() ? std::string(DEFAULT_NS) : intf.netNsName());
        if (planned == nullptr || planned->notMade != NotMade::no) {
            return "the restore makes no device for " + intf.name();
        }
        const std::uint16_t vlan = planned->vlanId;
        const std::string& parent = planned->parent;
        // The lower device is always in the default namespace: a VLAN device in a VRF names it
        // there, one still in the default namespace names it beside itself.
        const bool away = ns != NamespaceName(DEFAULT_NS);
        const std::string lower = facts.parentElsewhere == away
                                      ? deviceNamed(driver.sockFd(DEFAULT_NS), facts.parentIndex)
                                      : "";
        if (facts.vlanId != vlan || lower != parent) {
            return "it is VLAN " + std::to_string(facts.vlanId) + " on " +
                   (lower.empty() ? std::string("a device elsewhere") : lower) +
                   " where the restore makes VLAN " + std::to_string(vlan) + " on " + parent;
        }
        return {};
    }
};

} // namespace

std::unique_ptr<Takeover> takeoverFor(bool resume) {
    if (resume) {
        return std::make_unique<Resumption>();
    }
    return std::make_unique<FreshStart>();
}

} // namespace Kestrune
