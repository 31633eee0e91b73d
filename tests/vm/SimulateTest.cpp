#include "PrivateNetwork.h"
#include "Scenario.h"
#include "util/Json.h"

#include <gtest/gtest.h>
#include <set>

namespace Kestrune::Testing {
namespace {

// The README's demo: the Strata example restored with the chip simulator, every kind of
// interface up, and the chip told exactly what a switch's chip would be told.
TEST(Simulate, TheStrataExampleComesUpWholeAndTheChipLogIsTheExpectedOne) {
    const TempDir dir;
    int status = -1;
    outputOf({KESTRUNE_CLI, "simulate", std::string(KESTRUNE_SOURCE_DIR) + "/examples/strata.json",
              "--history", "", "--trace-file", dir.file("trace.txt"), "--chip-log",
              dir.file("chip.log"), "--report", dir.file("report.json")},
             &status);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(linesOf(dir.file("chip.log")), linesOf(std::string(KESTRUNE_SOURCE_DIR) +
                                                     "/tests/vm/expected/strata-example-chip.log"));

    const std::string text = contentOf(dir.file("report.json"));
    rapidjson::Document report;
    ASSERT_FALSE(report.Parse(text.c_str()).HasParseError()) << text;
    EXPECT_TRUE(report["ok"].GetBool());
    EXPECT_EQ(report["failures"]["count"].GetUint(), 0U);
    std::set<std::string> types;
    for (const auto& intf : report["interfaces"].GetArray()) {
        EXPECT_TRUE(intf["created"].GetBool()) << intf["name"].GetString();
        types.insert(intf["type"].GetString());
    }
    EXPECT_EQ(types,
              (std::set<std::string>{"L2", "RoutedPort", "Lag", "LagRouted", "SubIntf", "SVI"}));
    std::set<std::string> namespaces;
    for (const auto& ns : report["kernel"].GetObject()) {
        namespaces.insert(ns.name.GetString());
        for (const auto& device : ns.value.GetArray()) {
            EXPECT_TRUE(device["adminUp"].GetBool()) << device["name"].GetString();
        }
    }
    EXPECT_EQ(namespaces, (std::set<std::string>{"default", "ns-blue", "ns-red"}));
}

} // namespace
} // namespace Kestrune::Testing
