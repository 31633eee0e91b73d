#pragma once

#include "util/Json.h"
#include "util/RestoreGuards.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace Kestrune {

// Readers of store values. Each relies on RapidJSON's own type assertions: a value of the
// wrong JSON type ends the process, as a store the agents wrote never holds one.

inline std::string textOf(const rapidjson::Value& value) {
    return std::string(value.GetString(), value.GetStringLength());
}

// An unsigned model field is read as the store's int: a negative one keeps its
// two's-complement bits, as the agents' own readers do, and one past the int range ends the
// process on the JSON library's assertion. With the value-range guard, every integer that
// fits 32 bits is taken, so that the range checks can say what is wrong with it.
inline std::uint32_t unsignedOf(const rapidjson::Value& value) {
    if (restoreGuards().valueRanges && value.IsUint()) {
        return value.GetUint();
    }
    return static_cast<std::uint32_t>(value.GetInt());
}

inline bool startsWith(std::string_view text, std::string_view prefix) {
    return text.substr(0, prefix.size()) == prefix;
}

} // namespace Kestrune
