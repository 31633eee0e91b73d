#include "state/ExpectedState.h"

#include "model/IptablesConfig.h"
#include "model/SubInterface.h"
#include "model/VlanInterface.h"
#include "util/KernelName.h"
#include "util/Namespace.h"
#include "util/Utils.h"

#include <algorithm>
#include <arpa/inet.h>
#include <netinet/ether.h>
#include <set>

namespace Kestrune {

namespace {

// The MTU a VRF's routed port keeps in the default namespace: moving it gives the chip's
// device there the largest frame before its copy in the VRF gets its own.
constexpr std::uint32_t vrfPortMtuInDefault = 10240;

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

// The layer-3 part the restore configures: MTU and every address of the interface.
void configured(ExpectedDevice& device, const Interface& intf) {
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

class Expectation {
  public:
    Expectation(const Config& config, bool simulatedSwitch)
        : config_(config), mac_(bridgeMacText(config.bridgeMac())),
          strata_(config.platformType() == "Strata"), simulated_(simulatedSwitch) {}

    ExpectedState state() {
        ExpectedDevice fabric = device(std::string(DEFAULT_NS), "fabric", "");
        // The Strata bring-up gives "fabric" a prio root when it loads the chip's module; the
        // Sand one gives each port one instead.
        fabric.qdisc = strata_ && !simulated_ ? "prio" : "";
        state_.devices.push_back(fabric);
        std::set<std::string> namespaces;
        for (const auto& [name, intf] : config_.interface()) {
            if (!intf->netNsName().empty() && intf->netNsName() != DEFAULT_NS) {
                namespaces.insert(intf->netNsName());
            }
        }
        state_.namespaces.assign(namespaces.begin(), namespaces.end());
        // The restore's passes: ports, then LAGs, then subinterfaces and SVIs.
        for (const auto& [name, intf] : config_.interface()) {
            if (isPort(intf->interfaceType())) {
                chipDevice(*intf);
            }
        }
        for (const auto& [name, intf] : config_.interface()) {
            if (isLag(intf->interfaceType()) && strata_) {
                chipDevice(*intf);
            }
        }
        for (const auto& [name, intf] : config_.interface()) {
            vlanDevice(*intf);
        }
        if (const auto rules = config_.iptablesConfig()) {
            state_.iptables = rules->iptables();
            state_.ip6tables = rules->ip6tables();
        }
        return state_;
    }

  private:
    static bool isPort(InterfaceType type) {
        return type == InterfaceType::L2_ || type == InterfaceType::RoutedPort_;
    }
    static bool isLag(InterfaceType type) {
        return type == InterfaceType::Lag_ || type == InterfaceType::LagRouted_;
    }
    static bool isRouted(InterfaceType type) {
        return type == InterfaceType::RoutedPort_ || type == InterfaceType::LagRouted_;
    }

    static std::string namespaceOf(const Interface& intf) {
        return intf.netNsName().empty() ? std::string(DEFAULT_NS) : intf.netNsName();
    }

    ExpectedDevice device(std::string ns, std::string name, std::string interface) const {
        ExpectedDevice device;
        device.ns = std::move(ns);
        device.name = std::move(name);
        device.interface = std::move(interface);
        device.mac = mac_;
        return device;
    }

    // A port or LAG the chip's driver makes in the default namespace; a routed one in a VRF
    // gets a TAP of the same name there, which carries its layer-3 configuration.
    void chipDevice(const Interface& intf) {
        const std::string name = kernelIntfName(intf.name());
        if (name.empty()) {
            return;
        }
        made_.insert(intf.name());
        ExpectedDevice port = device(std::string(DEFAULT_NS), name, intf.name());
        port.qdisc = strata_ ? "" : "prio";
        const std::string ns = namespaceOf(intf);
        if (!isRouted(intf.interfaceType())) {
            state_.devices.push_back(port);
        } else if (ns == DEFAULT_NS) {
            configured(port, intf);
            state_.devices.push_back(port);
        } else {
            port.mtu = vrfPortMtuInDefault;
            state_.devices.push_back(port);
            ExpectedDevice tap = device(ns, name, intf.name());
            configured(tap, intf);
            state_.devices.push_back(tap);
        }
    }

    void vlanDevice(const Interface& intf) {
        const std::string name = kernelIntfName(intf.name());
        if (name.empty()) {
            return;
        }
        ExpectedDevice vlan = device(namespaceOf(intf), name, intf.name());
        vlan.vlan = true;
        if (intf.interfaceType() == InterfaceType::SVI_) {
            vlan.vlanId =
                static_cast<std::uint16_t>(static_cast<const VlanInterface&>(intf).vlan());
            vlan.parent = "fabric";
        } else if (intf.interfaceType() == InterfaceType::SubIntf_ && strata_ &&
                   intf.name().find('.') != std::string::npos) {
            const std::string parent = parentIntfOfSubIntf(intf.name());
            if (made_.count(parent) == 0) {
                return;
            }
            vlan.vlanId =
                static_cast<std::uint16_t>(static_cast<const SubInterface&>(intf).encapVlan());
            vlan.parent = kernelIntfName(parent);
        } else {
            return;
        }
        configured(vlan, intf);
        state_.devices.push_back(vlan);
    }

    const Config& config_;
    std::string mac_;
    bool strata_;
    bool simulated_;
    std::set<std::string> made_; // the ports and LAGs, by switch name
    ExpectedState state_;
};

} // namespace

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

ExpectedState expectedState(const Config& config, bool simulatedSwitch) {
    return Expectation(config, simulatedSwitch).state();
}

} // namespace Kestrune
