#pragma once

#include "model/Config.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Kestrune {

// One kernel device that a whole restore of a store leaves behind, with what the store fixes
// about it. What the chip's own driver decides (a port's MTU, its queueing discipline but for
// the prio ones the restore adds) is not part of it.
struct ExpectedDevice {
    std::string ns;
    std::string name;      // the kernel device name
    std::string interface; // the switch interface it carries ("" for the chip's "fabric")
    bool vlan = false;     // a VLAN device; otherwise a device of the chip or a VRF's TAP
    std::optional<std::uint32_t> mtu;
    std::string mac; // "" when the store's bridge MAC is not one
    std::uint16_t vlanId = 0;
    std::string parent;            // a VLAN device's lower device, always in the default namespace
    std::string qdisc;             // the root queueing discipline the restore adds, "" for none
    std::vector<std::string> ipv4; // canonical text, sorted: all of them and no others
    std::vector<std::string> ipv6;
};

struct ExpectedState {
    std::vector<std::string> namespaces; // the VRFs', sorted
    std::vector<ExpectedDevice> devices; // in the order the restore makes them
    std::string iptables;                // the stored rule texts
    std::string ip6tables;
};

// What a restore in which nothing fails makes of the store's model: the devices each platform
// makes (a Sand switch makes no LAG and no subinterface), each in its namespace. On a
// simulated switch the chip's bring-up loads nothing, so "fabric" gets no prio root there.
ExpectedState expectedState(const Config& config, bool simulatedSwitch);

// An address of the store as the kernel prints it ("2001:DB8::0:1/64" -> "2001:db8::1/64"),
// or "" when it is not one of the family (AF_INET, AF_INET6).
std::string canonicalAddress(const std::string& address, int family);

} // namespace Kestrune
