#pragma once

#include "model/RoutedPortInterface.h"

namespace Kestrune {

// A front-panel port of a Sand switch with its system port and the FAP it sits on.
class SandInterface : public RoutedPortInterface {
  public:
    using Ptr = std::shared_ptr<SandInterface>;
    using PtrConst = std::shared_ptr<const SandInterface>;

    using RoutedPortInterface::RoutedPortInterface;

    std::uint32_t nativeVlan() const { return nativeVlan_; }
    void nativeVlanIs(std::uint32_t vlan) { nativeVlan_ = vlan; }

    std::uint32_t systemPhyPortId() const { return systemPhyPortId_; }
    void systemPhyPortIdIs(std::uint32_t id) { systemPhyPortId_ = id; }

    std::uint32_t trafficClass() const { return trafficClass_; }
    void trafficClassIs(std::uint32_t trafficClass) { trafficClass_ = trafficClass; }

    // A number, not a flag: the agents store the tunnel mode's value.
    std::uint32_t dot1qTunnel() const { return dot1qTunnel_; }
    void dot1qTunnelIs(std::uint32_t tunnel) { dot1qTunnel_ = tunnel; }

    const std::string& deviceName() const { return deviceName_; }
    void deviceNameIs(std::string name) { deviceName_ = std::move(name); }

    std::string_view className() const override { return "SandInterface"; }
    AttributeTable<Interface> attributes() const override;

  private:
    std::uint32_t nativeVlan_ = 0;
    std::uint32_t systemPhyPortId_ = 0;
    std::uint32_t trafficClass_ = 0;
    std::uint32_t dot1qTunnel_ = 0;
    std::string deviceName_;
};

SandInterface::Ptr sandInterfaceFactory(std::string name);

} // namespace Kestrune
