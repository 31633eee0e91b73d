#pragma once

#include "model/Attribute.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace Kestrune {

// The text form of a value record: Value('Kestrune::<Type>', ** {'field': text, ...}), with
// the fields in the order of the record's attribute table.
template <class Value>
std::string valueText(std::string_view typeName, const Value& value) {
    std::string text = "Value('";
    text += typeName;
    text += "', ** {";
    bool first = true;
    for (const auto& attribute : Value::attributes()) {
        text += first ? "'" : ", '";
        text += attribute.name;
        text += "': " + attributeText(attribute.read(value));
        first = false;
    }
    return text + "})";
}

// Reads a value record's text form field by field. Every mismatch throws
// std::invalid_argument saying what was expected at which offset.
class ValueTextReader {
  public:
    ValueTextReader(std::string_view typeName, std::string_view text);

    std::string string(std::string_view field);
    std::uint32_t number(std::string_view field);
    void end();

  private:
    void expect(std::string_view piece);
    void fieldName(std::string_view field);
    [[noreturn]] void fail(std::string_view expected) const;

    std::string_view typeName_;
    std::string_view text_;
    std::size_t at_ = 0;
    bool first_ = true;
};

} // namespace Kestrune
