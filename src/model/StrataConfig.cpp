#include "model/StrataConfig.h"

namespace Kestrune {

bool StrataConfig::strataModule(const StrataModule& module) const {
    auto entry = strataModule_.find(module);
    return entry != strataModule_.end() && entry->second;
}

StrataConfig::Ptr strataConfigFactory() {
    return std::make_shared<StrataConfig>();
}

} // namespace Kestrune
