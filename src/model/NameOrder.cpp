#include "model/NameOrder.h"

namespace Kestrune {

namespace {

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

// The digit run starting at `at`, without its leading zeros; `at` moves past the run.
std::string_view numberAt(std::string_view text, std::size_t& at) {
    std::size_t start = at;
    while (at < text.size() && isDigit(text[at])) {
        ++at;
    }
    while (start + 1 < at && text[start] == '0') {
        ++start;
    }
    return text.substr(start, at - start);
}

} // namespace

bool NameOrder::operator()(std::string_view left, std::string_view right) const noexcept {
    std::size_t l = 0;
    std::size_t r = 0;
    while (l < left.size() && r < right.size()) {
        if (isDigit(left[l]) && isDigit(right[r])) {
            std::string_view a = numberAt(left, l);
            std::string_view b = numberAt(right, r);
            if (a.size() != b.size()) {
                return a.size() < b.size();
            }
            if (a != b) {
                return a < b;
            }
            continue;
        }
        if (left[l] != right[r]) {
            return left[l] < right[r];
        }
        ++l;
        ++r;
    }
    if (left.size() - l != right.size() - r) {
        return left.size() - l < right.size() - r;
    }
    // Names equal as numbers ("Vlan010", "Vlan10") still differ as text.
    return left < right;
}

} // namespace Kestrune
