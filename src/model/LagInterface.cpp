#include "model/LagInterface.h"

#include "model/HandleMap.h"

namespace Kestrune {

LagMember::Ptr LagInterface::member(const std::string& name) const {
    return handleAt(member_, name);
}

void LagInterface::memberIs(const LagMember::Ptr& member) {
    if (!member) {
        throw nullHandleError("member", "LagInterface::member");
    }
    handleInsert(member_, member->name(), member);
}

AttributeTable<Interface> LagInterface::attributes() const {
    static const auto table = attributesJoined<Interface>(
        RoutedPortInterface::attributes(),
        {{"member", [](const Interface& i) {
              return attributeValueOf(static_cast<const LagInterface&>(i).member());
          }}});
    return table;
}

LagInterface::Ptr lagInterfaceFactory(std::string name) {
    return std::make_shared<LagInterface>(std::move(name));
}

} // namespace Kestrune
