#pragma once

#include <string_view>

namespace Kestrune {

// Orders interface names as people read them: runs of digits compare as numbers, so
// Ethernet1/2 comes before Ethernet1/10 and Ethernet1/1.100 right after Ethernet1/1. The
// restore walks interfaces in this order, which keeps traces and chip logs easy to follow.
struct NameOrder {
    using is_transparent = void;
    bool operator()(std::string_view left, std::string_view right) const noexcept;
};

} // namespace Kestrune
