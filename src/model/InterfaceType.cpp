#include "model/InterfaceType.h"

#include <array>
#include <stdexcept>

namespace Kestrune {

namespace {

constexpr std::array<std::string_view, 7> names = {"None",    "SVI", "L2",       "RoutedPort",
                                                   "SubIntf", "Lag", "LagRouted"};

} // namespace

InterfaceType InterfaceTypeInstance(std::uint32_t value) {
    if (value >= names.size()) {
        throw std::range_error("no Kestrune::InterfaceType has the value " + std::to_string(value));
    }
    return static_cast<InterfaceType>(value);
}

InterfaceType InterfaceTypeInstance(std::string_view name) {
    for (std::uint32_t value = 0; value < names.size(); ++value) {
        if (names[value] == name) {
            return static_cast<InterfaceType>(value);
        }
    }
    throw std::range_error("no Kestrune::InterfaceType is named '" + std::string(name) + "'");
}

std::string_view stringValue(InterfaceType type) {
    auto value = static_cast<std::uint32_t>(type);
    return value < names.size() ? names[value] : std::string_view("<invalid InterfaceType>");
}

std::string valueToStrep(InterfaceType type) {
    return std::string(stringValue(type));
}

std::ostream& operator<<(std::ostream& stream, InterfaceType type) {
    return stream << stringValue(type);
}

const char* sequenceToValue(const char* begin, const char* end, InterfaceType* type) {
    const char* stop = begin;
    while (stop != end && ((*stop >= 'A' && *stop <= 'Z') || (*stop >= 'a' && *stop <= 'z') ||
                           (*stop >= '0' && *stop <= '9'))) {
        ++stop;
    }
    *type = InterfaceTypeInstance(std::string_view(begin, static_cast<std::size_t>(stop - begin)));
    return stop;
}

} // namespace Kestrune
