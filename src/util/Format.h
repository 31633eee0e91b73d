#pragma once

#include <array>
#include <cstdio>
#include <string>

namespace Kestrune {

// A printf-style command or name, as the chip's command channel and tools take them. The
// restore's commands are short; one longer than the buffer is cut, never overrun.
template <class... Args>
std::string formatted(const char* format, Args... args) {
    std::array<char, 256> text{};
    std::snprintf(text.data(), text.size(), format, args...);
    return text.data();
}

} // namespace Kestrune
