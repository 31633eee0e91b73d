#include "driver/ZelVrfCreate.h"

#include "driver/NamespaceName.h"
#include "log/Log.h"
#include "util/Assert.h"
#include "util/KernelName.h"
#include "util/Namespace.h"
#include "util/Trace.h"
#include "util/Utils.h"

#include <cstdio>
#include <netinet/ether.h>

namespace Kestrune {
namespace {

// The bridge MAC as an Ethernet address; text that is not one gives all zeros.
ether_addr bridgeMacOf(const Config& config) {
    ether_addr mac{};
    if (const ether_addr* parsed = ether_aton(config.bridgeMac().c_str())) {
        mac = *parsed;
    }
    return mac;
}

} // namespace

void ZelVrfCreate::doInit(const Config::PtrConst& config) {
    TRACE(3) << "void Kestrune::ZelVrfCreate::doInit(const PtrConst&)";
    ioctlUtilIs();
    if (config_ != config) {
        config_ = config;
    }
    doCreateVrfs();
}

void ZelVrfCreate::doCreateVrfs() {
    TRACE(3) << "void Kestrune::ZelVrfCreate::doCreateVrfs()";
    TRACE(3) << "doCreateVrfs"
             << " bridgeMac " << macText(bridgeMacOf(*config_));
    for (const auto& [name, intf] : config_->interface()) {
        const std::string& ns = intf->netNsName();
        if (ns == DEFAULT_NS || ns.empty()) {
            continue;
        }
        netNsNameIs(ns, true);
        TRACE(9) << "doCreateVrfs"
                 << " " << ns << " added to collection for " << name;
    }
    TRACE(3) << "doCreateVrfs"
             << " Mounting default Namespace";
    mountDefaultNs();
    for (const auto& [ns, flag] : netNsName_) {
        TRACE(0) << "doCreateVrfs"
                 << " creating Namespace " << ns;
        addNsEvenIfPresent(ns);
    }
    KESTRUNE_ASSERT_TEXT(switchToNs(DEFAULT_NS) == 0,
                         "switchToNs(DEFAULT_NS) == 0 && \"setns to default namespace failed\"");
}

bool ZelVrfCreate::doMoveIntfToNetNs(const Interface* intf, int sockFd) {
    const std::string kernelName = kernelIntfName(intf->name());
    const NamespaceName destination(intf->netNsName());
    TRACE(3) << "doMoveIntfToNetNs"
             << " Moving " << kernelName << " to " << destination;
    switch (intf->interfaceType()) {
    case InterfaceType::SVI_:
    case InterfaceType::SubIntf_:
        KESTRUNE_ASSERT_TEXT(madeInPlace(kernelName) ||
                                 moveIntfToNs(kernelName, DEFAULT_NS, destination) == 0,
                             "moveIntfToNs(kernelName, DEFAULT_NS, destination) == 0");
        return true;
    case InterfaceType::RoutedPort_:
    case InterfaceType::LagRouted_:
        ioctlUtil_->createIntf(kernelName, bridgeMacOf(*config_), true, destination);
        if (!setMtu(kernelName.c_str(), static_cast<unsigned>(vrfPortChipMtu), sockFd)) {
            TRACE(0) << "Unable to set MTU of " << kernelName << " to " << vrfPortChipMtu;
            eventIs("Unable to set MTU of " + kernelName + " to " + std::to_string(vrfPortChipMtu));
        }
        return true;
    default:
        std::fprintf(stderr, "Failed(%s) Trying to move %s of type %s to %s\n", "false",
                     intf->name().c_str(), std::string(stringValue(intf->interfaceType())).c_str(),
                     destination.text().c_str());
        KESTRUNE_ASSERT_TEXT(false, "!\"false\"");
        return false;
    }
}

void ZelVrfCreate::eventIs(const std::string& message) const {
    Log::logEvent("ZelVrfCreate", message);
}

ZelVrfCreate::Ptr zelVrfCreateFactory() {
    return std::make_shared<ZelVrfCreate>();
}

} // namespace Kestrune
