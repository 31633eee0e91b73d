#include "TapDriver.h"

#include "model/SubInterface.h"
#include "util/KernelName.h"
#include "util/Namespace.h"
#include "util/NetDevice.h"
#include "util/Utils.h"

#include <netinet/ether.h>

namespace Kestrune::Testing {

bool TapDriver::tap(const Interface* intf, const std::string& bridgeMac) {
    if (refused.count(intf->name()) != 0) {
        return false;
    }
    const std::string kernelName = kernelIntfName(intf->name());
    const ether_addr* mac = ether_aton(bridgeMac.c_str());
    return mac != nullptr && taps_.createIntf(kernelName, *mac, true, DEFAULT_NS) &&
           setDevUp(kernelName.c_str(), sockFd(DEFAULT_NS));
}

bool TapDriver::createL2Interface(const Interface* intf, const std::string& bridgeMac) {
    return tap(intf, bridgeMac);
}

bool TapDriver::createRoutedPortInterface(const Interface* intf, const std::string& bridgeMac) {
    return tap(intf, bridgeMac);
}

bool TapDriver::createLagInterface(const Interface* intf, const std::string& bridgeMac) {
    return tap(intf, bridgeMac);
}

bool TapDriver::createSubInterface(const Interface* intf, const std::string&) {
    if (refused.count(intf->name()) != 0) {
        return false;
    }
    const auto* sub = dynamic_cast<const SubInterface*>(intf);
    const std::string kernelName = kernelIntfName(intf->name());
    return sub != nullptr &&
           makeVlanDevice(kernelIntfName(parentIntfOfSubIntf(intf->name())), kernelName,
                          static_cast<int>(sub->encapVlan()), netlinkFd(DEFAULT_NS),
                          DEFAULT_NS) == 0 &&
           setDevUp(kernelName.c_str(), sockFd(DEFAULT_NS));
}

} // namespace Kestrune::Testing
