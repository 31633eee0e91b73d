#pragma once

#include "model/Config.h"
#include "util/Json.h"

#include <memory>
#include <string>

namespace Kestrune {

// Turns the parser's own copy of the persistent store into a Config. The platform parsers
// apply the sections in one fixed order; the base has no platform and parses nothing.
class ConfigParser {
  public:
    using Ptr = std::shared_ptr<ConfigParser>;
    using PtrConst = std::shared_ptr<const ConfigParser>;

    ConfigParser() = default;
    virtual ~ConfigParser() = default;
    ConfigParser(const ConfigParser&) = delete;
    ConfigParser& operator=(const ConfigParser&) = delete;

    virtual Config::Ptr parse();

    // Takes a deep copy, so the parser outlives the caller's document, buffer and file.
    void doCopyDocument(const rapidjson::Document& source);
    const rapidjson::Document* document() const { return document_.get(); }

    void eventIs(const std::string& message);

  protected:
    // Dropped once parse has built the Config: the copy is the largest thing the parser holds.
    void documentDel() { document_.reset(); }

  private:
    std::unique_ptr<rapidjson::Document> document_;
};

} // namespace Kestrune
