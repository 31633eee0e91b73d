#include "Scenario.h"

#include <gtest/gtest.h>

namespace Kestrune::Testing {
namespace {

TEST(RestoreCommand, ARestoreThatCannotStartExitsWithTwoAndSaysWhy) {
    const TempDir dir;
    const std::string cli = KESTRUNE_CLI;
    const struct {
        const char* what;
        std::string store;
    } cases[] = {
        {"no store", ""},
        {"a platform without a driver", R"({"SandTessaline": {"platformType": "Other"}})"},
    };
    for (const auto& c : cases) {
        if (!c.store.empty()) {
            dir.write("zel-persistent-store.json", c.store);
        }
        int status = 0;
        const std::string output =
            shellOutput(cli + " restore --history '' --pstore-dir " + dir.path().string() +
                            " --report " + dir.file("report.json") + " 2>&1",
                        &status);
        EXPECT_EQ(status, 2) << c.what << ": " << output;
        EXPECT_NE(output.find("kestrune restore: could not start"), std::string::npos) << c.what;
        const std::string report = shellOutput("cat " + dir.file("report.json"), &status);
        EXPECT_NE(report.find("\"ok\": false"), std::string::npos) << c.what << ": " << report;
    }
}

} // namespace
} // namespace Kestrune::Testing
