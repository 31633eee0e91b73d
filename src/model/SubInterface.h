#pragma once

#include "model/Interface.h"

namespace Kestrune {

// An 802.1Q subinterface of a port or LAG ("Ethernet1/1.100").
class SubInterface : public Interface {
  public:
    using Ptr = std::shared_ptr<SubInterface>;
    using PtrConst = std::shared_ptr<const SubInterface>;

    using Interface::Interface;

    std::uint32_t internalVlan() const { return internalVlan_; }
    void internalVlanIs(std::uint32_t vlan) { internalVlan_ = vlan; }

    std::uint32_t encapVlan() const { return encapVlan_; }
    void encapVlanIs(std::uint32_t vlan) { encapVlan_ = vlan; }

    std::string_view className() const override { return "SubInterface"; }
    AttributeTable<Interface> attributes() const override;

  private:
    std::uint32_t internalVlan_ = 0;
    std::uint32_t encapVlan_ = 0;
};

SubInterface::Ptr subInterfaceFactory(std::string name);

} // namespace Kestrune
