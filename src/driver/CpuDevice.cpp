#include "driver/CpuDevice.h"

#include "util/Utils.h"

namespace Kestrune {

std::string fabricDeviceUp(const std::string& bridgeMac, int sockFd) {
    if (!setMacAddress("fabric", bridgeMac.c_str(), sockFd)) {
        return "Unable to set fabric MAC address";
    }
    if (!setDevUp("fabric", sockFd)) {
        return "Unable to set fabric device state to Up";
    }
    return {};
}

std::string cpuDeviceUp(const std::string& k, const std::string& mac, int sockFd, int netlinkFd) {
    if (!setMacAddress(k.c_str(), mac.c_str(), sockFd)) {
        return "Couldn't set MAC address for " + k;
    }
    if (!setDevUp(k.c_str(), sockFd)) {
        return "Couldn't set Device state UP for " + k;
    }
    if (setDeviceOperStatusUp(netlinkFd, k) == 0) {
        return "Couldn't set Oper state UP for " + k;
    }
    return {};
}

} // namespace Kestrune
