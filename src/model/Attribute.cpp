#include "model/Attribute.h"

#include "model/LagMember.h"

namespace Kestrune {

std::string quotedText(std::string_view text) {
    static constexpr char hex[] = "0123456789abcdef";
    std::string quoted = "'";
    for (char c : text) {
        auto byte = static_cast<unsigned char>(c);
        if (c == '\'' || c == '\\') {
            quoted += '\\';
            quoted += c;
        } else if (c == '\n') {
            quoted += "\\n";
        } else if (c == '\t') {
            quoted += "\\t";
        } else if (byte < 0x20 || byte == 0x7f) {
            quoted += "\\x";
            quoted += hex[byte >> 4];
            quoted += hex[byte & 0xf];
        } else {
            quoted += c;
        }
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
