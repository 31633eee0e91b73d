#include "parser/ConfigParserCreator.h"

#include "Scenario.h"
#include "parser/SandConfigParser.h"
#include "parser/StrataConfigParser.h"
#include "util/Assert.h"
#include "util/RestoreGuards.h"

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/resource.h>

namespace Kestrune {
namespace {

using Testing::messagesOf;
using Testing::Outcome;
using Testing::runProcess;
using Testing::TempDir;

enum ParserKind { NoParser = 10, Strata = 11, Sand = 12 };

// Runs create in a child process over a store holding `store` (nothing when null) and ends
// the child with the kind of parser it returned.
Outcome createOver(const TempDir& dir, const char* store) {
    if (store) {
        dir.write("zel-persistent-store.json", store);
    }
    return runProcess(dir, [&] {
        setenv("ZEL_PSTORE_PATH", dir.path().c_str(), 1);
        auto parser = configParserCreatorFactory()->create();
        if (std::dynamic_pointer_cast<StrataConfigParser>(parser)) {
            std::exit(Strata);
        }
        std::exit(std::dynamic_pointer_cast<SandConfigParser>(parser) ? Sand : NoParser);
    });
}

TEST(ConfigParserCreator, EveryOutcomeTracesAndRecordsExactly) {
    struct Case {
        const char* what;
        const char* store;
        ParserKind parser;
        std::vector<std::string> traces; // after "create" and "create pstore file= <path>"
        std::vector<std::string> events;
    };
    const Case cases[] = {
        {"no store file",
         nullptr,
         NoParser,
         {"Kestrune:0 create <path> file not present"},
         {"ConfigParserCreator: create <path> file not present"}},
        {"no platform section",
         R"({"Oku": {}})",
         NoParser,
         {"Kestrune:0 createtessaline info not present"},
         {"ConfigParserCreator: createtessaline info not present"}},
        {"platform section without platformType",
         R"({"Tessaline": {"x": 1}})",
         NoParser,
         {"Kestrune:0 Found strata", "Kestrune:0 create platformType info not present"},
         {"ConfigParserCreator: create platformType info not present"}},
        {"platform type in the wrong case is refused silently",
         R"({"Tessaline": {"platformType": "strata"}})",
         NoParser,
         {"Kestrune:0 Found strata"},
         {}},
        {"strata",
         R"({"Tessaline": {"platformType": "Strata"}, "Oku": {}})",
         Strata,
         {"Kestrune:0 Found strata", "Kestrune:3 create Creating strata config parser"},
         {}},
        {"sand",
         R"({"SandTessaline": {"platformType": "Sand"}})",
         Sand,
         {"Kestrune:0 Found sand", "Kestrune:3 create Creating sand config parser"},
         {}},
        {"the platform type decides, not the section name",
         R"({"Tessaline": {"platformType": "Sand"}})",
         Sand,
         {"Kestrune:0 Found strata", "Kestrune:3 create Creating sand config parser"},
         {}},
    };
    for (const auto& c : cases) {
        TempDir dir;
        const std::string path = dir.file("zel-persistent-store.json");
        auto expand = [&](std::vector<std::string> lines) {
            for (auto& line : lines) {
                if (auto at = line.find("<path>"); at != std::string::npos) {
                    line.replace(at, 6, path);
                }
            }
            return lines;
        };
        std::vector<std::string> traces = {"Kestrune:3 create",
                                           "Kestrune:3 create pstore file= " + path};
        for (const auto& line : expand(c.traces)) {
            traces.push_back(line);
        }

        Outcome outcome = createOver(dir, c.store);
        EXPECT_EQ(outcome.exitCode, c.parser) << c.what;
        EXPECT_EQ(outcome.traces, traces) << c.what;
        EXPECT_EQ(messagesOf(outcome.events), expand(c.events)) << c.what;
    }
}

TEST(ConfigParserCreator, StoresThatCannotBeReadEndTheProcessOnARecordedAssertion) {
    struct Case {
        const char* what;
        const char* store;
        std::string assertion;
        bool notJson = false; // recorded with where it goes wrong before the end
        const char* where = "";
    };
    const Case cases[] = {
        {"not JSON", "{\"Tessaline\": ", "IsObject()", true, "at line 1, column 15 (byte 14)"},
        {"not JSON on its second line", "{\n\"Tessaline\": x}", "IsObject()", true,
         "Invalid value. at line 2, column 14 (byte 15)"},
        {"empty file", "", "IsObject()", true},
        {"a byte-order mark", "\xEF\xBB\xBF{\"Tessaline\": {\"platformType\": \"Strata\"}}",
         "IsObject()", true},
        {"nested too deep", "[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[[",
         "IsObject()", true},
        {"root is an array", R"([{"Tessaline": {"platformType": "Strata"}}])", "IsObject()"},
        {"platform section is not an object", R"({"Tessaline": "Strata"})", "IsObject()"},
        {"platformType is not a string", R"({"SandTessaline": {"platformType": 1}})", "IsString()"},
        {"both platform sections",
         R"({"Tessaline": {"platformType": "Strata"}, "SandTessaline": {"platformType": "Sand"}})",
         "( strataPlatformData == doc->MemberEnd() ) || ( sandPlatformData == doc->MemberEnd() )"},
    };
    for (const auto& c : cases) {
        TempDir dir;
        Outcome outcome = createOver(dir, c.store);
        EXPECT_EQ(outcome.signal, SIGABRT) << c.what;
        ASSERT_FALSE(outcome.events.empty()) << c.what;
        const Event& last = outcome.events.back();
        EXPECT_EQ(last.group, "Assertion");
        EXPECT_EQ(last.message.rfind("assertion failed: " + c.assertion + " (", 0), 0U)
            << c.what << ": " << last.message;
        ASSERT_EQ(outcome.events.size(), c.notJson ? 2U : 1U) << c.what;
        if (c.notJson) {
            EXPECT_NE(outcome.events[0].message.find(" is not JSON: "), std::string::npos);
            EXPECT_NE(outcome.events[0].message.find(c.where), std::string::npos)
                << outcome.events[0].message;
        }
    }
}

// The sanitizers map terabytes of shadow memory: no address-space bound leaves them room.
#if defined(__SANITIZE_ADDRESS__)
constexpr bool sanitized = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr bool sanitized = true;
#else
constexpr bool sanitized = false;
#endif
#else
constexpr bool sanitized = false;
#endif

// A store that is a device of endless bytes: the sequence's stream parse stops at the first
// byte that is not JSON and ends on the "IsObject()" assertion, having read one buffer; the
// store-bounds guard refuses the device before reading it. The address space is bounded, so
// a parser that read on would fail here rather than take the machine's memory (in the default
// build; a sanitized one runs without the bound).
TEST(ConfigParserCreator, ADeviceOfEndlessBytesEndsAtOnceOrIsRefusedByTheGuard) {
    for (const bool guarded : {false, true}) {
        TempDir dir;
        std::filesystem::create_symlink("/dev/zero", dir.file("zel-persistent-store.json"));
        const Outcome outcome = runProcess(dir, [&] {
            if (!guarded) {
                restoreGuardsIs(RestoreGuards{});
            }
            if (!sanitized) {
                const rlimit memory{std::size_t{512} << 20, std::size_t{512} << 20};
                setrlimit(RLIMIT_AS, &memory);
            }
            assertionHandlerIs([](const char* condition, const char*, int) {
                std::_Exit(std::string(condition) == "IsObject()" ? 42 : 43);
            });
            setenv("ZEL_PSTORE_PATH", dir.path().c_str(), 1);
            std::exit(configParserCreatorFactory()->create() ? Strata : NoParser);
        });
        EXPECT_TRUE(outcome.exited) << "guarded " << guarded << ": signal " << outcome.signal;
        EXPECT_EQ(outcome.exitCode, guarded ? NoParser : 42) << "guarded " << guarded;
    }
}

class StoreDirectory : public ::testing::Test {
  protected:
    void SetUp() override {
        const char* saved = std::getenv("ZEL_PSTORE_PATH");
        hadSaved_ = saved != nullptr;
        saved_ = saved ? saved : "";
    }
    void TearDown() override {
        hadSaved_ ? setenv("ZEL_PSTORE_PATH", saved_.c_str(), 1) : unsetenv("ZEL_PSTORE_PATH");
    }

  private:
    bool hadSaved_ = false;
    std::string saved_;
};

TEST(ConfigParserCreator, StoreDirectoryComesFromTheEnvironmentElseTheFlash) {
    const std::pair<const char*, std::string> cases[] = {
        {nullptr, "/mnt/flash/zel-persistent-store.json"},
        {"/tmp/x", "/tmp/x/zel-persistent-store.json"},
        {"", "/zel-persistent-store.json"}, // set but empty still counts as set
    };
    for (const auto& [value, path] : cases) {
        TempDir dir;
        Outcome outcome = runProcess(dir, [value = value] {
            value ? setenv("ZEL_PSTORE_PATH", value, 1) : unsetenv("ZEL_PSTORE_PATH");
            configParserCreatorFactory()->create();
        });
        ASSERT_GE(outcome.traces.size(), 2U);
        EXPECT_EQ(outcome.traces[1], "Kestrune:3 create pstore file= " + path);
    }
}

TEST_F(StoreDirectory, TheParserKeepsItsOwnCopyOfTheStore) {
    TempDir dir;
    dir.write(
        "zel-persistent-store.json",
        R"({"Tessaline": {"platformType": "Strata"}, "Vant": {"bridgeMacAddr": "02:00:00:00:00:01"}})");
    setenv("ZEL_PSTORE_PATH", dir.path().c_str(), 1);
    auto parser = configParserCreatorFactory()->create();
    ASSERT_NE(parser, nullptr);
    std::filesystem::remove(dir.file("zel-persistent-store.json"));

    const rapidjson::Document* document = parser->document();
    ASSERT_NE(document, nullptr);
    EXPECT_STREQ((*document)["Vant"]["bridgeMacAddr"].GetString(), "02:00:00:00:00:01");
}

} // namespace
} // namespace Kestrune
