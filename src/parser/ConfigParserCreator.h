#pragma once

#include "parser/ConfigParser.h"
#include "util/Json.h"

#include <memory>
#include <string>

namespace Kestrune {

// The entry into a restore: finds the persistent store, reads it and returns the parser of
// the switch's chip family, or null when there is nothing to restore from.
class ConfigParserCreator {
  public:
    using Ptr = std::shared_ptr<ConfigParserCreator>;
    using PtrConst = std::shared_ptr<const ConfigParserCreator>;

    static constexpr const char* defaultStoreDirectory = "/mnt/flash";

    // $ZEL_PSTORE_PATH/zel-persistent-store.json (default directory /mnt/flash).
    static std::string storePath();
    // Reads the store at storePath().
    ConfigParser::Ptr create();
    // The same for a store at any path: what `kestrune show` and tests read.
    ConfigParser::Ptr createFrom(const std::string& path);
    // The steps after reading: the platform section decides the parser, which takes a copy.
    ConfigParser::Ptr createFromDocument(const rapidjson::Document& document);
    void eventIs(const std::string& message);
};

ConfigParserCreator::Ptr configParserCreatorFactory();

// The top-level member holding the platform section, or the end of the members.
rapidjson::Value::ConstMemberIterator getPlatformData(const rapidjson::Document* doc);

} // namespace Kestrune
