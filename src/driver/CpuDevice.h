#pragma once

#include <string>

namespace Kestrune {

// The steps both platform drivers take once the chip has made a CPU device. Each returns ""
// when every step took, else the failure's text for the driver to trace and record under its
// own name.

// The "fabric" device: the bridge MAC, then admin up.
std::string fabricDeviceUp(const std::string& bridgeMac, int sockFd);
// A port's or LAG's device k: its MAC, admin up, then oper up.
std::string cpuDeviceUp(const std::string& k, const std::string& mac, int sockFd, int netlinkFd);

} // namespace Kestrune
