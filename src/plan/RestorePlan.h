#pragma once

#include "model/ChipFamily.h"
#include "model/Config.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace Kestrune {

// Why the restore makes no device for an interface the store has.
enum class NotMade {
    no,            // it is made
    bridgeMac,     // the store's bridge MAC is no unicast address: the restore makes nothing
    kernelName,    // its name is no kernel device name
    family,        // the chip family makes none (a Sand switch: LAGs, subinterfaces)
    noFapDevice,   // a Sand port names a device the Sand section does not have
    vlanIdRange,   // its VLAN id is outside 1 to 4094 (or, with no guard, the kernel's range)
    noDot,         // a subinterface whose name has no ".": the restore ends on it
    parentNotMade, // a subinterface whose parent interface has no device
    vlanTaken,     // another VLAN device has its VLAN id on the same lower device
    nameTaken,     // another device has its kernel name in the namespace it is made in
};

// One kernel device a restore of the store makes, with what the store fixes about it. What
// the chip's own driver decides (a port's MTU, its queueing discipline but for the prio ones
// the restore adds) is not part of it.
struct PlannedDevice {
    std::string ns;        // the namespace it ends in
    std::string name;      // the kernel device name
    std::string interface; // the switch interface it carries ("" for the chip's "fabric")
    bool vlan = false;     // a VLAN device; otherwise a device of the chip or a VRF's TAP
    std::optional<std::uint32_t> mtu;
    std::string mac; // "" when the store's bridge MAC is not one
    std::uint16_t vlanId = 0;
    std::string parent; // a VLAN device's lower device, always in the default namespace
    // A VLAN device's lower device's MTU when the restore sets the VLAN device's own: it takes
    // no larger one.
    std::uint32_t lowerMtu = 0;
    std::string qdisc;             // the root queueing discipline the restore adds, "" for none
    std::vector<std::string> ipv4; // canonical text, sorted: all of them and no others
    std::vector<std::string> ipv6;
    NotMade notMade = NotMade::no;
    std::string whyNot; // for a device not made: the other interface or value it fails on
};

// What a restore in which nothing the chip or the kernel does fails makes of the store's
// model: every device in the order the restore makes it, each in its namespace, and where an
// interface gets no device, an entry saying why. verify compares the kernel with it, check
// says what it leaves out, and a resumed restore takes over only what it describes.
struct RestorePlan {
    ChipFamily family = ChipFamily::strata;
    std::vector<std::string> namespaces; // the VRFs', sorted
    std::vector<PlannedDevice> devices;  // made or not, in the order the restore comes to them
    std::string iptables;                // the stored rule texts
    std::string ip6tables;
    // Where each interface's entries are in `devices`.
    std::map<std::string, std::vector<std::size_t>> byInterface;

    // The device the restore makes for the interface in the namespace, or that it would make
    // with the reason it does not; null when the plan has none there.
    const PlannedDevice* deviceOf(const std::string& interface, const std::string& ns) const;
    // The first entry for the interface (a VRF's routed port has two: its chip device in the
    // default namespace, and its TAP in the VRF); null for none.
    const PlannedDevice* firstOf(const std::string& interface) const;
};

// `valueRanges` is the guard of that name: without it, a VLAN id is cut to 16 bits as the
// sequence's field does. On a simulated switch the chip's bring-up loads nothing, so "fabric"
// gets no prio root there.
RestorePlan restorePlan(const Config& config, bool simulatedSwitch, bool valueRanges);

// An address of the store as the kernel prints it ("2001:DB8::0:1/64" -> "2001:db8::1/64"),
// or "" when it is not one of the family (AF_INET, AF_INET6).
std::string canonicalAddress(const std::string& address, int family);

} // namespace Kestrune
