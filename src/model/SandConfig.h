#pragma once

#include "model/Config.h"
#include "model/SandFapConfig.h"

#include <map>

namespace Kestrune {

// The model of a Sand switch: the common root plus its FAP devices and LAG limits.
class SandConfig : public Config {
  public:
    using Ptr = std::shared_ptr<SandConfig>;
    using PtrConst = std::shared_ptr<const SandConfig>;
    using FapMap = std::map<std::string, SandFapConfig>;

    const FapMap& sandFapConfig() const { return sandFapConfig_; }
    // A copy of the stored value; a default value (for which operator! holds) when absent.
    SandFapConfig sandFapConfig(const std::string& name) const;
    void sandFapConfigIs(const std::string& name, SandFapConfig value);
    void sandFapConfigDel(const std::string& name) { sandFapConfig_.erase(name); }
    void sandFapConfigDelAll() { sandFapConfig_.clear(); }
    void sandFapConfigNotify(const std::string&) {}

    std::uint32_t oldestFapType() const { return oldestFapType_; }
    void oldestFapTypeIs(std::uint32_t type) { oldestFapType_ = type; }

    std::uint32_t maxLags() const { return maxLags_; }
    void maxLagsIs(std::uint32_t count) { maxLags_ = count; }

    std::uint32_t maxMembersPerLag() const { return maxMembersPerLag_; }
    void maxMembersPerLagIs(std::uint32_t count) { maxMembersPerLag_ = count; }

    std::string_view className() const override { return "SandConfig"; }
    AttributeTable<Config> attributes() const override;

  private:
    FapMap sandFapConfig_;
    std::uint32_t oldestFapType_ = 0;
    std::uint32_t maxLags_ = 0;
    std::uint32_t maxMembersPerLag_ = 0;
};

SandConfig::Ptr sandConfigFactory();

} // namespace Kestrune
