#pragma once

#include "driver/NamespaceName.h"
#include "driver/Placement.h"
#include "driver/Takeover.h"
#include "driver/ZelVrfCreate.h"
#include "model/Config.h"
#include "model/Interface.h"
#include "plan/RestorePlan.h"
#include "util/Namespace.h"
#include "util/Netlink.h"
#include "util/Utils.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>

namespace Kestrune {

// The platform-independent half of the restore: the sockets of every namespace, the record of
// which kernel devices were created, and the sequence that makes, places and configures them.
// A platform driver brings its chip up in doInit and makes the devices of ports, LAGs and
// subinterfaces in the four creation operations.
class Driver {
  public:
    using Ptr = std::shared_ptr<Driver>;
    using PtrConst = std::shared_ptr<const Driver>;
    using FdMap = std::map<NamespaceName, int>;
    using CreatedMap = std::map<std::string, bool>;

    explicit Driver(Config::PtrConst config) : config_(std::move(config)) {}
    virtual ~Driver() = default;
    Driver(const Driver&) = delete;
    Driver& operator=(const Driver&) = delete;

    const Config::PtrConst& config() const { return config_; }

    // A namespace without a descriptor reads as 0, an interface never tried as false.
    const FdMap& sockFd() const { return sockFd_; }
    int sockFd(const NamespaceName& ns) const;
    void sockFdIs(const NamespaceName& ns, int fd) { sockFd_[ns] = fd; }
    void sockFdDel(const NamespaceName& ns) { sockFd_.erase(ns); }
    void sockFdDelAll() { sockFd_.clear(); }
    void sockFdNotify(const NamespaceName&) {}

    const FdMap& netlinkFd() const { return netlinkFd_; }
    int netlinkFd(const NamespaceName& ns) const;
    void netlinkFdIs(const NamespaceName& ns, int fd) { netlinkFd_[ns] = fd; }
    void netlinkFdDel(const NamespaceName& ns) { netlinkFd_.erase(ns); }
    void netlinkFdDelAll() { netlinkFd_.clear(); }
    void netlinkFdNotify(const NamespaceName&) {}

    const CreatedMap& created() const { return created_; }
    bool created(const std::string& name) const;
    void createdIs(const std::string& name, bool flag) { created_[name] = flag; }
    void createdDel(const std::string& name) { created_.erase(name); }
    void createdDelAll() { created_.clear(); }
    void createdNotify(const std::string&) {}

    // Finishing a restore that was interrupted (Takeover): off by default, as a plain restore
    // does exactly its sequence.
    bool resume() const { return takeover_->resumes(); }
    void resumeIs(bool resume) { takeover_ = takeoverFor(resume); }
    RestoreOrder order() const { return placement_->order(); }
    void orderIs(RestoreOrder order) { placement_ = placementFor(order); }
    const Placement& placement() const { return *placement_; }
    // The filter rules restored before any device is made (their tools then run against no
    // addresses, and no address is up unfiltered) instead of last, as the sequence has them.
    bool filterRulesFirst() const { return filterRulesFirst_; }
    void filterRulesFirstIs(bool first) { filterRulesFirst_ = first; }

    // Interfaces whose device was found in place, with the namespace it was found in.
    const std::map<std::string, std::string>& found() const { return takeover_->found(); }
    // What the restore makes, as the plan has it; made when first asked. Only its VLAN
    // devices are read, which the chip's bring-up does not change.
    const RestorePlan& plan();

    const ZelVrfCreate::Ptr& vrfCreate() const { return vrfCreate_; }
    void vrfCreateIs() { vrfCreate_ = zelVrfCreateFactory(); }
    void vrfCreateDel() { vrfCreate_.reset(); }

    // Creates the VRF namespaces and opens a socket and a netlink socket inside each of them
    // and inside the default one. A platform driver calls it before its chip bring-up.
    virtual bool doInit();
    // The restore: create every device in the default namespace, move the VRF members, give
    // them MTUs, addresses and the up flag, restore the filter rules.
    void doCreateKernelInterfaces();
    // The same steps, each run by `around` under its name ("filterRules", "create", "move",
    // "configure"), which calls the step it is given: the command line times them so.
    using StepRunner = std::function<void(const char* step, const std::function<void()>& run)>;
    void doCreateKernelInterfaces(const StepRunner& around);
    // Told as each interface is through a step ("create", "move", "configure"), whether it
    // succeeded or not: the command line notes when, for its report. Unset, nothing is told.
    using DeviceStepSeen = std::function<void(const char* step, const Interface& intf)>;
    void deviceStepSeenIs(DeviceStepSeen seen) { deviceStepSeen_ = std::move(seen); }

    void createIntfsInDefaultNs();
    void moveIntfsToCorrectNs();
    void configureMtu(const Interface* intf, int sockFd) const;
    void configureIntfsInNs();
    void configureIptablesRules();

    // The platform's device of each kind; true when the kernel device now exists. The base
    // versions end the process: a platform driver must override all four.
    virtual bool createL2Interface(const Interface* intf, const std::string& bridgeMac);
    virtual bool createRoutedPortInterface(const Interface* intf, const std::string& bridgeMac);
    virtual bool createSubInterface(const Interface* intf, const std::string& bridgeMac);
    virtual bool createLagInterface(const Interface* intf, const std::string& bridgeMac);
    // The fabric command that makes a port's or LAG's chip device, which the chip keeps as
    // its record of the device (the device's alias); "" where the platform has none.
    virtual std::string chipDeviceCommand(const Interface& intf) const;

    static bool createVlanInterface(const Interface* intf, int netlinkFd, int sockFd);
    static void addIpAddresses(const Interface* intf, int netlinkFd);
    static void addIpAddresses(const Interface* intf, int netlinkFd, AddressThere there);
    static void eventIs(const std::string& message);

  protected:
    // Makes the VLAN device `kernelName` of an SVI or subinterface on `parent`, a device of
    // the default namespace, where the order places it. Returns 0 or the negative errno, and
    // the namespace it is in.
    int makeLayer3VlanDevice(const Interface& intf, std::string_view parent,
                             const std::string& kernelName, std::uint16_t vlan,
                             NamespaceName& madeIn);

  private:
    // An SVI's device, made where the order places it.
    bool createSviDevice(const Interface* intf);
    // createVlanInterface's steps with the device made by `make`, which changes sockFd to a
    // socket of the namespace it made it in.
    static bool createVlanInterfaceWith(
        const Interface* intf, int sockFd,
        const std::function<int(const std::string& kernelName, std::uint16_t vlan, int& sockFd)>&
            make);
    // The end of a creation: traced, recorded when it failed, and noted in `created`.
    void createdWith(const Interface& intf, bool made);
    // Raises the process's descriptor limit to what the sockets of this many namespaces and
    // the queues of the devices need, within the hard limit; with the descriptor guard, past
    // it too, ending the process with a recorded message saying how many when it cannot.
    void doRaiseDescriptorLimit(std::size_t namespaces);
    // Finishes a chip device taken over: its MTU, MAC, up flag and operational state, which
    // the restore that made it may not have reached.
    void doFinishTakenOver(const Interface& intf, const std::string& bridgeMac);
    // Interfaces that get a namespace and layer-3 settings: created, and not L2 or Lag.
    bool isPlacedLayer3(const Interface& intf) const;

    // Tells deviceStepSeen_, when set.
    void stepSeen(const char* step, const Interface& intf) const {
        if (deviceStepSeen_) {
            deviceStepSeen_(step, intf);
        }
    }

    Config::PtrConst config_;
    FdMap sockFd_;
    FdMap netlinkFd_;
    CreatedMap created_;
    ZelVrfCreate::Ptr vrfCreate_;
    bool filterRulesFirst_ = false;
    DeviceStepSeen deviceStepSeen_;
    std::unique_ptr<Placement> placement_ = placementFor(RestoreOrder::library);
    std::unique_ptr<Takeover> takeover_ = takeoverFor(false);
    std::optional<RestorePlan> plan_;
};

Driver::Ptr driverFactory(const Config::PtrConst& config);

} // namespace Kestrune
