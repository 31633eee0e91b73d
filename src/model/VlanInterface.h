#pragma once

#include "model/Interface.h"

namespace Kestrune {

// A VLAN interface (SVI), named "Vlan<vlan>".
class VlanInterface : public Interface {
  public:
    using Ptr = std::shared_ptr<VlanInterface>;
    using PtrConst = std::shared_ptr<const VlanInterface>;

    using Interface::Interface;

    std::uint32_t vlan() const { return vlan_; }
    void vlanIs(std::uint32_t vlan) { vlan_ = vlan; }

    std::string_view className() const override { return "VlanInterface"; }
    AttributeTable<Interface> attributes() const override;

  private:
    std::uint32_t vlan_ = 0;
};

VlanInterface::Ptr vlanInterfaceFactory(std::string name);

} // namespace Kestrune
