#pragma once

#include "model/ChipFamily.h"
#include "model/Config.h"
#include "model/Interface.h"
#include "util/EthIoctlUtil.h"

#include <map>
#include <memory>
#include <set>
#include <string>

namespace Kestrune {

// Turns the VRFs of the restored configuration into network namespaces, one for each distinct
// non-default `netNsName` of an interface, and later puts each VRF member's device into its
// namespace.
class ZelVrfCreate {
  public:
    using Ptr = std::shared_ptr<ZelVrfCreate>;
    using PtrConst = std::shared_ptr<const ZelVrfCreate>;
    using NameSet = std::map<std::string, bool>;

    ZelVrfCreate() = default;
    virtual ~ZelVrfCreate() = default;
    ZelVrfCreate(const ZelVrfCreate&) = delete;
    ZelVrfCreate& operator=(const ZelVrfCreate&) = delete;

    const NameSet& netNsName() const { return netNsName_; }
    bool netNsName(const std::string& name) const { return netNsName_.count(name) != 0; }
    void netNsNameIs(const std::string& name, bool flag) { netNsName_[name] = flag; }
    void netNsNameDel(const std::string& name) { netNsName_.erase(name); }
    void netNsNameDelAll() { netNsName_.clear(); }
    void netNsNameNotify(const std::string&) {}

    const Config::PtrConst& config() const { return config_; }
    void configIs(const Config::PtrConst& config) { config_ = config; }

    const EthIoctlUtil::Ptr& ioctlUtil() const { return ioctlUtil_; }
    void ioctlUtilIs() { ioctlUtil_ = std::make_shared<EthIoctlUtil>(); }
    void ioctlUtilDel() { ioctlUtil_.reset(); }

    // Kernel devices of SVIs and subinterfaces that were made inside their namespace: their
    // move finds them there and has nothing to do.
    bool madeInPlace(const std::string& kernelName) const {
        return madeInPlace_.count(kernelName) != 0;
    }
    void madeInPlaceIs(const std::string& kernelName) { madeInPlace_.insert(kernelName); }

    void doInit(const Config::PtrConst& config);
    void doCreateVrfs();
    // Puts the interface's device into its namespace: an SVI's or subinterface's device is
    // moved; a routed port's is made anew inside it. sockFd is the default namespace's socket.
    bool doMoveIntfToNetNs(const Interface* intf, int sockFd);
    void eventIs(const std::string& message) const;

  private:
    NameSet netNsName_;
    Config::PtrConst config_;
    EthIoctlUtil::Ptr ioctlUtil_;
    std::set<std::string> madeInPlace_;
};

ZelVrfCreate::Ptr zelVrfCreateFactory();

} // namespace Kestrune
