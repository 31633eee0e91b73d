#include "util/Text.h"

#include <cstdint>

namespace Kestrune {

namespace {

void hexByteInto(std::string& out, unsigned char byte) {
    constexpr const char* digits = "0123456789abcdef";
    out += "\\x";
    out += digits[byte >> 4];
    out += digits[byte & 0xf];
}

// The length of the valid UTF-8 sequence at the start of text, 0 when there is none.
std::size_t sequenceLength(std::string_view text) {
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char lead = byte(0);
    std::size_t length = 0;
    std::uint32_t lowest = 0;
    if (lead < 0x80) {
        return 1;
    }
    if ((lead & 0xe0) == 0xc0) {
        length = 2;
        lowest = 0x80;
    } else if ((lead & 0xf0) == 0xe0) {
        length = 3;
        lowest = 0x800;
    } else if ((lead & 0xf8) == 0xf0) {
        length = 4;
        lowest = 0x10000;
    } else {
        return 0;
    }
    if (text.size() < length) {
        return 0;
    }
    std::uint32_t code = lead & (0x7f >> length);
    for (std::size_t i = 1; i < length; ++i) {
        if ((byte(i) & 0xc0) != 0x80) {
            return 0;
        }
        code = (code << 6) | (byte(i) & 0x3f);
    }
    const bool surrogate = code >= 0xd800 && code <= 0xdfff;
    return code < lowest || code > 0x10ffff || surrogate ? 0 : length;
}

} // namespace

std::string escapedText(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '\n') {
            out += "\\n";
        } else if (c == '\t') {
            out += "\\t";
        } else if (c == '\r') {
            out += "\\r";
        } else if (byte < 0x20 || byte == 0x7f) {
            hexByteInto(out, byte);
        } else {
            out += c;
        }
    }
    return out;
}

std::string utf8Escaped(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    while (!text.empty()) {
        const std::size_t length = sequenceLength(text);
        if (length == 0) {
            hexByteInto(out, static_cast<unsigned char>(text[0]));
            text.remove_prefix(1);
        } else {
            out.append(text.substr(0, length));
            text.remove_prefix(length);
        }
    }
    return out;
}

} // namespace Kestrune
