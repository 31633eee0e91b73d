// Everything Kestrune says about a restore, against the restore itself, over seeded hostile
// stores (tests/vm/differential-stores.py): check's verdict is the outcome of the command
// line's restore (the fast order); the library's order ends with the same exit status,
// failures and kernel state; and a restore that ends whole leaves the kernel as the plan has
// it, by verify. KESTRUNE_DIFFERENTIAL_SEED and KESTRUNE_DIFFERENTIAL_COUNT choose the stores
// (seed 1, 200 stores by default); each disagreement names its store, to be run again alone.
#include "OrderRun.h"
#include "Scenario.h"
#include "util/Json.h"

#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <map>

namespace Kestrune::Testing {
namespace {

// What `kestrune simulate` exits with for each of check's verdicts; an abort is 128 + SIGABRT.
const std::map<std::string, int> outcomeOf{
    {"complete", 0}, {"incomplete", 1}, {"no restore", 2}, {"ends the process", 134}};

std::string setting(const char* name, const char* otherwise) {
    const char* value = std::getenv(name);
    return value != nullptr && *value != '\0' ? value : otherwise;
}

TEST(Differential, CheckBothOrdersAndVerifyAgreeOnEachStore) {
    const TempDir dir;
    int status = -1;
    shellOutput("python3 " KESTRUNE_SOURCE_DIR "/tests/vm/differential-stores.py --seed " +
                    setting("KESTRUNE_DIFFERENTIAL_SEED", "1") + " --count " +
                    setting("KESTRUNE_DIFFERENTIAL_COUNT", "200") + " " + dir.file("stores"),
                &status);
    ASSERT_EQ(status, 0);
    std::vector<std::string> stores;
    for (const auto& entry : std::filesystem::directory_iterator(dir.file("stores"))) {
        stores.push_back(entry.path().string());
    }
    std::sort(stores.begin(), stores.end());
    ASSERT_FALSE(stores.empty());
    std::map<std::string, int> verdicts;
    for (const std::string& store : stores) {
        SCOPED_TRACE(store + "\n" + contentOf(store));
        rapidjson::Document verdict;
        verdict.Parse(shellOutput(KESTRUNE_CLI " check --json " + store, &status).c_str());
        ASSERT_TRUE(verdict.IsObject() && verdict.HasMember("restore"));
        const std::string said = verdict["restore"].GetString();
        ASSERT_EQ(outcomeOf.count(said), 1U) << said;
        ++verdicts[said];

        const OrderRun fast(store, "fast", "0");
        const OrderRun library(store, "library", "0");
        EXPECT_EQ(fast.status, outcomeOf.at(said)) << "check says " << said;
        EXPECT_EQ(library.status, fast.status);
        EXPECT_EQ(library.trace, fast.trace);
        EXPECT_EQ(library.failures, fast.failures);
        EXPECT_EQ(kernelDifference(library, fast), "");
        if (fast.status == 0) {
            EXPECT_TRUE(fast.verified) << "the kernel is not as the plan has it";
        }
    }
    // The stores reach every outcome but the ones the parse alone decides.
    std::string seen;
    for (const auto& [said, count] : verdicts) {
        seen += said + " " + std::to_string(count) + "; ";
    }
    std::printf("%zu stores: %s\n", stores.size(), seen.c_str());
    EXPECT_GT(verdicts["complete"], 0) << seen;
    EXPECT_GT(verdicts["incomplete"], 0) << seen;
}

} // namespace
} // namespace Kestrune::Testing
