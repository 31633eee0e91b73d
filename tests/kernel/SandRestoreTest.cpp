#include "SimulatedSwitch.h"
#include "driver/DriverCreator.h"
#include "log/Log.h"
#include "model/LagInterface.h"
#include "model/SandConfig.h"
#include "model/SandInterface.h"
#include "model/SubInterface.h"
#include "platform/ChipDevice.h"
#include "platform/SandDriver.h"
#include "util/Namespace.h"

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <tuple>

namespace Kestrune::Testing {
namespace {

const char* const mac = "00:1c:73:aa:bb:cc";

// A Sand switch restored with the chip simulator behind the seam, as on a simulated switch.
// The system's tc is replaced, for this test's mounts only, by a program that records how it
// was run and behaves as the file "tc.mode" says: an exit status, or "killed".
class SandRestore : public SimulatedSwitch {
  protected:
    SandRestore() : SimulatedSwitch(Sim::ChipSimulator::Family::sand) {}
    void SetUp() override {
        SimulatedSwitch::SetUp();
        standIn("/usr/sbin/tc", "echo \"$* stderr=$(readlink /proc/self/fd/2)\" >>" +
                                    dir_.file("tc.log") + "\nmode=$(cat " + dir_.file("tc.mode") +
                                    ")\necho 'RTNETLINK answers: File exists' >&2\n"
                                    "[ \"$mode\" = killed ] && kill -KILL $$\nexit $mode\n");
        tcModeIs("0");
        config_ = sandConfigFactory();
        config_->platformTypeIs("Sand");
        config_->bridgeMacIs(mac);
        config_->maxLagsIs(1024);
        config_->maxMembersPerLagIs(16);
        config_->oldestFapTypeIs(3);
        config_->sandFapConfigIs("fap0",
                                 SandFapConfig("fap0", "0000:03:00.0", 1, 3, 0, 1, 2, 3, 4));
        config_->sandFapConfigIs("fap1",
                                 SandFapConfig("fap1", "0000:04:00.0", 1, 3, 5, 6, 7, 8, 9));
    }
    void TearDown() override {
        for (const std::string& path : standIns_) {
            umount2(path.c_str(), MNT_DETACH);
        }
        SimulatedSwitch::TearDown();
    }
    // Puts a shell script over a system program, for this test's mount namespace only.
    void standIn(const std::string& path, const std::string& script) {
        const std::string file = dir_.file(std::to_string(standIns_.size()) + ".sh");
        std::ofstream(file) << "#!/bin/sh\n" << script;
        chmod(file.c_str(), 0755);
        ASSERT_EQ(mount(file.c_str(), path.c_str(), nullptr, MS_BIND, nullptr), 0) << path;
        standIns_.push_back(path);
    }
    void tcModeIs(const std::string& mode) const { std::ofstream(dir_.file("tc.mode")) << mode; }
    SandInterface::Ptr port(const std::string& name, InterfaceType type, std::uint32_t number,
                            const std::string& fap, const std::string& ns = "default",
                            const std::string& address = "") {
        auto intf = sandInterfaceFactory(name);
        intf->interfaceTypeIs(type);
        intf->systemPhyPortIdIs(100 + number);
        intf->trafficClassIs(number % 8);
        intf->nativeVlanIs(number == 1 ? 0 : number * 10);
        intf->dot1qTunnelIs(number == 3 ? 1 : 0);
        intf->deviceNameIs(fap);
        intf->internalVlanIs(type == InterfaceType::RoutedPort_ ? 4000 + number : 0);
        intf->netNsNameIs(ns);
        intf->primaryIpv4Is(address);
        config_->interfaceIs(intf);
        return intf;
    }
    SandDriver::Ptr driver() const {
        return std::dynamic_pointer_cast<SandDriver>(DriverCreator(config_).create());
    }
    SandConfig::Ptr config_;

  private:
    std::vector<std::string> standIns_;
};

TEST_F(SandRestore, PortsComeUpAndTheChipHearsTheSandSequence) {
    port("Ethernet1", InterfaceType::L2_, 1, "fap0");
    port("Ethernet2", InterfaceType::RoutedPort_, 2, "fap0", "red", "10.2.0.1/24");
    port("Ethernet3", InterfaceType::RoutedPort_, 3, "fap1", "default", "10.3.0.1/24");
    auto lag = lagInterfaceFactory("Port-Channel5");
    lag->interfaceTypeIs(InterfaceType::Lag_);
    config_->interfaceIs(lag);
    auto sub = subInterfaceFactory("Ethernet3.100");
    sub->interfaceTypeIs(InterfaceType::SubIntf_);
    sub->encapVlanIs(100);
    config_->interfaceIs(sub);

    const Log::Capture events;
    const SandDriver::Ptr sand = driver();
    ASSERT_TRUE(sand);
    EXPECT_TRUE(traced("Kestrune:0 Creating Sand driver"));
    ASSERT_TRUE(sand->doInit());
    // A simulated switch loads no module, so the channel is the descriptor it started with.
    EXPECT_EQ(sand->fabFd(), 0);
    sand->doCreateKernelInterfaces();

    EXPECT_EQ(chipLog(),
              linesOf(std::string(KESTRUNE_SOURCE_DIR) + "/tests/kernel/expected/sand-chip.log"));
    // The platform makes no LAG or subinterface: its operations only trace, the restore
    // reports them.
    EXPECT_EQ(
        messagesOf(events.events()),
        (std::vector<std::string>{"Driver: Unable to create Kernel interface for Port-Channel5",
                                  "Driver: Unable to create Kernel interface for Ethernet3.100"}));
    EXPECT_TRUE(
        traced(std::string("Kestrune:3 SandDriver::createLagInterface Port-Channel5 ") + mac));
    EXPECT_TRUE(
        traced(std::string("Kestrune:3 SandDriver::createSubInterface Ethernet3.100 ") + mac));
    EXPECT_FALSE(sand->created("Port-Channel5"));

    const struct {
        const char* device;
        const char* ns;
        const char* address;
    } expected[] = {
        {"et1", "default", nullptr}, {"et2", "red", "10.2.0.1"}, {"et3", "default", "10.3.0.1"}};
    for (const auto& device : expected) {
        const auto link = linkOf(device.device, device.ns);
        ASSERT_TRUE(link) << device.device;
        EXPECT_TRUE(link->hasFlag("UP")) << device.device;
        EXPECT_EQ(link->mac, mac) << device.device;
        if (device.address != nullptr) {
            EXPECT_TRUE(link->address(device.address)) << device.device;
        }
    }
    EXPECT_EQ(linkOf("et1")->operState, "UP");
    EXPECT_EQ(linkOf("fabric")->mac, mac);
    // tc runs once per port, with its complaints (and only those) sent to /dev/null.
    EXPECT_EQ(linesOf(dir_.file("tc.log")),
              (std::vector<std::string>{"qdisc add dev et1 root handle 1: prio stderr=/dev/null",
                                        "qdisc add dev et2 root handle 1: prio stderr=/dev/null",
                                        "qdisc add dev et3 root handle 1: prio stderr=/dev/null"}));
}

// Off a simulated switch the module is loaded and the nodes made; a failure of either is
// recorded and the bring-up goes on to the channel it opened.
TEST_F(SandRestore, OffASimulatedSwitchTheModuleLoadIsTriedAndTheOpenedChannelKept) {
    unsetenv("SIMULATION_VMID");
    standIn("/usr/sbin/modprobe", "echo \"$*\" >" + dir_.file("modprobe.log") + "\nexit 1\n");
    config_->sandFapConfigDelAll();
    const Log::Capture events;
    const SandDriver::Ptr sand = driver();
    ASSERT_TRUE(sand->doInit());
    EXPECT_EQ(linesOf(dir_.file("modprobe.log")), std::vector<std::string>{"sand-dma"});
    EXPECT_EQ(
        messagesOf(events.events()),
        (std::vector<std::string>{"SandDriver: setupFabricDevice modprobe sand-dma failed",
                                  "SandDriver: setupFabricDevice mknod /dev/fabric failed",
                                  "SandDriver: setupBdeDevice mknod /dev/kovana-bde failed"}));
    EXPECT_TRUE(
        traced("Kestrune:0 setupFabricDevice Loading sand-dma module: /sbin/modprobe sand-dma"));
    EXPECT_TRUE(traced("Kestrune:0 setupFabricDevice modprobe sand-dma rc 1"));
    EXPECT_TRUE(traced("Kestrune:0 setupBdeDevice kovana-bde  driver loaded."));
    EXPECT_GT(sand->fabFd(), 0);
    EXPECT_EQ(chipLog(), std::vector<std::string>{"fabric drvparams 1024 16 3"});
}

// Each step of making a port that fails stops that port with its own text; a tc that ran
// counts, whatever its exit status.
TEST_F(SandRestore, EachPortStepThatFailsStopsThePortWithItsText) {
    const SandDriver::Ptr sand = driver();
    ASSERT_TRUE(sand->doInit());
    const struct {
        const char* refused; // the chip command refused, or ""
        const char* tcMode;
        bool created;
        const char* failure; // the SandDriver event, or ""
    } cases[] = {
        {"", "0", true, ""},
        {"", "2", true, ""},
        {"", "killed", false, "Failed to add prio qdisc for et%d"},
        {"ifadd", "0", false, "Unable to create kernel Interface for Ethernet%d"},
        {"native_vlan", "0", false, "Unable to set native vlan for Ethernet%d"},
        {"internalvlan", "0", false, "Unable to set internalvlan for Ethernet%d"},
    };
    int number = 0;
    for (const auto& c : cases) {
        ++number;
        const auto intf =
            port("Ethernet" + std::to_string(number), InterfaceType::RoutedPort_, number, "fap1");
        simulator_->refusedIs(*c.refused != '\0' ? std::set<std::string>{c.refused}
                                                 : std::set<std::string>{});
        tcModeIs(c.tcMode);
        const Log::Capture events;
        EXPECT_EQ(sand->createRoutedPortInterface(intf.get(), mac), c.created) << number;
        std::vector<std::string> failures;
        if (*c.failure != '\0') {
            char text[128];
            std::snprintf(text, sizeof text, c.failure, number);
            failures.push_back(std::string("SandDriver: ") + text);
        }
        EXPECT_EQ(messagesOf(events.events()), failures) << number;
    }
}

// The simulated chip holds the driver to the order and shapes a Sand chip's driver needs, so
// a restore that passes against it sends what a switch would take.
TEST_F(SandRestore, TheSimulatedChipRefusesWhatASandChipWould) {
    const struct {
        const char* command;
        bool taken;
    } steps[] = {
        {"devname fap9 0000:09:00.0", false}, // before the driver's parameters
        {"drvparams 1024 16 3", true},
        {"ifadd et9 100 0 fap9 ctrl", false}, // an unknown FAP
        {"devname fap9 0000:09:00.0", true},
        {"devstate fap9 up", false}, // a FAP without its parameters
        {"devparams fap9 1 3 0 1 2 3 4", true},
        {"devstate fap9 up", true},
        {"ifadd et9 100 0 fap9 ctl", false},
        {"ifadd et9 100 0 fap9 ctrl", true},
        {"ifadd et9 100 0 fap9 ctrl", false}, // the device exists
        {"native_vlan et9 0 4097", false},
        {"native_vlan et9 0 4096", true},
        {"internalvlan et9 4000", false}, // Strata's order
        {"internalvlan 4000 et9", true},
        {"lagmemberadd 1 1 1", false}, // a Strata command
    };
    for (const auto& step : steps) {
        EXPECT_EQ(fabricIoctl(0, step.command), step.taken) << step.command;
    }
    const auto& port = simulator_->sandPorts().at("et9");
    EXPECT_EQ(std::tie(port.systemPort, port.fap, port.nativeVlan, port.internalVlan),
              std::make_tuple(100, std::string("fap9"), 4096, 4000));
    EXPECT_TRUE(linkOf("et9"));
}

// The driver's parameters and the FAP registrations must be taken: a chip that refuses one
// ends the restore on the assertion, with the story in the event history.
TEST_F(SandRestore, ARefusedBringUpCommandEndsTheProcessOnTheWrittenAssertion) {
    for (const char* refused : {"drvparams", "devname", "devparams", "devstate"}) {
        simulator_->refusedIs({refused});
        const TempDir history;
        const Outcome outcome = runProcess(history, [this] { driver()->doInit(); });
        EXPECT_EQ(outcome.signal, SIGABRT) << refused;
        ASSERT_FALSE(outcome.events.empty()) << refused;
        EXPECT_EQ(outcome.events.back().group, "Assertion") << refused;
        EXPECT_EQ(outcome.events.back().message.rfind("assertion failed: doFabIoctl( cmd ) (", 0),
                  0U)
            << refused << ": " << outcome.events.back().message;
    }
}

// The same ending from the command line: a rehearsed chip failure ends `simulate` on the
// assertion, and the history it leaves says so.
TEST(SandSimulate, AChipThatRefusesItsDriverParametersEndsTheRestoreWithItsStoryOnDisk) {
    const TempDir dir;
    const std::string cli = KESTRUNE_CLI;
    int status = 0;
    const std::string output = shellOutput(
        cli + " simulate " + KESTRUNE_SOURCE_DIR + "/examples/sand.json --chip-refuses drvparams" +
            " --trace-file /dev/null --history " + dir.file("history.db") + " 2>&1",
        &status);
    EXPECT_EQ(status, 128 + SIGABRT) << output;
    EXPECT_NE(output.find("doFabIoctl( cmd )"), std::string::npos) << output;
    const std::string events =
        shellOutput(cli + " events --history " + dir.file("history.db"), &status);
    EXPECT_NE(events.find("Assertion"), std::string::npos) << events;
    EXPECT_NE(events.find("assertion failed: doFabIoctl( cmd )"), std::string::npos) << events;
}

} // namespace
} // namespace Kestrune::Testing
