#include "model/Attribute.h"

#include "model/LagMember.h"

namespace Kestrune {

std::string quotedText(std::string_view text) {
    std::string quoted = "'";
    for (char c : text) {
        if (c == '\'' || c == '\\') {
            quoted += '\\';
        }
        quoted += c;
    }
    quoted += '\'';
    return quoted;
}

namespace {

std::string textOf(const std::string& value) {
    return quotedText(value);
}
std::string textOf(std::int64_t value) {
    return std::to_string(value);
}
std::string textOf(bool value) {
    return value ? "true" : "false";
}
std::string textOf(InterfaceType value) {
    return valueToStrep(value);
}

template <class Map, class ValueText>
std::string setText(const Map& map, ValueText valueText) {
    std::string text = "{";
    for (const auto& [key, value] : map) {
        if (text.size() > 1) {
            text += ", ";
        }
        text += quotedText(key) + ": " + valueText(value);
    }
    return text + "}";
}

std::string textOf(const FlagSet& value) {
    return setText(value, [](bool flag) { return textOf(flag); });
}

std::string textOf(const MemberSet& value) {
    return setText(value, [](const LagMember::Ptr& member) {
        std::string text = "{";
        for (const auto& attribute : member->attributes()) {
            if (attribute.name != "name") {
                text += (text.size() > 1 ? ", " : "") + quotedText(attribute.name) + ": " +
                        attributeText(attribute.read(*member));
            }
        }
        return text + "}";
    });
}

} // namespace

std::string attributeText(const AttributeValue& value) {
    return std::visit([](const auto& v) { return textOf(v); }, value);
}

} // namespace Kestrune
