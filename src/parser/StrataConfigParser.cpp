#include "parser/StrataConfigParser.h"

namespace Kestrune {

StrataConfigParser::Ptr strataConfigParserFactory() {
    return std::make_shared<StrataConfigParser>();
}

} // namespace Kestrune
