#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <string_view>

namespace Kestrune {

enum class InterfaceType : std::uint32_t {
    None_ = 0,
    SVI_ = 1,
    L2_ = 2,
    RoutedPort_ = 3,
    SubIntf_ = 4,
    Lag_ = 5,
    LagRouted_ = 6,
};

// Both throw std::range_error naming the value that is not an interface type.
InterfaceType InterfaceTypeInstance(std::uint32_t value);
InterfaceType InterfaceTypeInstance(std::string_view name);

std::string_view stringValue(InterfaceType type);
std::string valueToStrep(InterfaceType type);
std::ostream& operator<<(std::ostream& stream, InterfaceType type);

// Reads a text name from the front of [begin, end) into *type and returns where it stopped.
// Throws std::range_error when no text name starts there.
const char* sequenceToValue(const char* begin, const char* end, InterfaceType* type);

} // namespace Kestrune
