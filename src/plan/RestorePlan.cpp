#include "plan/RestorePlan.h"

#include "model/IptablesConfig.h"
#include "model/SandConfig.h"
#include "model/SandInterface.h"
#include "model/SubInterface.h"
#include "model/VlanInterface.h"
#include "util/KernelName.h"
#include "util/Namespace.h"
#include "util/Utils.h"

#include <algorithm>
#include <arpa/inet.h>
#include <map>
#include <netinet/ether.h>
#include <set>

namespace Kestrune {
namespace {

// The kernel's VLAN ids stop below VLAN_VID_MASK.
constexpr std::uint32_t kernelVlanIdEnd = 4095;

// The store's bridge MAC as the kernel prints it, "" when the text is not one.
std::string bridgeMacText(const std::string& text) {
    const ether_addr* parsed = ether_aton(text.c_str());
    return parsed != nullptr ? macText(*parsed) : std::string();
}

std::vector<std::string> sortedAddresses(std::vector<std::string> addresses) {
    addresses.erase(std::remove(addresses.begin(), addresses.end(), std::string()),
                    addresses.end());
    std::sort(addresses.begin(), addresses.end());
    addresses.erase(std::unique(addresses.begin(), addresses.end()), addresses.end());
    return addresses;
}

bool isPort(InterfaceType type) {
    return type == InterfaceType::L2_ || type == InterfaceType::RoutedPort_;
}

bool isLag(InterfaceType type) {
    return type == InterfaceType::Lag_ || type == InterfaceType::LagRouted_;
}

bool isRouted(InterfaceType type) {
    return type == InterfaceType::RoutedPort_ || type == InterfaceType::LagRouted_;
}

std::string namespaceOf(const Interface& intf) {
    return intf.netNsName().empty() ? std::string(DEFAULT_NS) : intf.netNsName();
}

// The layer-3 part the restore configures: MTU and every address of the interface.
void configured(PlannedDevice& device, const Interface& intf) {
    device.mtu = static_cast<std::uint32_t>(intf.mtu());
    std::vector<std::string> ipv4;
    if (!intf.primaryIpv4().empty()) {
        ipv4.push_back(canonicalAddress(intf.primaryIpv4(), AF_INET));
    }
    for (const auto& [address, flag] : intf.secondaryIpv4()) {
        ipv4.push_back(canonicalAddress(address, AF_INET));
    }
    std::vector<std::string> ipv6;
    for (const auto& [address, flag] : intf.ipv6()) {
        ipv6.push_back(canonicalAddress(address, AF_INET6));
    }
    device.ipv4 = sortedAddresses(std::move(ipv4));
    device.ipv6 = sortedAddresses(std::move(ipv6));
}

class Planner {
  public:
    Planner(const Config& config, ChipFamily family, bool simulatedSwitch, bool valueRanges)
        : config_(config), facts_(factsOf(family)), mac_(bridgeMacText(config.bridgeMac())),
          simulated_(simulatedSwitch), valueRanges_(valueRanges) {
        plan_.family = family;
    }

    RestorePlan plan() {
        PlannedDevice fabric = device(std::string(DEFAULT_NS), "fabric", "");
        // The bring-up gives "fabric" its root when it loads the chip's module.
        fabric.qdisc = simulated_ ? "" : std::string(facts_.fabricQdisc);
        plan_.devices.push_back(fabric);
        owners_.emplace(std::string(DEFAULT_NS) + "/fabric", "fabric");
        std::set<std::string> namespaces;
        for (const auto& [name, intf] : config_.interface()) {
            if (!intf->netNsName().empty() && intf->netNsName() != DEFAULT_NS) {
                namespaces.insert(intf->netNsName());
            }
        }
        plan_.namespaces.assign(namespaces.begin(), namespaces.end());
        if (!isUnicastMac(macBytesOf(config_.bridgeMac()))) {
            // The fabric device refuses it, and the restore makes no interface's device.
            for (const auto& [name, intf] : config_.interface()) {
                notMade(*intf, kernelIntfName(name), NotMade::bridgeMac);
            }
            return finished();
        }
        // The restore's passes: ports, then LAGs, then subinterfaces and SVIs.
        for (const auto& [name, intf] : config_.interface()) {
            if (isPort(intf->interfaceType())) {
                chipDevice(*intf);
            }
        }
        for (const auto& [name, intf] : config_.interface()) {
            if (isLag(intf->interfaceType())) {
                chipDevice(*intf);
            }
        }
        for (const auto& [name, intf] : config_.interface()) {
            const InterfaceType type = intf->interfaceType();
            if (type == InterfaceType::SVI_ || type == InterfaceType::SubIntf_) {
                vlanDevice(*intf);
            }
        }
        return finished();
    }

  private:
    RestorePlan finished() {
        if (const auto rules = config_.iptablesConfig()) {
            plan_.iptables = rules->iptables();
            plan_.ip6tables = rules->ip6tables();
        }
        for (std::size_t i = 0; i < plan_.devices.size(); ++i) {
            plan_.byInterface[plan_.devices[i].interface].push_back(i);
        }
        return plan_;
    }

    PlannedDevice device(std::string ns, std::string name, std::string interface) const {
        PlannedDevice device;
        device.ns = std::move(ns);
        device.name = std::move(name);
        device.interface = std::move(interface);
        device.mac = mac_;
        return device;
    }

    void notMade(const Interface& intf, std::string name, NotMade why, std::string whyNot = {}) {
        notMade(device(namespaceOf(intf), std::move(name), intf.name()), why, std::move(whyNot));
    }
    void notMade(PlannedDevice entry, NotMade why, std::string whyNot) {
        entry.notMade = why;
        entry.whyNot = std::move(whyNot);
        plan_.devices.push_back(std::move(entry));
    }

    // Whether another device has the name where this one is made; takes it when not.
    bool nameTaken(const Interface& intf, const std::string& name, const std::string& madeIn) {
        const auto owner = owners_.find(madeIn + "/" + name);
        if (owner != owners_.end()) {
            notMade(intf, name, NotMade::nameTaken, owner->second);
            return true;
        }
        owners_.emplace(madeIn + "/" + name, intf.name());
        return false;
    }

    // A port or LAG the chip's driver makes in the default namespace; a routed one in a VRF
    // gets a TAP of the same name there, which carries its layer-3 configuration.
    void chipDevice(const Interface& intf) {
        const std::string name = kernelIntfName(intf.name());
        if (name.empty()) {
            notMade(intf, name, NotMade::kernelName);
            return;
        }
        if (isLag(intf.interfaceType()) && !facts_.makesLags) {
            notMade(intf, name, NotMade::family);
            return;
        }
        if (const auto* port = dynamic_cast<const SandInterface*>(&intf)) {
            const auto* sand = dynamic_cast<const SandConfig*>(&config_);
            if (sand != nullptr && !sand->sandFapConfig(port->deviceName())) {
                notMade(intf, name, NotMade::noFapDevice, port->deviceName());
                return;
            }
        }
        if (nameTaken(intf, name, std::string(DEFAULT_NS))) {
            return;
        }
        made_.insert(intf.name());
        PlannedDevice port = device(std::string(DEFAULT_NS), name, intf.name());
        port.qdisc = facts_.portQdisc;
        const std::string ns = namespaceOf(intf);
        if (!isRouted(intf.interfaceType())) {
            plan_.devices.push_back(port);
        } else if (ns == DEFAULT_NS) {
            configured(port, intf);
            plan_.devices.push_back(port);
            routedMtu_[intf.name()] =
                intf.mtu() >= smallestDeviceMtu && intf.mtu() <= largestDeviceMtu
                    ? static_cast<std::uint32_t>(intf.mtu())
                    : chipDeviceMtu;
        } else {
            // Moving it gives the chip's device there the largest frames before its copy in
            // the VRF gets its own.
            port.mtu = vrfPortChipMtu;
            plan_.devices.push_back(port);
            PlannedDevice tap = device(ns, name, intf.name());
            configured(tap, intf);
            plan_.devices.push_back(tap);
            routedMtu_[intf.name()] = vrfPortChipMtu;
        }
    }

    void vlanDevice(const Interface& intf) {
        const std::string name = kernelIntfName(intf.name());
        const bool svi = intf.interfaceType() == InterfaceType::SVI_;
        if (name.empty()) {
            notMade(intf, name, NotMade::kernelName);
            return;
        }
        if (!svi && !facts_.makesSubinterfaces) {
            notMade(intf, name, NotMade::family);
            return;
        }
        const std::uint32_t id = svi ? static_cast<const VlanInterface&>(intf).vlan()
                                     : static_cast<const SubInterface&>(intf).encapVlan();
        PlannedDevice vlan = device(namespaceOf(intf), name, intf.name());
        vlan.vlan = true;
        vlan.lowerMtu = chipDeviceMtu;
        if (svi) {
            vlan.parent = "fabric";
        } else {
            const std::size_t dot = intf.name().find('.');
            if (dot == std::string::npos) {
                notMade(intf, name, NotMade::noDot);
                return;
            }
            const std::string parent = intf.name().substr(0, dot);
            if (made_.count(parent) == 0) {
                notMade(intf, name, NotMade::parentNotMade, parent);
                return;
            }
            vlan.parent = kernelIntfName(parent);
            if (const auto routed = routedMtu_.find(parent); routed != routedMtu_.end()) {
                vlan.lowerMtu = routed->second;
            }
        }
        // The guard refuses an id outside 1 to 4094 first; without it, the id is cut to the
        // 16 bits of the field, and the kernel refuses what is past its range.
        const auto cut = static_cast<std::uint16_t>(id);
        if (valueRanges_ ? !isVlanId(id) : cut >= kernelVlanIdEnd) {
            notMade(intf, name, NotMade::vlanIdRange);
            return;
        }
        vlan.vlanId = cut;
        // The library's order makes every VLAN device in the default namespace, then moves it.
        if (nameTaken(intf, name, std::string(DEFAULT_NS))) {
            return;
        }
        const std::string key = vlan.parent + "/" + std::to_string(cut);
        if (const auto owner = vlanOwners_.find(key); owner != vlanOwners_.end()) {
            owners_.erase(std::string(DEFAULT_NS) + "/" + name);
            notMade(vlan, NotMade::vlanTaken, owner->second);
            return;
        }
        vlanOwners_.emplace(key, intf.name());
        configured(vlan, intf);
        plan_.devices.push_back(vlan);
    }

    const Config& config_;
    const ChipFamilyFacts& facts_;
    std::string mac_;
    bool simulated_;
    bool valueRanges_;
    std::set<std::string> made_;                     // ports and LAGs, by switch name
    std::map<std::string, std::uint32_t> routedMtu_; // a routed one's device's MTU
    std::map<std::string, std::string> owners_;      // "ns/kernel name" -> interface
    std::map<std::string, std::string> vlanOwners_;  // "lower/id" -> interface
    RestorePlan plan_;
};

} // namespace

const PlannedDevice* RestorePlan::deviceOf(const std::string& interface,
                                           const std::string& ns) const {
    const auto found = byInterface.find(interface);
    if (found != byInterface.end()) {
        for (const std::size_t i : found->second) {
            if (devices[i].ns == ns) {
                return &devices[i];
            }
        }
    }
    return nullptr;
}

const PlannedDevice* RestorePlan::firstOf(const std::string& interface) const {
    const auto found = byInterface.find(interface);
    return found == byInterface.end() ? nullptr : &devices[found->second.front()];
}

std::string canonicalAddress(const std::string& address, int family) {
    unsigned char parsed[sizeof(in6_addr)];
    int prefixLength = 0;
    if (!addressProblem(address, family, parsed, prefixLength).empty()) {
        return {};
    }
    char text[INET6_ADDRSTRLEN];
    inet_ntop(family, parsed, text, sizeof text);
    return std::string(text) + "/" + std::to_string(prefixLength);
}

RestorePlan restorePlan(const Config& config, bool simulatedSwitch, bool valueRanges) {
    ChipFamily family = ChipFamily::strata;
    chipFamilyOf(config.platformType(), family);
    return Planner(config, family, simulatedSwitch, valueRanges).plan();
}

} // namespace Kestrune
