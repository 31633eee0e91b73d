#pragma once

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

// What the kernel accepts as a device name: 1 to 15 bytes, not "." or "..", no "/", ":",
// blank or control character.
bool isKernelDeviceName(std::string_view name);

} // namespace Kestrune
