#pragma once

#include "model/Attribute.h"

#include <cstdint>
#include <ostream>
#include <string>

namespace Kestrune {

// One Strata chip: its module id, the bus it sits on and its model.
class StrataModule {
  public:
    StrataModule() = default;
    StrataModule(std::uint32_t modId, std::uint32_t busId, std::string chipModel)
        : modId_(modId), busId_(busId), chipModel_(std::move(chipModel)) {}
    // Parses the text form; throws std::invalid_argument on malformed text.
    StrataModule(std::string::const_iterator begin, std::string::const_iterator end);

    std::uint32_t modId() const { return modId_; }
    std::uint32_t busId() const { return busId_; }
    const std::string& chipModel() const { return chipModel_; }

    // modId shifted left by (busId + 16) mod 32 in 32-bit arithmetic; the chip model does
    // not enter. Existing stores and tools depend on this exact mix.
    std::uint32_t hash() const { return modId_ << ((busId_ + 16U) % 32U); }

    bool operator==(const StrataModule& other) const = default;
    bool operator<(const StrataModule& other) const;
    bool operator!() const { return *this == StrataModule(); }

    static AttributeTable<StrataModule> attributes();

  private:
    std::uint32_t modId_ = 0;
    std::uint32_t busId_ = 0;
    std::string chipModel_;
};

std::string valueToStrep(const StrataModule& module);
std::ostream& operator<<(std::ostream& stream, const StrataModule& module);

} // namespace Kestrune
