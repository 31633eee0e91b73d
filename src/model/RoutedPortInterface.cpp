#include "model/RoutedPortInterface.h"

namespace Kestrune {

AttributeTable<Interface> RoutedPortInterface::attributes() const {
    static const auto table = attributesJoined<Interface>(
        Interface::attributes(),
        {{"internalVlan",
          attributeReader<RoutedPortInterface, &RoutedPortInterface::internalVlan, Interface>}});
    return table;
}

RoutedPortInterface::Ptr routedPortInterfaceFactory(std::string name) {
    return std::make_shared<RoutedPortInterface>(std::move(name));
}

} // namespace Kestrune
