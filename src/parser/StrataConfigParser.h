#pragma once

#include "parser/ConfigParser.h"

namespace Kestrune {

// The parser of a Strata switch's store.
class StrataConfigParser : public ConfigParser {
  public:
    using Ptr = std::shared_ptr<StrataConfigParser>;
    using PtrConst = std::shared_ptr<const StrataConfigParser>;
};

StrataConfigParser::Ptr strataConfigParserFactory();

} // namespace Kestrune
