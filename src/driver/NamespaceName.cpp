#include "driver/NamespaceName.h"

#include <stdexcept>

namespace Kestrune {

NamespaceName::NamespaceName(std::string_view name) : name_(name) {
    if (name_.size() > maxBytes) {
        throw std::range_error("NamespaceName::bytes > 150 not allowed");
    }
}

std::ostream& operator<<(std::ostream& stream, const NamespaceName& name) {
    return stream << name.text();
}

} // namespace Kestrune
