#pragma once

#include "model/Attribute.h"

#include <cstdint>
#include <ostream>
#include <string>

namespace Kestrune {

// One Sand FAP device: its PCI name, how many FAPs it has, its type and CPU port numbers.
class SandFapConfig {
  public:
    SandFapConfig() = default;
    SandFapConfig(std::string name, std::string pciName, std::uint32_t numFaps,
                  std::uint32_t fapType, std::uint32_t cpuTm, std::uint32_t cpuSflow,
                  std::uint32_t cpuAradSysPort, std::uint32_t cpuArad, std::uint32_t cpuAradBridge)
        : name_(std::move(name)), pciName_(std::move(pciName)), numFaps_(numFaps),
          fapType_(fapType), cpuTm_(cpuTm), cpuSflow_(cpuSflow), cpuAradSysPort_(cpuAradSysPort),
          cpuArad_(cpuArad), cpuAradBridge_(cpuAradBridge) {}
    // Parses the text form; throws std::invalid_argument on malformed text.
    SandFapConfig(std::string::const_iterator begin, std::string::const_iterator end);

    const std::string& name() const { return name_; }
    const std::string& pciName() const { return pciName_; }
    std::uint32_t numFaps() const { return numFaps_; }
    std::uint32_t fapType() const { return fapType_; }
    std::uint32_t cpuTm() const { return cpuTm_; }
    std::uint32_t cpuSflow() const { return cpuSflow_; }
    std::uint32_t cpuAradSysPort() const { return cpuAradSysPort_; }
    std::uint32_t cpuArad() const { return cpuArad_; }
    std::uint32_t cpuAradBridge() const { return cpuAradBridge_; }

    bool operator==(const SandFapConfig& other) const = default;
    bool operator!() const { return *this == SandFapConfig(); }

    static AttributeTable<SandFapConfig> attributes();

  private:
    std::string name_;
    std::string pciName_;
    std::uint32_t numFaps_ = 0;
    std::uint32_t fapType_ = 0;
    std::uint32_t cpuTm_ = 0;
    std::uint32_t cpuSflow_ = 0;
    std::uint32_t cpuAradSysPort_ = 0;
    std::uint32_t cpuArad_ = 0;
    std::uint32_t cpuAradBridge_ = 0;
};

std::string valueToStrep(const SandFapConfig& fap);
std::ostream& operator<<(std::ostream& stream, const SandFapConfig& fap);

} // namespace Kestrune
