#pragma once

#include <initializer_list>
#include <string>
#include <string_view>

namespace Kestrune {

// A JSON Pointer's text: each token after a '/', with '~' written "~0" and '/' "~1", so
// "Ethernet1/1" reads "Ethernet1~11".
inline std::string pointerToken(std::string_view name) {
    std::string token = "/";
    for (char c : name) {
        token += c == '~' ? "~0" : c == '/' ? "~1" : std::string(1, c);
    }
    return token;
}

inline std::string pointerText(std::initializer_list<std::string_view> names) {
    std::string text;
    for (std::string_view name : names) {
        text += pointerToken(name);
    }
    return text;
}

} // namespace Kestrune
