#pragma once

#include <cstdint>
#include <string>
#include <string_view>

// The kernel device name of a switch interface name: "Ethernet1/2" -> "et1_2",
// "Port-Channel5" -> "po5", "Vlan10" -> "vlan10", "Management1" -> "ma1", a subinterface keeps
// its ".N" ("Ethernet1/1.100" -> "et1_1.100"), anything else is lower-cased with "/" -> "_".
// With the kernel-name guard (RestoreGuards::kernelNames), the empty string when the result
// could not be a kernel device name (see below), so such a name never reaches a device or a
// command line; without it, the kernel and the chip refuse what they refuse.
std::string kernelIntfName(std::string_view name);

namespace Kestrune {

// What the kernel accepts as a device name and keeps as given: 1 to 15 bytes, not "." or
// "..", no "/", ":", blank or control character, and no "%" (which makes it a template).
bool isKernelDeviceName(std::string_view name);

// A VLAN id a VLAN device can carry: 1 to 4094 (0 tags priority only, 4095 is reserved).
// Ids arrive as the store's 32-bit fields; shown signed, as the store wrote them.
constexpr bool isVlanId(std::uint32_t id) {
    return id >= 1 && id <= 4094;
}
std::string vlanIdProblem(std::uint32_t id);

} // namespace Kestrune
