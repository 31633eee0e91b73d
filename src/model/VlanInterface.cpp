#include "model/VlanInterface.h"

namespace Kestrune {

AttributeTable<Interface> VlanInterface::attributes() const {
    static const auto table = attributesJoined<Interface>(
        Interface::attributes(),
        {{"vlan", attributeReader<VlanInterface, &VlanInterface::vlan, Interface>}});
    return table;
}

VlanInterface::Ptr vlanInterfaceFactory(std::string name) {
    return std::make_shared<VlanInterface>(std::move(name));
}

} // namespace Kestrune
