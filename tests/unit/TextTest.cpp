#include "util/Text.h"

#include <gtest/gtest.h>

namespace Kestrune {
namespace {

TEST(Text, ControlBytesAreEscapedAndTheRestKept) {
    const std::pair<std::string, std::string> cases[] = {
        {"Ethernet1/1", "Ethernet1/1"},
        {"Ethernet1/\n2", "Ethernet1/\\n2"},
        {"a\tb\rc", "a\\tb\\rc"},
        {std::string("nul\0x", 5), "nul\\x00x"},
        {"bell\x07 del\x7f", "bell\\x07 del\\x7f"},
        {"caf\xc3\xa9 \xff", "caf\xc3\xa9 \xff"}, // bytes above 0x7f are not control bytes
    };
    for (const auto& [text, expected] : cases) {
        EXPECT_EQ(escapedText(text), expected);
    }
}

TEST(Text, Utf8EscapingKeepsValidSequencesAndWritesEveryOtherByteAsText) {
    const std::pair<std::string, std::string> cases[] = {
        {"plain", "plain"},
        {"caf\xc3\xa9", "caf\xc3\xa9"},                                     // two bytes
        {"\xe2\x82\xac \xf0\x9f\x98\x80", "\xe2\x82\xac \xf0\x9f\x98\x80"}, // three, four
        {"Ethernet1/\xff", "Ethernet1/\\xff"},                              // never a UTF-8 byte
        {"\xc3", "\\xc3"},                                                  // cut short
        {"\xc3(", "\\xc3("},                          // not followed by a continuation
        {"\xc0\xaf", "\\xc0\\xaf"},                   // an overlong '/'
        {"\xed\xa0\x80", "\\xed\\xa0\\x80"},          // a surrogate
        {"\xf4\x90\x80\x80", "\\xf4\\x90\\x80\\x80"}, // past U+10FFFF
    };
    for (const auto& [text, expected] : cases) {
        EXPECT_EQ(utf8Escaped(text), expected);
    }
}

} // namespace
} // namespace Kestrune
