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

    // The agents' common sections, applied by every platform parser after its own.
    void doExtractPellInfo(const Config::Ptr& config);
    void doExtractVantInfo(const Config::Ptr& config);
    void doExtractOkuInfo(const Config::Ptr& config);
    void doExtractDorvelInfo(const Config::Ptr& config);
    void doExtractSabrelInfo(const Config::Ptr& config);

    // Takes a deep copy, so the parser outlives the caller's document, buffer and file.
    void doCopyDocument(const rapidjson::Document& source);
    const rapidjson::Document* document() const { return document_.get(); }

    void eventIs(const std::string& message);

  protected:
    // Traces a failure at level 0 and records the same text as an event.
    void report(const std::string& message);
    // The parser's document; parsing a second time, after it was dropped, is a fault.
    const rapidjson::Document& store() const;
    // The member `key` of `object`, or null after reporting `missing`.
    const rapidjson::Value* memberOrReport(const rapidjson::Value& object, const char* key,
                                           const std::string& missing);
    // The agents' sections in the order that lets each amend what the ones before created,
    // then the document goes: the last step of every platform's parse.
    void doExtractCommonSections(const Config::Ptr& config);
    // A member of the platform section, or null after reporting what is missing.
    const rapidjson::Value* platformMember(const char* key);
    // The trace names the device; the event text loses its first `index` characters, which
    // is what the event history has always held for this failure.
    void reportMissingDevice(std::size_t index);
    // Dropped once parse has built the Config: the copy is the largest thing the parser holds.
    void documentDel() { document_.reset(); }

  private:
    std::unique_ptr<rapidjson::Document> document_;
};

} // namespace Kestrune
