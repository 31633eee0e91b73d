#include "model/SandConfig.h"

namespace Kestrune {

SandFapConfig SandConfig::sandFapConfig(const std::string& name) const {
    auto entry = sandFapConfig_.find(name);
    return entry == sandFapConfig_.end() ? SandFapConfig() : entry->second;
}

void SandConfig::sandFapConfigIs(const std::string& name, SandFapConfig value) {
    sandFapConfig_.insert_or_assign(name, std::move(value));
}

AttributeTable<Config> SandConfig::attributes() const {
    using S = SandConfig;
    static const auto table = attributesJoined<Config>(
        Config::attributes(),
        {{"oldestFapType", attributeReader<S, &S::oldestFapType, Config>},
         {"maxLags", attributeReader<S, &S::maxLags, Config>},
         {"maxMembersPerLag", attributeReader<S, &S::maxMembersPerLag, Config>}});
    return table;
}

SandConfig::Ptr sandConfigFactory() {
    return std::make_shared<SandConfig>();
}

} // namespace Kestrune
