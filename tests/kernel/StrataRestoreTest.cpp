#include "SimulatedSwitch.h"
#include "driver/DriverCreator.h"
#include "log/Log.h"
#include "model/LagInterface.h"
#include "model/StrataConfig.h"
#include "model/StrataInterface.h"
#include "platform/StrataDriver.h"
#include "util/Namespace.h"

#include <algorithm>
#include <cstdlib>
#include <gtest/gtest.h>

namespace Kestrune::Testing {
namespace {

// A Strata switch restored with the chip simulator behind the seam, as on a simulated switch.
class StrataRestore : public SimulatedSwitch {
  protected:
    StrataRestore() : SimulatedSwitch(Sim::ChipSimulator::Family::strata) {}
    void SetUp() override {
        SimulatedSwitch::SetUp();
        config_ = strataConfigFactory();
        config_->platformTypeIs("Strata");
        config_->bridgeMacIs("00:1c:73:aa:bb:cc");
        config_->strataModuleIs(StrataModule(1, 3, "bcm56850"), true);
    }
    StrataInterface::Ptr port(const std::string& name, InterfaceType type, std::uint32_t number,
                              const std::string& ns, const std::string& address) {
        auto intf = strataInterfaceFactory(name);
        intf->interfaceTypeIs(type);
        intf->modIdIs(1);
        intf->portIs(number);
        intf->internalVlanIs(number == 0 ? 0 : 4000 + number);
        intf->uc_qbaseIs(number * 8);
        intf->mc_qbaseIs(1024 + number * 8);
        intf->netNsNameIs(ns);
        intf->primaryIpv4Is(address);
        config_->interfaceIs(intf);
        return intf;
    }
    StrataConfig::Ptr config_;
};

TEST_F(StrataRestore, PortsRoutedPortsAndALagComeUpAndTheChipLogSaysHow) {
    port("Ethernet1", InterfaceType::RoutedPort_, 1, "red", "10.1.0.1/24");
    auto member2 = port("Ethernet2", InterfaceType::L2_, 2, "default", "");
    auto member3 = port("Ethernet3", InterfaceType::L2_, 3, "default", "");
    port("Ethernet4", InterfaceType::RoutedPort_, 4, "default", "10.4.0.1/24");
    auto lag = lagInterfaceFactory("Port-Channel5");
    lag->interfaceTypeIs(InterfaceType::LagRouted_);
    lag->internalVlanIs(4005);
    lag->primaryIpv4Is("10.5.0.1/24");
    const std::pair<StrataInterface::Ptr, std::pair<bool, bool>> members[] = {
        {member2, {true, true}}, {member3, {true, false}}};
    for (const auto& [intf, state] : members) {
        auto member = lagMemberFactory();
        member->interfaceIs(intf);
        member->collectingIs(state.first);
        member->distributingIs(state.second);
        lag->memberIs(member);
    }
    config_->interfaceIs(lag);

    const Log::Capture events;
    const Driver::Ptr driver = DriverCreator(config_).create();
    ASSERT_TRUE(std::dynamic_pointer_cast<StrataDriver>(driver));
    ASSERT_TRUE(driver->doInit());
    EXPECT_GT(std::dynamic_pointer_cast<StrataDriver>(driver)->fabFd(), 0);
    driver->doCreateKernelInterfaces();

    for (const Event& event : events.events()) {
        ADD_FAILURE() << event.group << ": " << event.message;
    }
    EXPECT_EQ(chipLog(),
              linesOf(std::string(KESTRUNE_SOURCE_DIR) + "/tests/kernel/expected/strata-chip.log"));
    // The register fixes of a bcm56850: bit 20 of the low word, twice, and bit 17.
    EXPECT_EQ(
        linesOf(dir_.file("registers")),
        (std::vector<std::string>{"3:00.0 0 3 134217780\t20000", "3:00.0 0 3 2919265280\t0 100000",
                                  "3:00.0 0 3 2986374144\t0 100000"}));
    const struct {
        const char* device;
        const char* ns;
        const char* address;
    } expected[] = {{"et1", "red", "10.1.0.1"},
                    {"et2", "default", nullptr},
                    {"et3", "default", nullptr},
                    {"et4", "default", "10.4.0.1"},
                    {"po5", "default", "10.5.0.1"}};
    for (const auto& device : expected) {
        const auto link = linkOf(device.device, device.ns);
        ASSERT_TRUE(link) << device.device;
        EXPECT_TRUE(link->hasFlag("UP")) << device.device;
        if (device.address != nullptr) {
            EXPECT_TRUE(link->address(device.address)) << device.device;
        }
    }
    EXPECT_EQ(linkOf("po5")->operState, "UP");
    EXPECT_EQ(linkOf("fabric")->mac, "00:1c:73:aa:bb:cc");
    const auto& lag5 = simulator_->lags().at(5);
    EXPECT_EQ(lag5.at({1, 2}).state, 3);
    EXPECT_EQ(lag5.at({1, 3}).state, 1);
}

TEST_F(StrataRestore, AModuleThatFailsToAddStopsTheBringUpWithTheAdvancedText) {
    config_->strataModuleDelAll();
    config_->strataModuleIs(StrataModule(2, 4, "bcm56855"), true);
    // Without its register store the chip's register tool answers nothing a read can use.
    unsetenv("KESTRUNE_CHIP_REGISTERS");
    const Log::Capture events;
    const Driver::Ptr driver = DriverCreator(config_).create();
    EXPECT_FALSE(driver->doInit());
    EXPECT_TRUE(traced("Kestrune:0 Unable to add device 2"));
    EXPECT_EQ(messagesOf(events.events()),
              std::vector<std::string>{"StrataDriver: able to add device "});
    EXPECT_EQ(std::dynamic_pointer_cast<StrataDriver>(driver)->fabFd(), 0);
}

TEST_F(StrataRestore, AChipModelWithoutFixesTouchesNoRegister) {
    config_->strataModuleDelAll();
    config_->strataModuleIs(StrataModule(1, 3, "bcm56851"), true);
    const Driver::Ptr driver = DriverCreator(config_).create();
    ASSERT_TRUE(driver->doInit());
    EXPECT_EQ(chipLog(),
              (std::vector<std::string>{"bde adddevice bus=3 mod=1", "run fab devrole 1 switch",
                                        "run fab devstate 1 up", "bde interrupts 1 3"}));
}

TEST_F(StrataRestore, AnIfaddTheChipRefusesLeavesItsLagPartlyProgrammed) {
    auto member2 = port("Ethernet2", InterfaceType::L2_, 2, "default", "");
    auto member3 = port("Ethernet3", InterfaceType::L2_, 3, "default", "");
    auto lag = lagInterfaceFactory("Port-Channel5");
    lag->interfaceTypeIs(InterfaceType::Lag_);
    lag->internalVlanIs(4005);
    for (const auto& intf : {member2, member3}) {
        auto member = lagMemberFactory();
        member->interfaceIs(intf);
        member->collectingIs(true);
        lag->memberIs(member);
    }
    config_->interfaceIs(lag);
    // A device of that name is there already: the chip refuses to make another.
    run({"ip", "link", "add", "et3", "type", "veth", "peer", "name", "et3peer"});
    const Log::Capture events;
    const Driver::Ptr driver = DriverCreator(config_).create();
    ASSERT_TRUE(driver->doInit());
    driver->doCreateKernelInterfaces();
    EXPECT_EQ(messagesOf(events.events()),
              (std::vector<std::string>{
                  "StrataDriver: Fab Ioctl wasn't successful ifadd et3 1 3 -1 4003 24 1048",
                  "Driver: Unable to create Kernel interface for Ethernet3",
                  "StrataDriver: createLagInterface skipping creation due to missing memberIntf "
                  "Ethernet3",
                  "Driver: Unable to create Kernel interface for Port-Channel5",
              }));
    const auto& lag5 = simulator_->lags().at(5);
    EXPECT_EQ(lag5.size(), 1U);
    EXPECT_EQ(lag5.at({1, 2}).state, 1);
    EXPECT_TRUE(lag5.at({1, 2}).configured && lag5.at({1, 2}).added);
    EXPECT_FALSE(driver->created("Port-Channel5"));
}

// A LAG without members is its device alone: made, up, and nothing in the chip's LAG table.
TEST_F(StrataRestore, ALagWithoutMembersIsItsDeviceAlone) {
    auto lag = lagInterfaceFactory("Port-Channel6");
    lag->interfaceTypeIs(InterfaceType::Lag_);
    lag->internalVlanIs(4006);
    config_->interfaceIs(lag);
    const Driver::Ptr driver = DriverCreator(config_).create();
    ASSERT_TRUE(driver->doInit());
    driver->doCreateKernelInterfaces();
    EXPECT_TRUE(driver->created("Port-Channel6"));
    const std::vector<std::string> chip = chipLog();
    EXPECT_EQ(std::count_if(
                  chip.begin(), chip.end(),
                  [](const std::string& line) { return line.rfind("fabric lagmember", 0) == 0; }),
              0);
    EXPECT_NE(std::find(chip.begin(), chip.end(), "fabric ifadd po6 -1 -1 6 4006 0 0"), chip.end());
    EXPECT_TRUE(simulator_->lags().empty());
    const auto device = linkOf("po6");
    ASSERT_TRUE(device);
    EXPECT_TRUE(device->hasFlag("UP"));
}

} // namespace
} // namespace Kestrune::Testing
