#pragma once

#include <ostream>
#include <string>
#include <string_view>

namespace Kestrune {

// The name of a network namespace: at most 150 bytes. Interfaces of the default VRF carry
// "default", which is DEFAULT_NS, so the two compare equal.
class NamespaceName {
  public:
    static constexpr std::size_t maxBytes = 150;

    // Throws std::range_error "NamespaceName::bytes > 150 not allowed" for a longer name.
    NamespaceName(std::string_view name); // NOLINT(google-explicit-constructor): a name is text
    NamespaceName(const std::string& name) : NamespaceName(std::string_view(name)) {} // NOLINT
    NamespaceName(const char* name) : NamespaceName(std::string_view(name)) {}        // NOLINT

    const std::string& text() const { return name_; }
    operator std::string_view() const { return name_; } // NOLINT(google-explicit-constructor)

    bool operator==(const NamespaceName& other) const { return name_ == other.name_; }
    bool operator<(const NamespaceName& other) const { return name_ < other.name_; }

  private:
    std::string name_;
};

std::ostream& operator<<(std::ostream& stream, const NamespaceName& name);

} // namespace Kestrune
