#pragma once

#include "util/Json.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace Kestrune {

// Readers of store values. Each relies on RapidJSON's own type assertions: a value of the
// wrong JSON type ends the process, as a store the agents wrote never holds one.

inline std::string textOf(const rapidjson::Value& value) {
    return std::string(value.GetString(), value.GetStringLength());
}

// An unsigned model field accepts every JSON integer that fits 32 bits, signed or not; a
// negative one keeps its two's-complement bits, as the agents' own readers do.
inline std::uint32_t unsignedOf(const rapidjson::Value& value) {
    return value.IsUint() ? value.GetUint() : static_cast<std::uint32_t>(value.GetInt());
}

inline bool startsWith(std::string_view text, std::string_view prefix) {
    return text.substr(0, prefix.size()) == prefix;
}

} // namespace Kestrune
