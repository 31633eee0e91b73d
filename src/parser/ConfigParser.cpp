#include "parser/ConfigParser.h"

#include "log/Log.h"

namespace Kestrune {

Config::Ptr ConfigParser::parse() {
    return nullptr;
}

void ConfigParser::doCopyDocument(const rapidjson::Document& source) {
    document_ = std::make_unique<rapidjson::Document>();
    document_->CopyFrom(source, document_->GetAllocator());
}

void ConfigParser::eventIs(const std::string& message) {
    Log::logEvent("ConfigParser", message);
}

} // namespace Kestrune
