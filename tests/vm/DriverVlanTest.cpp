#include "PrivateNetwork.h"
#include "TapDriver.h"
#include "log/Log.h"
#include "model/RoutedPortInterface.h"
#include "model/SubInterface.h"
#include "model/VlanInterface.h"

#include <gtest/gtest.h>

namespace Kestrune::Testing {
namespace {

// The platform's CPU device, which SVIs sit on, made as the chip's bring-up would.
class VlanRestore : public PrivateNetwork {
  protected:
    void SetUp() override {
        PrivateNetwork::SetUp();
        run({"ip", "tuntap", "add", "dev", "fabric", "mode", "tap"});
        run({"ip", "link", "set", "fabric", "mtu", "9216", "up"});
        config_ = configFactory();
        config_->bridgeMacIs("00:1c:73:aa:bb:cc");
    }
    void port(const std::string& name, const std::string& ns) {
        auto intf = routedPortInterfaceFactory(name);
        intf->interfaceTypeIs(InterfaceType::RoutedPort_);
        intf->netNsNameIs(ns);
        config_->interfaceIs(intf);
    }
    void subInterface(const std::string& name, std::uint32_t vlan, const std::string& ns,
                      const std::string& address) {
        auto intf = subInterfaceFactory(name);
        intf->interfaceTypeIs(InterfaceType::SubIntf_);
        intf->encapVlanIs(vlan);
        intf->netNsNameIs(ns);
        intf->primaryIpv4Is(address);
        config_->interfaceIs(intf);
    }
    void svi(std::uint32_t vlan, const std::string& ns, const std::string& address) {
        auto intf = vlanInterfaceFactory("Vlan" + std::to_string(vlan));
        intf->interfaceTypeIs(InterfaceType::SVI_);
        intf->vlanIs(vlan);
        intf->netNsNameIs(ns);
        intf->primaryIpv4Is(address);
        config_->interfaceIs(intf);
    }
    Config::Ptr config_;
};

TEST_F(VlanRestore, SvisAndSubinterfacesAreVlanDevicesInTheirNamespaces) {
    port("Ethernet1", "red");
    port("Ethernet2", "default");
    subInterface("Ethernet1.100", 100, "red", "10.5.0.1/24");
    subInterface("Ethernet2.200", 200, "blue", "10.6.0.1/24");
    svi(10, "red", "10.10.0.1/24");
    svi(20, "default", "10.20.0.1/24");
    const Log::Capture events;
    TapDriver driver(config_);
    ASSERT_TRUE(driver.doInit());
    driver.doCreateKernelInterfaces();

    const struct {
        const char* device;
        const char* ns;
        const char* parent;
        int vlan;
        const char* address;
    } expected[] = {
        {"et1.100", "red", "et1", 100, "10.5.0.1"},
        {"et2.200", "blue", "et2", 200, "10.6.0.1"},
        {"vlan10", "red", "fabric", 10, "10.10.0.1"},
        {"vlan20", "default", "fabric", 20, "10.20.0.1"},
    };
    for (const auto& device : expected) {
        const auto link = linkOf(device.device, device.ns);
        ASSERT_TRUE(link) << device.device << " in " << device.ns;
        EXPECT_EQ(link->kind, "vlan") << device.device;
        EXPECT_EQ(link->vlanId, device.vlan) << device.device;
        EXPECT_TRUE(link->hasFlag("UP")) << device.device;
        EXPECT_TRUE(link->address(device.address)) << device.device;
        if (std::string(device.ns) != "default") {
            EXPECT_FALSE(linkOf(device.device))
                << device.device << " left in the default namespace";
        }
    }
    for (const Event& event : events.events()) {
        ADD_FAILURE() << event.group << ": " << event.message;
    }
}

TEST_F(VlanRestore, FailedParentsAndExistingDevicesAreReportedAsWritten) {
    port("Ethernet2", "default");
    subInterface("Ethernet2.200", 200, "default", "10.6.0.1/24");
    subInterface("Ethernet9.5", 5, "default", "10.9.0.1/24"); // no such parent at all
    svi(30, "default", "10.30.0.1/24");
    run({"ip", "link", "add", "link", "fabric", "name", "vlan30", "type", "vlan", "id", "30"});
    const Log::Capture events;
    TapDriver driver(config_);
    driver.refused = {"Ethernet2"};
    driver.doInit();
    driver.doCreateKernelInterfaces();

    std::vector<std::string> messages;
    for (const Event& event : events.events()) {
        EXPECT_EQ(event.group, "Driver");
        messages.push_back(event.message);
    }
    EXPECT_EQ(messages, (std::vector<std::string>{
                            "Unable to create Kernel interface for Ethernet2",
                            "Skipping creation of Ethernet2.200 due to missing parent interface",
                            "Unable to create Kernel interface for Ethernet2.200",
                            "Skipping creation of Ethernet9.5 due to missing parent interface",
                            "Unable to create Kernel interface for Ethernet9.5",
                            "Unable to create SVI vlan30",
                            "Unable to create Kernel interface for Vlan30",
                        }));
    for (const char* name : {"Ethernet2", "Ethernet2.200", "Ethernet9.5", "Vlan30"}) {
        EXPECT_FALSE(driver.created(name)) << name;
        EXPECT_EQ(driver.created().count(name), 1U) << name;
    }
    EXPECT_TRUE(traced("Kestrune:0 Unable to create SVI vlan30"));
    // The device that was there is left as it was: no address of the restore's.
    EXPECT_TRUE(linkOf("vlan30")->addresses.empty());
}

} // namespace
} // namespace Kestrune::Testing
