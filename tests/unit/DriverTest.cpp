#include "driver/Driver.h"

#include "Scenario.h"
#include "driver/DriverCreator.h"
#include "driver/NamespaceName.h"
#include "driver/ZelVrfCreate.h"
#include "model/Config.h"
#include "model/SubInterface.h"
#include "platform/StrataDriver.h"
#include "util/Namespace.h"
#include "util/Trace.h"

#include <csignal>
#include <gtest/gtest.h>
#include <stdexcept>

namespace Kestrune::Testing {
namespace {

Config::Ptr configWith(const std::string& name, InterfaceType type) {
    auto config = configFactory();
    config->bridgeMacIs("00:1c:73:aa:bb:cc");
    auto intf =
        type == InterfaceType::SubIntf_ ? subInterfaceFactory(name) : interfaceFactory(name);
    intf->interfaceTypeIs(type);
    config->interfaceIs(intf);
    return config;
}

TEST(DriverCreator, AnyOtherPlatformTypeGivesNoDriverAndSaysNothingMore) {
    for (const char* type : {"strata", "", "Sand ", "STRATA", "Other"}) {
        auto config = configFactory();
        config->platformTypeIs(type);
        std::vector<std::string> traces;
        Trace::levelsIs(Trace::allLevels);
        Trace::sinkIs([&](std::string_view line) { traces.emplace_back(line); });
        const Driver::Ptr driver = DriverCreator(config).create();
        Trace::sinkIs({});
        Trace::levelsIs(1U);
        EXPECT_EQ(driver, nullptr) << type;
        EXPECT_EQ(traces,
                  std::vector<std::string>{"Kestrune:3 create platform = " + std::string(type)});
    }
}

// The LAG id the chip is told: the number of "Port-Channel%d", else -1, sent as it is.
TEST(StrataLagId, IsTheNumberAfterPortChannelOrMinusOne) {
    const std::pair<const char*, int> cases[] = {
        {"Port-Channel12", 12},
        {"Port-Channel0", 0},
        {"Port-Channel-3", -3},
        {"Port-Channel", -1},
        {"Port-Channelx", -1},
        {"Ethernet1/1", -1},
        {"", -1},
        {"Port-Channel7.100", 7},
    };
    for (const auto& [name, id] : cases) {
        EXPECT_EQ(getLagIdFromName(name), id) << name;
    }
}

TEST(NamespaceName, HoldsAtMost150Bytes) {
    EXPECT_EQ(NamespaceName(std::string(150, 'v')).text().size(), 150U);
    try {
        NamespaceName(std::string(151, 'v'));
        FAIL() << "a 151-byte name was taken";
    } catch (const std::range_error& error) {
        EXPECT_STREQ(error.what(), "NamespaceName::bytes > 150 not allowed");
    }
    // The default VRF's interfaces carry "default": the same name as the default namespace.
    EXPECT_EQ(NamespaceName("default"), NamespaceName(DEFAULT_NS));
    EXPECT_LT(NamespaceName("blue"), NamespaceName("red"));
}

TEST(DriverSequence, AnEmptyConfigOnlyTracesItsEntry) {
    std::vector<std::string> traces;
    Trace::levelsIs(Trace::allLevels);
    Trace::sinkIs([&](std::string_view line) { traces.emplace_back(line); });
    Driver driver(configFactory());
    driver.createIntfsInDefaultNs();
    Trace::sinkIs({});
    Trace::levelsIs(1U);
    EXPECT_EQ(traces, std::vector<std::string>{"Kestrune:3 createIntfsInDefaultNs"});
}

// What must never happen ends the process, with the assertion in the event history.
TEST(DriverSequence, WhatMustNeverHappenEndsTheProcessOnTheWrittenAssertion) {
    const struct {
        const char* what;
        std::function<void()> body;
        const char* assertion;
        const char* said = ""; // on standard error before the assertion, "" for nothing
    } cases[] = {
        {"a port on a driver without its platform's operations",
         [] {
             driverFactory(configWith("Ethernet1", InterfaceType::L2_))->doCreateKernelInterfaces();
         },
         "false && \"This method should be overriden\""},
        {"a routed port",
         [] {
             driverFactory(configWith("Ethernet1", InterfaceType::RoutedPort_))
                 ->doCreateKernelInterfaces();
         },
         "false && \"This method should be overriden\""},
        {"a LAG",
         [] {
             driverFactory(configWith("Port-Channel1", InterfaceType::LagRouted_))
                 ->doCreateKernelInterfaces();
         },
         "false && \"This method should be overriden\""},
        {"a subinterface whose parent exists",
         [] {
             auto driver = driverFactory(configWith("Ethernet1.10", InterfaceType::SubIntf_));
             driver->createdIs("Ethernet1", true);
             driver->createIntfsInDefaultNs();
         },
         "false && \"This method should be overriden\""},
        {"an interface of type None",
         [] {
             driverFactory(configWith("Ethernet1", InterfaceType::None_))->createIntfsInDefaultNs();
         },
         "false"},
        {"a VLAN interface that is not an SVI",
         [] {
             auto config = configWith("Ethernet1", InterfaceType::L2_);
             Driver::createVlanInterface(config->interface("Ethernet1").get(), 0, 0);
         },
         "intf->interfaceType() == InterfaceType::SVI_"},
        {"moving an interface that has no layer-3 device",
         [] {
             auto config = configWith("Port-Channel1", InterfaceType::Lag_);
             config->interface("Port-Channel1")->netNsNameIs("ns-red");
             ZelVrfCreate().doMoveIntfToNetNs(config->interface("Port-Channel1").get(), 0);
         },
         "!\"false\"", "Failed(false) Trying to move Port-Channel1 of type Lag to ns-red\n"},
        {"placing a routed port that has no namespace",
         [] {
             auto config = configWith("Ethernet1", InterfaceType::RoutedPort_);
             config->interface("Ethernet1")->netNsNameIs("");
             auto driver = driverFactory(config);
             driver->createdIs("Ethernet1", true);
             driver->moveIntfsToCorrectNs();
         },
         "!\"itr->netNsName() != \\\"\\\"\"",
         "Failed(itr->netNsName() != \"\") Ethernet1 of type RoutedPort has invalid netNsName\n"},
    };
    for (const auto& c : cases) {
        const TempDir dir;
        const Outcome outcome = runProcess(dir, [&] {
            if (std::freopen(dir.file("stderr").c_str(), "w", stderr) == nullptr) {
                std::_Exit(126);
            }
            c.body();
        });
        EXPECT_EQ(contentOf(dir.file("stderr")).rfind(c.said, 0), 0U) << c.what;
        EXPECT_EQ(outcome.signal, SIGABRT) << c.what;
        ASSERT_FALSE(outcome.events.empty()) << c.what;
        EXPECT_EQ(outcome.events.back().group, "Assertion") << c.what;
        EXPECT_EQ(outcome.events.back().message.rfind(
                      std::string("assertion failed: ") + c.assertion + " (", 0),
                  0U)
            << c.what << ": " << outcome.events.back().message;
    }
}

} // namespace
} // namespace Kestrune::Testing
