#pragma once

#include "model/SandConfig.h"
#include "parser/ConfigParser.h"

namespace Kestrune {

// The parser of a Sand switch's store: driver parameters, FAP devices and ports
// ("SandTessaline"), then the agents' common sections.
class SandConfigParser : public ConfigParser {
  public:
    using Ptr = std::shared_ptr<SandConfigParser>;
    using PtrConst = std::shared_ptr<const SandConfigParser>;

    Config::Ptr parse() override;

    void doExtractDriverParams(const SandConfig::Ptr& sandConfig);
    void doExtractDeviceInfo(const SandConfig::Ptr& sandConfig);
    void doExtractInterfaceInfo(const Config::Ptr& config);
};

SandConfigParser::Ptr sandConfigParserFactory();

} // namespace Kestrune
