#include "model/SandInterface.h"

namespace Kestrune {

AttributeTable<Interface> SandInterface::attributes() const {
    using S = SandInterface;
    static const auto table = attributesJoined<Interface>(
        RoutedPortInterface::attributes(),
        {{"nativeVlan", attributeReader<S, &S::nativeVlan, Interface>},
         {"systemPhyPortId", attributeReader<S, &S::systemPhyPortId, Interface>},
         {"trafficClass", attributeReader<S, &S::trafficClass, Interface>},
         {"dot1qTunnel", attributeReader<S, &S::dot1qTunnel, Interface>},
         {"deviceName", attributeReader<S, &S::deviceName, Interface>}});
    return table;
}

SandInterface::Ptr sandInterfaceFactory(std::string name) {
    return std::make_shared<SandInterface>(std::move(name));
}

} // namespace Kestrune
