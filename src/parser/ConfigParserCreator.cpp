#include "parser/ConfigParserCreator.h"

#include "log/Log.h"
#include "model/ChipFamily.h"
#include "parser/SandConfigParser.h"
#include "parser/StoreFile.h"
#include "parser/StrataConfigParser.h"
#include "util/RestoreGuards.h"
#include "util/Trace.h"

#include <cstdio>
#include <cstdlib>
#include <vector>

namespace Kestrune {

std::string ConfigParserCreator::storePath() {
    const char* directory = std::getenv("ZEL_PSTORE_PATH");
    return std::string(directory ? directory : ConfigParserCreator::defaultStoreDirectory) +
           "/zel-persistent-store.json";
}

ConfigParser::Ptr ConfigParserCreator::create() {
    return createFrom(storePath());
}

// Every way in traces as the restore's does from its first line, whoever names the file.
ConfigParser::Ptr ConfigParserCreator::createFrom(const std::string& path) {
    TRACE(3) << "create";
    TRACE(3) << "create"
             << " pstore file= " << path;

    const auto notPresent = [&] {
        TRACE(0) << "create"
                 << " " << path << " file not present";
        eventIs("create " + path + " file not present");
    };
    std::string reason;
    if (!restoreGuards().storeBounds) {
        rapidjson::Document document;
        if (!StoreFile::doParseStream(path, document, reason)) {
            notPresent();
            return nullptr;
        }
        return createFromDocument(document);
    }
    // Bounded: the bytes are read whole, within the bound, so that where they stop being JSON
    // can be said before the assertion.
    std::string bytes;
    const StoreFile::Outcome read = StoreFile::doRead(path, bytes, reason);
    if (read != StoreFile::Outcome::Read) {
        notPresent();
        if (read != StoreFile::Outcome::NotReadable) {
            // Something is there, but not a store: worth its own line in the history.
            TRACE(0) << "create " << reason;
            eventIs("create " + reason);
        }
        return nullptr;
    }

    rapidjson::Document document;
    if (!StoreFile::doParse(bytes, document, reason)) {
        // The document stays null, which the first lookup below asserts on: a corrupt store
        // is not something a restore can recover from. Where it went wrong is recorded first.
        TRACE(0) << "create " << path << " is not JSON: " << reason;
        eventIs("create " + path + " is not JSON: " + reason);
    }
    return createFromDocument(document);
}

ConfigParser::Ptr ConfigParserCreator::createFromDocument(const rapidjson::Document& document) {
    auto platformData = getPlatformData(&document);
    if (platformData == document.MemberEnd()) {
        TRACE(0) << "create"
                 << "tessaline info not present";
        eventIs("createtessaline info not present");
        return nullptr;
    }
    const rapidjson::Value& platform = platformData->value;
    auto platformType = platform.FindMember("platformType");
    if (platformType == platform.MemberEnd()) {
        TRACE(0) << "create"
                 << " platformType info not present";
        eventIs("create platformType info not present");
        return nullptr;
    }

    ConfigParser::Ptr parser;
    const std::string type = platformType->value.GetString();
    if (type == strataPlatform) {
        TRACE(3) << "create"
                 << " Creating strata config parser";
        parser = strataConfigParserFactory();
        parser->doCopyDocument(document);
    } else if (type == sandPlatform) {
        TRACE(3) << "create"
                 << " Creating sand config parser";
        parser = sandConfigParserFactory();
        parser->doCopyDocument(document);
    }
    return parser;
}

void ConfigParserCreator::eventIs(const std::string& message) {
    Log::logEvent("ConfigParserCreator", message);
}

ConfigParserCreator::Ptr configParserCreatorFactory() {
    return std::make_shared<ConfigParserCreator>();
}

rapidjson::Value::ConstMemberIterator getPlatformData(const rapidjson::Document* doc) {
    auto strataPlatformData = doc->FindMember("Tessaline");
    auto sandPlatformData = doc->FindMember("SandTessaline");
    if (strataPlatformData != doc->MemberEnd()) {
        KESTRUNE_ASSERT_TEXT((strataPlatformData == doc->MemberEnd()) ||
                                 (sandPlatformData == doc->MemberEnd()),
                             "( strataPlatformData == doc->MemberEnd() ) || ( sandPlatformData == "
                             "doc->MemberEnd() )");
        TRACE(0) << "Found strata";
        return strataPlatformData;
    }
    if (sandPlatformData != doc->MemberEnd()) {
        TRACE(0) << "Found sand";
        return sandPlatformData;
    }
    return doc->MemberEnd();
}

} // namespace Kestrune
