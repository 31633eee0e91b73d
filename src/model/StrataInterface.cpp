#include "model/StrataInterface.h"

namespace Kestrune {

AttributeTable<Interface> StrataInterface::attributes() const {
    static const auto table = attributesJoined<Interface>(
        RoutedPortInterface::attributes(),
        {{"port", attributeReader<StrataInterface, &StrataInterface::port, Interface>},
         {"modId", attributeReader<StrataInterface, &StrataInterface::modId, Interface>},
         {"uc_qbase", attributeReader<StrataInterface, &StrataInterface::uc_qbase, Interface>},
         {"mc_qbase", attributeReader<StrataInterface, &StrataInterface::mc_qbase, Interface>}});
    return table;
}

StrataInterface::Ptr strataInterfaceFactory(std::string name) {
    return std::make_shared<StrataInterface>(std::move(name));
}

} // namespace Kestrune
