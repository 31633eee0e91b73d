#pragma once

#include "model/InterfaceType.h"
#include "model/NameOrder.h"

#include <cstdint>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace Kestrune {

class LagMember;

// A set of address texts, each with the flag stored beside it.
using FlagSet = std::map<std::string, bool>;
// LAG members by member name.
using MemberSet = std::map<std::string, std::shared_ptr<LagMember>, NameOrder>;

// The value of one model attribute as read through its name.
using AttributeValue =
    std::variant<std::string, std::int64_t, bool, InterfaceType, FlagSet, MemberSet>;

// One entry of a class's attribute table: the attribute's name and a reader of its value.
template <class Owner>
struct Attribute {
    std::string_view name;
    AttributeValue (*read)(const Owner&);
};

template <class Owner>
using AttributeTable = std::span<const Attribute<Owner>>;

inline AttributeValue attributeValueOf(const std::string& value) {
    return value;
}
inline AttributeValue attributeValueOf(std::uint32_t value) {
    return std::int64_t{value};
}
inline AttributeValue attributeValueOf(std::int32_t value) {
    return std::int64_t{value};
}
inline AttributeValue attributeValueOf(bool value) {
    return value;
}
inline AttributeValue attributeValueOf(InterfaceType value) {
    return value;
}
inline AttributeValue attributeValueOf(const FlagSet& value) {
    return value;
}
inline AttributeValue attributeValueOf(const MemberSet& value) {
    return value;
}

// Reader of the attribute that `getter` of Class returns, for a table of Owner.
template <class Class, auto getter, class Owner = Class>
AttributeValue attributeReader(const Owner& owner) {
    return attributeValueOf((static_cast<const Class&>(owner).*getter)());
}

// A derived class's table: its base's attributes followed by its own.
template <class Owner>
std::vector<Attribute<Owner>> attributesJoined(AttributeTable<Owner> base,
                                               std::initializer_list<Attribute<Owner>> own) {
    std::vector<Attribute<Owner>> table(base.begin(), base.end());
    table.insert(table.end(), own);
    return table;
}

template <class Owner>
const Attribute<Owner>* attributeNamed(AttributeTable<Owner> table, std::string_view name) {
    for (const auto& attribute : table) {
        if (attribute.name == name) {
            return &attribute;
        }
    }
    return nullptr;
}

// Text form of a value: strings quoted ('text'; quote, backslash, newline, tab and other
// control bytes escaped as \' \\ \n \t \xNN), numbers in
// decimal, flags as true/false, interface types by name, sets as {...} in key order.
std::string attributeText(const AttributeValue& value);
std::string quotedText(std::string_view text);

} // namespace Kestrune
