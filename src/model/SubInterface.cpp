#include "model/SubInterface.h"

namespace Kestrune {

AttributeTable<Interface> SubInterface::attributes() const {
    static const auto table = attributesJoined<Interface>(
        Interface::attributes(),
        {{"internalVlan", attributeReader<SubInterface, &SubInterface::internalVlan, Interface>},
         {"encapVlan", attributeReader<SubInterface, &SubInterface::encapVlan, Interface>}});
    return table;
}

SubInterface::Ptr subInterfaceFactory(std::string name) {
    return std::make_shared<SubInterface>(std::move(name));
}

} // namespace Kestrune
