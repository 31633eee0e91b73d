#include "driver/Driver.h"

#include "driver/CpuDevice.h"
#include "log/Log.h"
#include "model/VlanInterface.h"
#include "util/Assert.h"
#include "util/KernelName.h"
#include "util/Namespace.h"
#include "util/NetDevice.h"
#include "util/RestoreGuards.h"
#include "util/Stop.h"
#include "util/Trace.h"
#include "util/Utils.h"

#include <algorithm>
#include <cerrno>
#include <linux/if.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>

namespace Kestrune {

namespace {

template <class Map, class Key>
auto valueOr(const Map& map, const Key& key, typename Map::mapped_type absent) {
    const auto found = map.find(key);
    return found == map.end() ? absent : found->second;
}

// Pass 1 makes ports, pass 2 LAGs, pass 3 what sits on them (subinterfaces) or on "fabric"
// (SVIs): every parent exists before its children are tried.
int passOf(InterfaceType type) {
    switch (type) {
    case InterfaceType::L2_:
    case InterfaceType::RoutedPort_:
        return 1;
    case InterfaceType::Lag_:
    case InterfaceType::LagRouted_:
        return 2;
    default:
        return 3;
    }
}

} // namespace

int Driver::sockFd(const NamespaceName& ns) const {
    return valueOr(sockFd_, ns, 0);
}

int Driver::netlinkFd(const NamespaceName& ns) const {
    return valueOr(netlinkFd_, ns, 0);
}

bool Driver::created(const std::string& name) const {
    return valueOr(created_, name, false);
}

bool Driver::doInit() {
    TRACE(3) << "Driver::"
             << "doInit";
    vrfCreateIs();
    vrfCreate_->doInit(config_);
    doRaiseDescriptorLimit(vrfCreate_->netNsName().size() + 1);
    // Each namespace is entered once for both of its sockets, the default one last, so the
    // thread ends where it started; a socket opened inside a namespace stays in it.
    NamespaceWalk walk("openSocketInNs");
    const auto openSockets = [&](const NamespaceName& ns) {
        const bool inside = walk.enter(ns) == 0;
        sockFdIs(ns, inside ? socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0) : -1);
        netlinkFdIs(ns, inside ? socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, 0) : -1);
    };
    for (const auto& [name, flag] : vrfCreate_->netNsName()) {
        openSockets(NamespaceName(name));
    }
    openSockets(DEFAULT_NS);
    KESTRUNE_ASSERT_TEXT(walk.enter(DEFAULT_NS) == 0, "switchToNs(DEFAULT_NS) == 0");
    return true;
}

void Driver::doRaiseDescriptorLimit(std::size_t namespaces) {
    // Five descriptors a namespace stay open: the driver's two sockets, the socket and the
    // namespace file its TAP devices are made with, and the namespace file configure enters
    // it by. A device made as a TAP keeps its queue open: up to two an interface (a routed
    // port in a VRF is made there again; on a simulated chip every port is a TAP too). The
    // chip's devices, the history, the commands' pipes and the namespace files opened on the
    // way need the margin. On a switch the chip's driver holds the ports' devices, so far
    // fewer are needed: without the guard, a limit that cannot be raised is left as it is.
    constexpr rlim_t margin = 128;
    const std::size_t interfaces = config_->interface().size();
    const rlim_t needed = 5 * static_cast<rlim_t>(namespaces) + 2 * interfaces + margin;
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_cur >= needed) {
        return;
    }
    const bool guarded = restoreGuards().descriptorLimit;
    if (!guarded) {
        // Within the hard limit the raise changes nothing that anyone sees.
        if (limit.rlim_cur < limit.rlim_max) {
            rlimit raised{std::min(needed, limit.rlim_max), limit.rlim_max};
            setrlimit(RLIMIT_NOFILE, &raised);
        }
        return;
    }
    rlimit raised{needed, std::max(limit.rlim_max, needed)};
    if (setrlimit(RLIMIT_NOFILE, &raised) == 0) {
        TRACE_EXTRA(3) << "doInit descriptor limit raised from " << limit.rlim_cur << " to "
                       << needed;
        return;
    }
    const std::string text = "doInit needs " + std::to_string(needed) + " descriptors for " +
                             std::to_string(namespaces) + " namespaces and " +
                             std::to_string(interfaces) + " interfaces; the limit is " +
                             std::to_string(limit.rlim_cur) + " and cannot be raised";
    TRACE(0) << text;
    eventIs(text);
    KESTRUNE_ASSERT_TEXT(false, "enough descriptors for every namespace's sockets");
}

void Driver::doCreateKernelInterfaces() {
    doCreateKernelInterfaces([](const char*, const std::function<void()>& run) { run(); });
}

void Driver::doCreateKernelInterfaces(const StepRunner& around) {
    TRACE(3) << "doCreateKernelInterfaces";
    const auto filterRules = [&] { around("filterRules", [this] { configureIptablesRules(); }); };
    if (filterRulesFirst_) {
        filterRules();
    }
    around("create", [this] { createIntfsInDefaultNs(); });
    around("move", [this] { moveIntfsToCorrectNs(); });
    around("configure", [this] { configureIntfsInNs(); });
    if (!filterRulesFirst_) {
        filterRules();
    }
}

void Driver::createdWith(const Interface& intf, bool made) {
    if (made) {
        TRACE(0) << "Created Kernel interface for " << intf.name();
    } else {
        TRACE(0) << "Unable to create Kernel interface for " << intf.name();
        eventIs("Unable to create Kernel interface for " + intf.name());
    }
    createdIs(intf.name(), made);
}

void Driver::createIntfsInDefaultNs() {
    TRACE(3) << "createIntfsInDefaultNs";
    const std::string& bridgeMac = config_->bridgeMac();
    for (int pass = 1; pass <= 3; ++pass) {
        for (const auto& [name, intfPtr] : config_->interface()) {
            const Interface* intf = intfPtr.get();
            const InterfaceType type = intf->interfaceType();
            if (passOf(type) != pass) {
                continue;
            }
            stopPoint();
            if (takeover_->takenOver(*this, *intf)) {
                doFinishTakenOver(*intf, bridgeMac);
                stepSeen("create", *intf);
                continue;
            }
            switch (type) {
            case InterfaceType::L2_:
                createdWith(*intf, createL2Interface(intf, bridgeMac));
                break;
            case InterfaceType::RoutedPort_:
                createdWith(*intf, createRoutedPortInterface(intf, bridgeMac));
                break;
            case InterfaceType::Lag_:
            case InterfaceType::LagRouted_:
                createdWith(*intf, createLagInterface(intf, bridgeMac));
                break;
            case InterfaceType::SubIntf_:
                if (!created(parentIntfOfSubIntf(name))) {
                    TRACE(0) << "Skipping creation of " << name
                             << " due to missing parent interface";
                    eventIs("Skipping creation of " + name + " due to missing parent interface");
                    createdWith(*intf, false);
                } else {
                    createdWith(*intf, createSubInterface(intf, bridgeMac));
                }
                break;
            case InterfaceType::SVI_:
                createdWith(*intf, createSviDevice(intf));
                break;
            default: // None, or a value past the last type
                KESTRUNE_ASSERT(false);
            }
            stepSeen("create", *intf);
        }
    }
}

bool Driver::createVlanInterface(const Interface* intf, int netlinkFd, int sockFd) {
    return createVlanInterfaceWith(
        intf, sockFd, [&](const std::string& k, std::uint16_t vlan, int&) {
            return makeVlanDevice("fabric", k, vlan, netlinkFd, DEFAULT_NS);
        });
}

bool Driver::createSviDevice(const Interface* intf) {
    return createVlanInterfaceWith(
        intf, sockFd(DEFAULT_NS), [&](const std::string& k, std::uint16_t vlan, int& socket) {
            NamespaceName madeIn(DEFAULT_NS);
            const int made = makeLayer3VlanDevice(*intf, "fabric", k, vlan, madeIn);
            socket = sockFd(madeIn);
            return made;
        });
}

bool Driver::createVlanInterfaceWith(
    const Interface* intf, int sockFd,
    const std::function<int(const std::string& kernelName, std::uint16_t vlan, int& sockFd)>&
        make) {
    TRACE(3) << "createVlanInterface"
             << " " << intf->name();
    KESTRUNE_ASSERT(intf->interfaceType() == InterfaceType::SVI_);
    const auto* vlanIntf = dynamic_cast<const VlanInterface*>(intf);
    KESTRUNE_ASSERT(vlanIntf != nullptr);
    const auto vlan = static_cast<std::uint16_t>(vlanIntf->vlan());
    const std::string kernelName = kernelIntfName(intf->name());
    if (kernelName.empty()) {
        TRACE(0) << "Unable to create SVI " << intf->name() << ": not a kernel device name";
        eventIs("Unable to create SVI " + intf->name() + ": not a kernel device name");
        return false;
    }
    if (restoreGuards().valueRanges && !isVlanId(vlanIntf->vlan())) {
        const std::string problem = vlanIdProblem(vlanIntf->vlan());
        TRACE(0) << "Unable to create SVI " << intf->name() << ": " << problem;
        eventIs("Unable to create SVI " + intf->name() + ": " + problem);
        return false;
    }
    if (make(kernelName, vlan, sockFd) != 0) {
        TRACE(0) << "Unable to create SVI " << kernelName;
        eventIs("Unable to create SVI " + kernelName);
        return false;
    }
    if (!setDevUp(kernelName.c_str(), sockFd)) {
        TRACE(0) << "Unable to set devstat UP for " << kernelName;
        eventIs("Unable to set devstat UP for " + kernelName);
        return false;
    }
    return true;
}

int Driver::makeLayer3VlanDevice(const Interface& intf, std::string_view parent,
                                 const std::string& kernelName, std::uint16_t vlan,
                                 NamespaceName& madeIn) {
    return placement_->vlanDeviceMade(*this, intf, parent, kernelName, vlan, madeIn);
}

const RestorePlan& Driver::plan() {
    if (!plan_) {
        plan_ = restorePlan(*config_, false, restoreGuards().valueRanges);
    }
    return *plan_;
}

void Driver::doFinishTakenOver(const Interface& intf, const std::string& bridgeMac) {
    const InterfaceType type = intf.interfaceType();
    if (type == InterfaceType::SubIntf_ || type == InterfaceType::SVI_) {
        return;
    }
    // The restore that made it may have ended before its MAC, its up flag or its operational
    // state: each is set again, as none changes a device that has it.
    const std::string kernelName = kernelIntfName(intf.name());
    placement_->chipDeviceMade(*this, intf, kernelName);
    if (const std::string failure =
            cpuDeviceUp(kernelName, bridgeMac, sockFd(DEFAULT_NS), netlinkFd(DEFAULT_NS));
        !failure.empty()) {
        TRACE(0) << failure;
        eventIs(failure);
        createdWith(intf, false);
    }
}

std::string Driver::chipDeviceCommand(const Interface&) const {
    return {};
}

bool Driver::createL2Interface(const Interface*, const std::string&) {
    KESTRUNE_ASSERT_TEXT(false, "false && \"This method should be overriden\"");
    return false;
}

bool Driver::createRoutedPortInterface(const Interface*, const std::string&) {
    KESTRUNE_ASSERT_TEXT(false, "false && \"This method should be overriden\"");
    return false;
}

bool Driver::createSubInterface(const Interface*, const std::string&) {
    KESTRUNE_ASSERT_TEXT(false, "false && \"This method should be overriden\"");
    return false;
}

bool Driver::createLagInterface(const Interface*, const std::string&) {
    KESTRUNE_ASSERT_TEXT(false, "false && \"This method should be overriden\"");
    return false;
}

void Driver::eventIs(const std::string& message) {
    Log::logEvent("Driver", message);
}

Driver::Ptr driverFactory(const Config::PtrConst& config) {
    return std::make_shared<Driver>(config);
}

} // namespace Kestrune
