#pragma once

// Text from the store or the kernel on its way into outputs that people and programs read:
// a name holding a newline must not forge a line, and one holding bytes that are not UTF-8
// must not make a JSON output invalid. Nothing is dropped; the bytes are written as text.

#include <string>
#include <string_view>

namespace Kestrune {

// Control bytes as \n, \t, \r or \xNN; all else unchanged.
std::string escapedText(std::string_view text);
// Valid UTF-8: each byte that is not part of a valid UTF-8 sequence becomes the text \xNN.
std::string utf8Escaped(std::string_view text);

} // namespace Kestrune
