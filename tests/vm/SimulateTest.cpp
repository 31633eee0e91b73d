#include "OrderRun.h"
#include "PrivateNetwork.h"
#include "Scenario.h"
#include "util/Json.h"

#include <gtest/gtest.h>
#include <map>
#include <regex>
#include <set>

namespace Kestrune::Testing {
namespace {

// One `kestrune simulate` of an example store: its exit status, its report and its chip log.
struct Simulation {
    TempDir dir;
    int status = -1;
    rapidjson::Document report;

    Simulation(const std::string& example, const std::string& filterRules) {
        outputOf({KESTRUNE_CLI, "simulate",
                  std::string(KESTRUNE_SOURCE_DIR) + "/examples/" + example + ".json", "--history",
                  "", "--trace-file", dir.file("trace.txt"), "--chip-log", dir.file("chip.log"),
                  "--report", dir.file("report.json"), "--filter-rules", filterRules},
                 &status);
        const std::string text = contentOf(dir.file("report.json"));
        EXPECT_FALSE(report.Parse(text.c_str()).HasParseError()) << text;
    }
    std::vector<std::string> chipLog() const { return linesOf(dir.file("chip.log")); }
    static std::vector<std::string> expectedChipLog(const std::string& example) {
        return linesOf(std::string(KESTRUNE_SOURCE_DIR) + "/tests/vm/expected/" + example +
                       "-example-chip.log");
    }
    // namespace -> device -> its state in the report.
    std::map<std::string, std::map<std::string, const rapidjson::Value*>> kernel() const {
        std::map<std::string, std::map<std::string, const rapidjson::Value*>> devices;
        for (const auto& ns : report["kernel"].GetObject()) {
            for (const auto& device : ns.value.GetArray()) {
                devices[ns.name.GetString()][device["name"].GetString()] = &device;
            }
        }
        return devices;
    }
};

// The README's demo: the Strata example restored with the chip simulator, every kind of
// interface up, and the chip told exactly what a switch's chip would be told.
// Each example in both orders of the filter rules.
class Simulate : public ::testing::TestWithParam<const char*> {};

TEST_P(Simulate, TheStrataExampleComesUpWholeAndTheChipLogIsTheExpectedOne) {
    const Simulation run("strata", GetParam());
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.chipLog(), Simulation::expectedChipLog("strata"));
    EXPECT_TRUE(run.report["ok"].GetBool());
    EXPECT_EQ(run.report["failures"]["count"].GetUint(), 0U);
    std::set<std::string> types;
    for (const auto& intf : run.report["interfaces"].GetArray()) {
        EXPECT_TRUE(intf["created"].GetBool()) << intf["name"].GetString();
        types.insert(intf["type"].GetString());
    }
    EXPECT_EQ(types,
              (std::set<std::string>{"L2", "RoutedPort", "Lag", "LagRouted", "SubIntf", "SVI"}));
    std::set<std::string> namespaces;
    for (const auto& [ns, devices] : run.kernel()) {
        namespaces.insert(ns);
        for (const auto& [name, device] : devices) {
            EXPECT_TRUE((*device)["adminUp"].GetBool()) << name;
        }
    }
    EXPECT_EQ(namespaces, (std::set<std::string>{"default", "ns-blue", "ns-red"}));
    EXPECT_TRUE(run.report["verify"]["matches"].GetBool());
}

// The Sand example: ports and SVIs come up; the platform makes no subinterfaces or LAGs, and
// the restore says so for each one, in the order the passes meet them.
TEST_P(Simulate, TheSandExampleBringsUpPortsAndSvisAndReportsItsLagsAndSubinterfaces) {
    const Simulation run("sand", GetParam());
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.chipLog(), Simulation::expectedChipLog("sand"));
    std::vector<std::string> failures;
    for (const auto& text : run.report["failures"]["texts"].GetArray()) {
        failures.emplace_back(text.GetString());
    }
    std::vector<std::string> expected;
    for (const char* lag : {"Port-Channel1", "Port-Channel2", "Port-Channel3", "Port-Channel4"}) {
        expected.push_back(std::string("Driver: Unable to create Kernel interface for ") + lag);
    }
    for (int port = 1; port <= 5; ++port) {
        expected.push_back("Driver: Unable to create Kernel interface for Ethernet1/" +
                           std::to_string(port) + ".100");
    }
    expected.emplace_back(
        "Driver: Skipping creation of Port-Channel1.100 due to missing parent interface");
    expected.emplace_back("Driver: Unable to create Kernel interface for Port-Channel1.100");
    EXPECT_EQ(failures, expected);
    // What the platform cannot make is not drift: the kernel holds all the store asks of it.
    EXPECT_TRUE(run.report["verify"]["matches"].GetBool());

    for (const auto& intf : run.report["interfaces"].GetArray()) {
        const std::string type = intf["type"].GetString();
        const bool made = type == "L2" || type == "RoutedPort" || type == "SVI";
        EXPECT_EQ(intf["created"].GetBool(), made) << intf["name"].GetString();
    }
    const auto kernel = run.kernel();
    const struct {
        const char* ns;
        const char* device;
        unsigned mtu;
        const char* ipv4;
        const char* kind;
    } devices[] = {{"default", "et1_1", 9000, "10.1.0.1/24", "tun"},
                   {"ns-red", "et1_2", 1500, "10.1.1.1/24", "tun"},
                   {"ns-blue", "et1_3", 1500, "10.1.2.1/24", "tun"},
                   {"default", "et1_10", 9000, "10.1.9.1/24", "tun"},
                   {"default", "vlan10", 1500, "10.4.0.1/24", "vlan"},
                   {"ns-red", "vlan11", 1500, "10.4.1.1/24", "vlan"},
                   {"ns-blue", "vlan12", 1500, "10.4.2.1/24", "vlan"}};
    for (const auto& want : devices) {
        ASSERT_EQ(kernel.at(want.ns).count(want.device), 1U) << want.ns << " " << want.device;
        const rapidjson::Value& device = *kernel.at(want.ns).at(want.device);
        EXPECT_TRUE(device["adminUp"].GetBool()) << want.device;
        EXPECT_EQ(device["mtu"].GetUint(), want.mtu) << want.device;
        EXPECT_EQ(device["kind"].GetString(), std::string(want.kind)) << want.device;
        EXPECT_EQ(device["ipv4"][0].GetString(), std::string(want.ipv4)) << want.device;
    }
    // Every CPU device the chip made carries the prio root qdisc the driver adds.
    for (const auto& [name, device] : kernel.at("default")) {
        if (name.rfind("et", 0) == 0) {
            EXPECT_EQ((*device)["qdisc"].GetString(), std::string("prio")) << name;
        }
    }
    EXPECT_EQ(kernel.at("default").count("po1"), 0U);
}

INSTANTIATE_TEST_SUITE_P(FilterRules, Simulate, ::testing::Values("first", "last"));

// The fast order makes VLAN devices in their namespaces and a Sand port's qdisc without tc:
// nothing a caller sees may change with it. Both examples and a generated store with VLAN
// interfaces and subinterfaces spread over VRFs.
class OrderIsNotSeen : public ::testing::TestWithParam<const char*> {};

TEST_P(OrderIsNotSeen, TheFastOrderLeavesTheSameTraceFailuresAndKernel) {
    TempDir dir;
    std::string store = std::string(KESTRUNE_SOURCE_DIR) + "/examples/" + GetParam() + ".json";
    if (std::string(GetParam()) == "generated") {
        store = dir.file("store.json");
        run({"python3", KESTRUNE_SOURCE_DIR "/bench/generate-store.py", "--ports", "64", "--lags",
             "4", "--members", "4", "--subintfs", "48", "--svis", "100", "--vrfs", "8", "-o",
             store});
    }
    if (std::string(GetParam()).find('-') != std::string::npos) {
        // Stores where the orders could part: MTUs the fast order must not give a device
        // before it comes up (it would come up without IPv6 and without the switches the
        // configure pass sets), or that the configure pass refuses (the device keeps what it
        // was made with), and one kernel name in two VRFs.
        run({"python3", KESTRUNE_SOURCE_DIR "/tests/vm/hostile-stores.py", dir.file("stores")});
        store = dir.file("stores/" + std::string(GetParam()) + ".json");
    }
    const OrderRun library(store, "library");
    const OrderRun fast(store, "fast");
    EXPECT_EQ(library.order, "library");
    EXPECT_EQ(fast.order, "fast");
    EXPECT_EQ(fast.status, library.status);
    EXPECT_EQ(fast.tcRuns, 0);
    EXPECT_GT(library.trace.size(), 100U);
    EXPECT_EQ(fast.trace, library.trace);
    EXPECT_EQ(fast.failures, library.failures);
    EXPECT_GE(library.kernel.size(), 3U);
    for (const auto& [ns, devices] : library.kernel) {
        ASSERT_EQ(fast.kernel.count(ns), 1U) << ns;
        EXPECT_EQ(fast.kernel.at(ns).size(), devices.size()) << ns;
        for (const auto& [name, device] : devices) {
            const auto found = fast.kernel.at(ns).find(name);
            EXPECT_EQ(found == fast.kernel.at(ns).end() ? "absent" : found->second, device)
                << ns << " " << name;
        }
    }
    EXPECT_EQ(fast.kernel.size(), library.kernel.size());
}

INSTANTIATE_TEST_SUITE_P(Stores, OrderIsNotSeen,
                         ::testing::Values("strata", "sand", "generated", "below-ipv6-mtu",
                                           "vrf-port-subinterface-mtu--1",
                                           "vrf-port-subinterface-mtu-10241",
                                           "vrf-port-subinterface-mtu-65521",
                                           "vrf-port-subinterface-mtu-2147483647",
                                           "kernel-name-twice-in-two-vrfs"));

// A departure of the fast order, both ways: with tc unusable (a node nobody may run where
// /sbin/tc is), the library's order fails each Sand port's qdisc, as the sequence does, and
// the fast order, which runs no tc, makes every one.
TEST(FastOrderDeparture, WithTcUnusableOnlyTheLibrarysOrderFailsTheSandPortsQdiscs) {
    std::map<std::string, int> qdiscFailures;
    for (const char* order : {"library", "fast"}) {
        SCOPED_TRACE(order);
        const TempDir dir;
        int status = -1;
        const std::string output = shellOutput(
            "unshare -m sh -c 'mount --bind /dev/null /sbin/tc && exec " KESTRUNE_CLI
            " simulate " KESTRUNE_SOURCE_DIR "/examples/sand.json --history \"\" --brief --order " +
                std::string(order) + " --report " + dir.file("report.json") + "' 2>&1",
            &status);
        rapidjson::Document report;
        ASSERT_FALSE(report.Parse(contentOf(dir.file("report.json")).c_str()).HasParseError())
            << output;
        for (const auto& failure : report["failures"]["texts"].GetArray()) {
            const std::string text = failure.GetString();
            qdiscFailures[order] += text.find("Failed to add prio qdisc") != std::string::npos;
        }
    }
    EXPECT_GT(qdiscFailures["library"], 0);
    EXPECT_EQ(qdiscFailures["fast"], 0);
}

} // namespace
} // namespace Kestrune::Testing
