#include "model/NameOrder.h"

#include <cstring>

namespace Kestrune {

namespace {

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

// The digit run of `text` that starts at `at`, as [first, last) without leading zeros.
void numberAt(std::string_view text, std::size_t at, std::size_t& first, std::size_t& last) {
    last = at;
    while (last < text.size() && isDigit(text[last])) {
        ++last;
    }
    first = at;
    while (first + 1 < last && text[first] == '0') {
        ++first;
    }
}

} // namespace

// Names of one switch share long prefixes ("Ethernet1/"), so the common prefix is skipped
// first and only the place where the names part is looked at closely. The interface map
// of a large switch calls this tens of thousands of times per restore.
bool NameOrder::operator()(std::string_view left, std::string_view right) const noexcept {
    const std::size_t common = left.size() < right.size() ? left.size() : right.size();
    std::size_t at = 0;
    while (at < common && left[at] == right[at]) {
        ++at;
    }
    std::size_t run = at;
    while (run > 0 && isDigit(left[run - 1])) {
        --run;
    }
    const bool leftDigit = at < left.size() && isDigit(left[at]);
    const bool rightDigit = at < right.size() && isDigit(right[at]);
    if (run < at || leftDigit || rightDigit) {
        std::size_t leftFirst = 0;
        std::size_t leftLast = 0;
        std::size_t rightFirst = 0;
        std::size_t rightLast = 0;
        numberAt(left, run, leftFirst, leftLast);
        numberAt(right, run, rightFirst, rightLast);
        const std::size_t leftDigits = leftLast - leftFirst;
        const std::size_t rightDigits = rightLast - rightFirst;
        if (leftDigits != rightDigits) {
            return leftDigits < rightDigits;
        }
        if (int order =
                std::memcmp(left.data() + leftFirst, right.data() + rightFirst, leftDigits)) {
            return order < 0;
        }
    }
    // Equal as numbers ("Vlan010", "Vlan10"), or a plain character decides.
    return left < right;
}

} // namespace Kestrune
