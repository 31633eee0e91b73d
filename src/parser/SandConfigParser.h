#pragma once

#include "parser/ConfigParser.h"

namespace Kestrune {

// The parser of a Sand switch's store.
class SandConfigParser : public ConfigParser {
  public:
    using Ptr = std::shared_ptr<SandConfigParser>;
    using PtrConst = std::shared_ptr<const SandConfigParser>;
};

SandConfigParser::Ptr sandConfigParserFactory();

} // namespace Kestrune
