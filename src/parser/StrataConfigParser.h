#pragma once

#include "model/StrataConfig.h"
#include "parser/ConfigParser.h"

namespace Kestrune {

// The parser of a Strata switch's store: its chip modules and ports ("Tessaline"), then the
// agents' common sections.
class StrataConfigParser : public ConfigParser {
  public:
    using Ptr = std::shared_ptr<StrataConfigParser>;
    using PtrConst = std::shared_ptr<const StrataConfigParser>;

    Config::Ptr parse() override;

    void doExtractDeviceInfo(const StrataConfig::Ptr& strataConfig);
    void doExtractInterfaceInfo(const Config::Ptr& config);
};

StrataConfigParser::Ptr strataConfigParserFactory();

} // namespace Kestrune
