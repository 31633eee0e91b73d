#pragma once

#include "model/Interface.h"

namespace Kestrune {

// A front-panel port or LAG that carries layer-3 traffic on an internal VLAN.
class RoutedPortInterface : public Interface {
  public:
    using Ptr = std::shared_ptr<RoutedPortInterface>;
    using PtrConst = std::shared_ptr<const RoutedPortInterface>;

    using Interface::Interface;

    std::uint32_t internalVlan() const { return internalVlan_; }
    void internalVlanIs(std::uint32_t vlan) { internalVlan_ = vlan; }

    std::string_view className() const override { return "RoutedPortInterface"; }
    AttributeTable<Interface> attributes() const override;

  private:
    std::uint32_t internalVlan_ = 0;
};

RoutedPortInterface::Ptr routedPortInterfaceFactory(std::string name);

} // namespace Kestrune
