#include "model/ValueText.h"

#include <algorithm>
#include <charconv>
#include <stdexcept>

namespace Kestrune {

ValueTextReader::ValueTextReader(std::string_view typeName, std::string_view text)
    : typeName_(typeName), text_(text) {
    expect("Value('");
    expect(typeName);
    expect("', ** {");
}

void ValueTextReader::fail(std::string_view expected) const {
    throw std::invalid_argument("malformed " + std::string(typeName_) + " text: expected " +
                                std::string(expected) + " at offset " + std::to_string(at_));
}

void ValueTextReader::expect(std::string_view piece) {
    if (text_.substr(at_, piece.size()) != piece) {
        fail("\"" + std::string(piece) + "\"");
    }
    at_ += piece.size();
}

void ValueTextReader::fieldName(std::string_view field) {
    if (!first_) {
        expect(", ");
    }
    first_ = false;
    expect("'");
    expect(field);
    expect("': ");
}

std::string ValueTextReader::string(std::string_view field) {
    fieldName(field);
    expect("'");
    std::string value;
    while (at_ < text_.size() && text_[at_] != '\'') {
        if (text_[at_] != '\\') {
            value += text_[at_++];
            continue;
        }
        ++at_;
        char escaped = at_ < text_.size() ? text_[at_] : '\0';
        if (escaped == 'n' || escaped == 't') {
            value += escaped == 'n' ? '\n' : '\t';
            ++at_;
        } else if (escaped == 'x') {
            unsigned byte = 0;
            auto [end, error] = std::from_chars(
                text_.data() + at_ + 1, text_.data() + std::min(at_ + 3, text_.size()), byte, 16);
            if (error != std::errc() || end != text_.data() + at_ + 3) {
                fail("two hex digits after \\x");
            }
            value += static_cast<char>(byte);
            at_ += 3;
        } else if (escaped == '\'' || escaped == '\\') {
            value += escaped;
            ++at_;
        } else {
            fail("an escape (\\', \\\\, \\n, \\t or \\xNN)");
        }
    }
    expect("'");
    return value;
}

std::uint32_t ValueTextReader::number(std::string_view field) {
    fieldName(field);
    std::uint32_t value = 0;
    const char* begin = text_.data() + at_;
    auto [end, error] = std::from_chars(begin, text_.data() + text_.size(), value);
    if (error != std::errc()) {
        fail("an unsigned 32-bit number for '" + std::string(field) + "'");
    }
    at_ += static_cast<std::size_t>(end - begin);
    return value;
}

void ValueTextReader::end() {
    expect("})");
    if (at_ != text_.size()) {
        fail("the end of the text");
    }
}

} // namespace Kestrune
