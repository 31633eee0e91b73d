// The driver's steps after creation: placing devices in their VRF namespaces, their layer-3
// settings, and the filter rules.
#include "driver/Driver.h"
#include "util/Assert.h"
#include "util/Command.h"
#include "util/KernelName.h"
#include "util/Namespace.h"
#include "util/Netlink.h"
#include "util/Stop.h"
#include "util/Trace.h"
#include "util/Utils.h"

#include <array>
#include <cstdio>

namespace Kestrune {

bool Driver::isPlacedLayer3(const Interface& intf) const {
    const InterfaceType type = intf.interfaceType();
    return type != InterfaceType::L2_ && type != InterfaceType::Lag_ && created(intf.name());
}

void Driver::moveIntfsToCorrectNs() {
    TRACE(3) << "moveIntfsToCorrectNs";
    for (const auto& [name, intf] : config_->interface()) {
        if (!isPlacedLayer3(*intf)) {
            continue;
        }
        stopPoint();
        if (intf->netNsName().empty()) {
            std::fprintf(stderr, "Failed(%s) %s of type %s has invalid netNsName\n",
                         "itr->netNsName() != \"\"", name.c_str(),
                         std::string(stringValue(intf->interfaceType())).c_str());
            KESTRUNE_ASSERT_TEXT(false, "!\"itr->netNsName() != \\\"\\\"\"");
        }
        // A routed port is made anew in its namespace even when it is there: making it takes
        // its queue back, which its carrier needs.
        const bool moved = intf->interfaceType() == InterfaceType::SVI_ ||
                           intf->interfaceType() == InterfaceType::SubIntf_;
        if (intf->netNsName() == DEFAULT_NS || (moved && takeover_->inPlace(*this, *intf))) {
            continue;
        }
        TRACE(3) << "moveIntfsToCorrectNs"
                 << " Moving " << name << " to " << intf->netNsName();
        KESTRUNE_ASSERT_TEXT(vrfCreate_->doMoveIntfToNetNs(intf.get(), sockFd(DEFAULT_NS)),
                             "vrfCreate()->doMoveIntfToNetNs(itr, sockFd(DEFAULT_NS)) == true");
        stepSeen("move", *intf);
    }
}

void Driver::configureIntfsInNs() {
    TRACE(3) << "configureIntfsInNs";
    // Entering the namespace an interface's predecessor left the thread in would only cost
    // system calls, three per interface.
    NamespaceWalk walk;
    for (const auto& [name, intfPtr] : config_->interface()) {
        const Interface* intf = intfPtr.get();
        if (!isPlacedLayer3(*intf)) {
            continue;
        }
        stopPoint();
        KESTRUNE_ASSERT_TEXT(!intf->netNsName().empty(), "itr->netNsName() != \"\"");
        const NamespaceName ns(intf->netNsName());
        KESTRUNE_ASSERT_TEXT(walk.enter(ns) == 0, "switchToNs(itr->netNsName()) == 0");
        TRACE(3) << "configureIntfsInNs"
                 << " "
                 << " changing NS to " << ns;

        TRACE(3) << "configureIpv6"
                 << " " << name;
        const std::string kernelName = kernelIntfName(name);
        if (!intf->ipv6().empty()) {
            sysIpv6Disable(kernelName.c_str(), 0);
        } else {
            sysIpv6Forwarding(kernelName.c_str(), 0);
        }
        configureMtu(intf, sockFd(ns));
        addIpAddresses(intf, netlinkFd(ns),
                       takeover_->replacesAddresses() ? AddressThere::replaced
                                                      : AddressThere::refused);
        if (!setDevUp(kernelName.c_str(), sockFd(ns))) {
            TRACE(0) << "Unable to set devstat UP for " << kernelName;
            eventIs("Unable to set devstat UP for " + kernelName);
        }
        stepSeen("configure", *intf);
    }
    KESTRUNE_ASSERT_TEXT(switchToNs(DEFAULT_NS) == 0, "switchToNs(DEFAULT_NS) == 0");
    sysGlobalIpv6Forwarding(1);
}

void Driver::configureMtu(const Interface* intf, int sockFd) const {
    TRACE(3) << "configureMtu"
             << " " << intf->name() << " to " << intf->mtu();
    const std::string kernelName = kernelIntfName(intf->name());
    if (!setMtu(kernelName.c_str(), static_cast<unsigned>(intf->mtu()), sockFd)) {
        TRACE(0) << "Unable to set MTU for " << kernelName;
        eventIs("Unable to set MTU for " + kernelName);
    }
}

void Driver::addIpAddresses(const Interface* intf, int netlinkFd) {
    addIpAddresses(intf, netlinkFd, AddressThere::refused);
}

void Driver::addIpAddresses(const Interface* intf, int netlinkFd, AddressThere there) {
    TRACE(3) << "addIpAddresses"
             << " " << intf->name();
    const std::string kernelName = kernelIntfName(intf->name());
    const auto added = [&](const std::string& address, bool ok) {
        if (!ok) {
            TRACE(0) << "Unable to add " << address << " to " << kernelName;
            eventIs("Unable to add " + address + " to " + kernelName);
        }
    };
    if (!intf->primaryIpv4().empty()) {
        added(intf->primaryIpv4(),
              ipAddrAdd(netlinkFd, kernelName, intf->primaryIpv4(), false, there));
    }
    for (const auto& [address, flag] : intf->secondaryIpv4()) {
        added(address, ipAddrAdd(netlinkFd, kernelName, address, true, there));
    }
    for (const auto& [address, flag] : intf->ipv6()) {
        added(address, ip6AddrAdd(netlinkFd, kernelName, address, there));
    }
}

void Driver::configureIptablesRules() {
    TRACE(0) << "configureIptablesRules"
             << " Adding iptables rules";
    struct RestoreCommand {
        std::string command;
        const std::string& rules;
    };
    static const std::string none;
    const IptablesConfig* iptables = config_->iptablesConfig().get();
    const std::array<RestoreCommand, 2> restoreCmds{{
        {takeover_->filterRestoreCommand("iptables-restore"),
         iptables != nullptr ? iptables->iptables() : none},
        {takeover_->filterRestoreCommand("ip6tables-restore"),
         iptables != nullptr ? iptables->ip6tables() : none},
    }};
    for (const RestoreCommand& restore : restoreCmds) {
        stopPoint();
        TRACE(0) << "configureIptablesRules"
                 << " " << restore.command;
        CommandInput pipe(restore.command);
        if (!pipe.started()) {
            TRACE(0) << "void Kestrune::Driver::configureIptablesRules()"
                     << ": popen for cmd " << restore.command << " failed";
            eventIs("popen for cmd " + restore.command + " failed");
            continue;
        }
        const std::size_t numBytesWritten = pipe.write(restore.rules);
        KESTRUNE_ASSERT_TEXT(numBytesWritten == restore.rules.size(),
                             "numBytesWritten == restoreCmds[ i ].rules.bytes()");
        const int retVal = pipe.close();
        KESTRUNE_ASSERT(retVal != -1);
    }
}

} // namespace Kestrune
