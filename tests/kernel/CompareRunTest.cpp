// Two real restores of one store, the second on a chip whose fab takes 300 ms a run: compare
// names the bring-up as what got slower, and its gate fails on it.
#include "Scenario.h"
#include "util/Json.h"

#include <gtest/gtest.h>

namespace Kestrune::Testing {
namespace {

TEST(CompareRun, ARestoreOnASlowChipIsSlowerInItsBringUpAndFailsTheGate) {
    const TempDir dir;
    const std::string cli = KESTRUNE_CLI;
    const auto simulate = [&](const std::string& environment, const std::string& report) {
        int status = 0;
        const std::string output =
            shellOutput(environment + " " + cli + " simulate --brief --history '' --chip-log " +
                            dir.file("chip.log") + " --report " + dir.file(report) + " 2>&1",
                        &status);
        ASSERT_TRUE(status == 0 || status == 1) << output; // a host without 8021q: 1
    };
    simulate("", "fast.json");
    simulate("KESTRUNE_CHIP_TOOLS_SLOW=fab:300", "slow.json");

    int status = 0;
    const std::string gate = " --max-slower 50 --min-ms 200 --json";
    const std::string slower = shellOutput(
        cli + " compare " + dir.file("fast.json") + " " + dir.file("slow.json") + gate, &status);
    EXPECT_EQ(status, 1) << slower;
    rapidjson::Document json;
    json.Parse(slower.c_str());
    ASSERT_TRUE(json.IsObject()) << slower;
    std::vector<std::string> over;
    for (const auto& phase : json["slowerThanAllowed"].GetArray()) {
        over.emplace_back(phase.GetString());
    }
    EXPECT_EQ(over, (std::vector<std::string>{"init", "total"})) << slower;

    // The other way round, nothing is slower: the gate passes.
    const std::string faster = shellOutput(
        cli + " compare " + dir.file("slow.json") + " " + dir.file("fast.json") + gate, &status);
    EXPECT_EQ(status, 0) << faster;
}

} // namespace
} // namespace Kestrune::Testing
