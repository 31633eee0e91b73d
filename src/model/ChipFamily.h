#pragma once

#include <cstdint>
#include <string_view>

namespace Kestrune {

// What each chip family is and makes, stated once: the parsers, the drivers, the plan, check
// and the chip simulator all read these.
enum class ChipFamily { strata, sand };

inline constexpr std::string_view strataPlatform = "Strata";
inline constexpr std::string_view sandPlatform = "Sand";

// The family of a store's platform type (exact, case-sensitive); false for any other type.
inline bool chipFamilyOf(std::string_view platformType, ChipFamily& family) {
    if (platformType == strataPlatform) {
        family = ChipFamily::strata;
        return true;
    }
    if (platformType == sandPlatform) {
        family = ChipFamily::sand;
        return true;
    }
    return false;
}

struct ChipFamilyFacts {
    ChipFamily family;
    std::string_view platform;
    // Whether the chip's driver makes a kernel device for a Port-Channel, and whether the
    // restore makes VLAN devices for subinterfaces over the ports (a Sand switch does neither).
    bool makesLags;
    bool makesSubinterfaces;
    // The root queueing discipline the bring-up gives each port's device, and the one it gives
    // "fabric" when it loads the chip's module ("" for none).
    std::string_view portQdisc;
    std::string_view fabricQdisc;
};

inline constexpr ChipFamilyFacts strataFacts{
    ChipFamily::strata, strataPlatform, true, true, "", "prio"};
inline constexpr ChipFamilyFacts sandFacts{
    ChipFamily::sand, sandPlatform, false, false, "prio", ""};

inline constexpr const ChipFamilyFacts& factsOf(ChipFamily family) {
    return family == ChipFamily::strata ? strataFacts : sandFacts;
}

// The MTU the chip gives its CPU devices (fabric, and a port's device until the restore sets
// its own): a VLAN device over one takes no larger MTU.
inline constexpr std::uint32_t chipDeviceMtu = 9216;
// The MTU a VRF's routed port's device keeps in the default namespace: the largest frames,
// whatever its copy inside the VRF carries.
inline constexpr std::uint32_t vrfPortChipMtu = 10240;
// The MTUs the kernel takes for an Ethernet device of the chip's and the VLAN devices over
// them: ETH_MIN_MTU, and ETH_MAX_MTU less the Ethernet header (the kernel caps TAP devices,
// which the simulated chip's ports are).
inline constexpr std::int32_t smallestDeviceMtu = 68;
inline constexpr std::int32_t largestDeviceMtu = 65535 - 14;
// The least MTU a device keeps IPv6 with.
inline constexpr std::uint32_t ipv6MinimumMtu = 1280;

} // namespace Kestrune
