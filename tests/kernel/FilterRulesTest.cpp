#include "state/FilterRules.h"

#include "PrivateNetwork.h"
#include "Scenario.h"
#include "state/Drift.h"
#include "util/Json.h"
#include "util/RestoreLock.h"

#include <gtest/gtest.h>
#include <unistd.h>

namespace Kestrune::Testing {
namespace {

using FilterRules = PrivateNetwork;

// A store spells its rules as its agent wrote them; the kernel holds them as the save tool
// prints them. Loaded in a scratch namespace, the two spellings compare, and loading them
// there leaves the namespace the restore used alone.
TEST_F(FilterRules, StoredRulesAreComparedAsTheKernelHoldsThem) {
    const std::vector<std::tuple<RuleFamily, std::string, std::string>> cases{
        {ipv4Rules, "*filter\n:INPUT ACCEPT [0:0]\n-A INPUT -p tcp --dport 22 -j ACCEPT\nCOMMIT\n",
         "-A INPUT -p tcp -m tcp --dport 22 -j ACCEPT"},
        {ipv6Rules,
         "*filter\n:INPUT ACCEPT [0:0]\n-A INPUT -s 2001:DB8::/32 -p udp --dport 161 -j ACCEPT\n"
         "COMMIT\n",
         "-A INPUT -s 2001:db8::/32 -p udp -m udp --dport 161 -j ACCEPT"},
    };
    const TempDir dir;
    for (const auto& [family, stored, saved] : cases) {
        SCOPED_TRACE(family.name);
        const LoadedRules loaded = rulesAsLoaded(family, stored);
        ASSERT_EQ(loaded.outcome, LoadedRules::Outcome::loaded) << loaded.problem;
        const auto tables = ruleTablesOf(loaded.saved);
        EXPECT_EQ(tables.at("filter").rules, std::vector<std::string>{saved});

        std::string problem;
        const auto before = rulesInForce(family, problem);
        ASSERT_TRUE(before) << problem;
        EXPECT_EQ(ruleTablesOf(*before)["filter"].rules.size(), 0U);
        EXPECT_EQ(ruleDrift(family, tables, ruleTablesOf(*before)).size(), 1U);

        int status = 0;
        const std::string input = dir.file(std::string(family.name) + ".rules");
        dir.write(std::string(family.name) + ".rules", stored);
        shellOutput(std::string(family.restore) + " -n < " + input, &status);
        ASSERT_EQ(status, 0);
        const auto after = rulesInForce(family, problem);
        ASSERT_TRUE(after) << problem;
        EXPECT_TRUE(ruleDrift(family, tables, ruleTablesOf(*after)).empty());
    }
}

// Rules the filter refuses could not have been restored; the reason is the tool's own.
TEST_F(FilterRules, RulesTheFilterRefusesSayWhy) {
    const LoadedRules loaded = rulesAsLoaded(ipv4Rules, "*filter\n-A NOWHERE -j ACCEPT\nCOMMIT\n");
    EXPECT_EQ(loaded.outcome, LoadedRules::Outcome::rejected);
    EXPECT_EQ(loaded.problem.rfind("iptables-restore: ", 0), 0U) << loaded.problem;
}

using VerifyCommand = PrivateNetwork;

// `verify` where no restore ran: every device of the store is missing, and it says so with
// exit 1; a store that cannot be read, or a restore at work, is exit 2.
TEST_F(VerifyCommand, WithoutARestoreEveryDeviceIsMissingAndWhatCannotBeReadIsExit2) {
    const std::string verify = std::string(KESTRUNE_CLI) + " verify --json ";
    int status = -1;
    const std::string json =
        shellOutput(verify + KESTRUNE_SOURCE_DIR + "/examples/strata.json 2>/dev/null", &status);
    EXPECT_EQ(status, 1);
    rapidjson::Document result;
    ASSERT_FALSE(result.Parse(json.c_str()).HasParseError()) << json;
    EXPECT_FALSE(result["matches"].GetBool());
    std::size_t missing = 0;
    for (const auto& drift : result["drift"].GetArray()) {
        missing += std::string(drift["found"].GetString()) == "missing" ? 1 : 0;
    }
    // Each VRF once, not each of its devices; in the default namespace "fabric", the 52 ports
    // and LAGs and the 4 VLAN devices of the default VRF; the user's chain of each family, and
    // all 42 rules.
    EXPECT_EQ(missing, 2U + 1 + 52 + 4 + 2 + 42) << json;

    shellOutput(verify + "/nonexistent/store.json 2>/dev/null", &status);
    EXPECT_EQ(status, 2);

    // Half a restore is not drift: while one runs, verify says so and reads nothing.
    RestoreLock running;
    ASSERT_TRUE(running.doTake()) << running.error();
    const std::string said = shellOutput(
        verify + KESTRUNE_SOURCE_DIR + "/examples/strata.json 2>&1 >/dev/null", &status);
    EXPECT_EQ(status, 2);
    EXPECT_NE(said.find("another restore is running (pid " + std::to_string(getpid())),
              std::string::npos)
        << said;
}

} // namespace
} // namespace Kestrune::Testing
