#include "util/KernelName.h"

#include "util/RestoreGuards.h"

#include <array>
#include <net/if.h>

namespace Kestrune {

bool isKernelDeviceName(std::string_view name) {
    if (name.empty() || name.size() >= IFNAMSIZ || name == "." || name == "..") {
        return false;
    }
    for (const char byte : name) {
        const auto code = static_cast<unsigned char>(byte);
        // A "%" makes the kernel take the name as a template ("et%d" becomes "et0").
        if (byte == '/' || byte == ':' || byte == ' ' || byte == '%' || code < 0x20 ||
            code == 0x7f) {
            return false;
        }
    }
    return true;
}

std::string vlanIdProblem(std::uint32_t id) {
    return "VLAN id " + std::to_string(static_cast<std::int32_t>(id)) + " is outside 1 to 4094";
}

} // namespace Kestrune

namespace {

struct Prefix {
    std::string_view switchName;
    std::string_view kernelName;
};

constexpr std::array<Prefix, 4> prefixes{{
    {"Ethernet", "et"},
    {"Port-Channel", "po"},
    {"Vlan", "vlan"},
    {"Management", "ma"},
}};

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

void appendKernelForm(std::string& out, std::string_view text) {
    for (const char c : text) {
        if (c == '/') {
            out += '_';
        } else if (c >= 'A' && c <= 'Z') {
            out += static_cast<char>(c - 'A' + 'a');
        } else {
            out += c;
        }
    }
}

} // namespace

std::string kernelIntfName(std::string_view name) {
    std::string kernel;
    kernel.reserve(IFNAMSIZ);
    std::string_view rest = name;
    for (const Prefix& prefix : prefixes) {
        if (name.size() > prefix.switchName.size() && name.starts_with(prefix.switchName) &&
            isDigit(name[prefix.switchName.size()])) {
            kernel = prefix.kernelName;
            rest = name.substr(prefix.switchName.size());
            break;
        }
    }
    appendKernelForm(kernel, rest);
    if (Kestrune::restoreGuards().kernelNames && !Kestrune::isKernelDeviceName(kernel)) {
        return {};
    }
    return kernel;
}
