#include "CliRun.h"
#include "PrivateNetwork.h"
#include "Scenario.h"
#include "util/Json.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <regex>

namespace Kestrune::Testing {
namespace {

using FilterOrder = PrivateNetwork;

struct OrderedRun {
    CliResult result;
    rapidjson::Document report;
};

// `kestrune simulate` of the Strata example with the filter rules in the given order; process
// ids taken out of the trace, so that two runs compare.
OrderedRun simulated(const TempDir& dir, const std::string& order) {
    OrderedRun run;
    CliRun cli;
    cli.args = {"simulate",       std::string(KESTRUNE_SOURCE_DIR) + "/examples/strata.json",
                "--history",      "",
                "--report",       dir.file(order + ".json"),
                "--filter-rules", order};
    cli.traceFile = dir.file(order + ".txt");
    run.result = runCli(cli);
    static const std::regex pid(" pid [0-9]+$");
    for (std::string& line : run.result.traces) {
        line = std::regex_replace(line, pid, " pid N");
    }
    run.report.Parse(contentOf(dir.file(order + ".json")).c_str());
    return run;
}

// The filter rules first are the very same commands, texts and events as last, moved: the
// block that restores them comes right after the sequence starts instead of at its end, where
// the library's own order has it.
TEST_F(FilterOrder, FirstIsTheLibrarysSequenceWithTheFilterBlockMovedAhead) {
    const TempDir dir;
    const OrderedRun last = simulated(dir, "last");
    const OrderedRun first = simulated(dir, "first");
    ASSERT_TRUE(last.result.exited && first.result.exited);
    EXPECT_EQ(first.result.exitCode, last.result.exitCode);
    EXPECT_EQ(std::string(last.report["filterRules"].GetString()), "last");
    EXPECT_EQ(std::string(first.report["filterRules"].GetString()), "first");
    EXPECT_EQ(first.result.recorded, last.result.recorded);

    const std::vector<std::string>& sequence = last.result.traces;
    const auto block = std::find(sequence.begin(), sequence.end(),
                                 "Kestrune:0 configureIptablesRules Adding iptables rules");
    ASSERT_NE(block, sequence.end());
    // Last: nothing of the restore comes after the filter tools.
    EXPECT_EQ(std::count_if(block, sequence.end(),
                            [](const std::string& line) {
                                return line.find("configureIptablesRules") == std::string::npos &&
                                       line.find("runCommand started ip") == std::string::npos;
                            }),
              0);
    std::vector<std::string> moved(sequence.begin(), block);
    const auto start = std::find(moved.begin(), moved.end(), "Kestrune:3 doCreateKernelInterfaces");
    ASSERT_NE(start, moved.end());
    moved.insert(start + 1, block, sequence.end());
    EXPECT_EQ(first.result.traces, moved);
}

} // namespace
} // namespace Kestrune::Testing
