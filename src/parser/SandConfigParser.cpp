#include "parser/SandConfigParser.h"

namespace Kestrune {

SandConfigParser::Ptr sandConfigParserFactory() {
    return std::make_shared<SandConfigParser>();
}

} // namespace Kestrune
