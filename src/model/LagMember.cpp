#include "model/LagMember.h"

namespace Kestrune {

AttributeTable<LagMember> LagMember::attributes() {
    static const Attribute<LagMember> table[] = {
        {"interface", [](const LagMember& m) { return attributeValueOf(m.name()); }},
        {"name", [](const LagMember& m) { return attributeValueOf(m.name()); }},
        {"collecting", attributeReader<LagMember, &LagMember::collecting>},
        {"distributing", attributeReader<LagMember, &LagMember::distributing>},
    };
    return table;
}

LagMember::Ptr lagMemberFactory() {
    return std::make_shared<LagMember>();
}

} // namespace Kestrune
