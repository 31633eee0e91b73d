#include "util/NetDevice.h"

#include "PrivateNetwork.h"
#include "util/Command.h"
#include "util/Namespace.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

namespace Kestrune::Testing {
namespace {

// A TAP stands in for the chip's "fabric" device, a veth pair for a port.
class NetDevices : public PrivateNetwork {
  protected:
    void SetUp() override {
        PrivateNetwork::SetUp();
        ASSERT_EQ(mountDefaultNs(), 0);
        run({"ip", "tuntap", "add", "dev", "fabric", "mode", "tap"});
        run({"ip", "link", "add", "et1", "type", "veth", "peer", "name", "et1peer"});
        netlink_ = openSocketInNs(AF_NETLINK, SOCK_DGRAM, 0, DEFAULT_NS);
    }
    void TearDown() override {
        close(netlink_);
        PrivateNetwork::TearDown();
    }
    int netlink_ = -1;
};

TEST_F(NetDevices, AVlanDeviceIsMadeWithItsIdOnItsParent) {
    EXPECT_EQ(makeVlanDevice("fabric", "vlan10", 10, netlink_, DEFAULT_NS), 0);
    EXPECT_EQ(makeVlanDevice("et1", "et1.100", 100, netlink_, DEFAULT_NS), 0);
    // Without a socket of the caller's, one is opened in the named namespace.
    EXPECT_EQ(makeVlanDevice("fabric", "vlan4094", 4094, -1, DEFAULT_NS), 0);
    const struct {
        const char* name;
        const char* parent;
        int id;
    } made[] = {{"vlan10", "fabric", 10}, {"et1.100", "et1", 100}, {"vlan4094", "fabric", 4094}};
    for (const auto& device : made) {
        const auto link = linkOf(device.name);
        ASSERT_TRUE(link) << device.name;
        EXPECT_EQ(link->kind, "vlan") << device.name;
        EXPECT_EQ(link->vlanId, device.id) << device.name;
        EXPECT_EQ(link->parent, device.parent) << device.name;
    }
}

TEST_F(NetDevices, AVlanDeviceThatCannotBeMadeIsAFailure) {
    ASSERT_EQ(makeVlanDevice("fabric", "vlan10", 10, netlink_, DEFAULT_NS), 0);
    EXPECT_EQ(makeVlanDevice("fabric", "vlan10", 10, netlink_, DEFAULT_NS), -EEXIST);
    EXPECT_TRUE(traced("Kestrune:0 makeVlanDevice vlan10: create: File exists"));
    EXPECT_EQ(makeVlanDevice("et9", "et9.5", 5, netlink_, DEFAULT_NS), -ENODEV);
    EXPECT_TRUE(traced("Kestrune:0 makeVlanDevice et9.5: parent device: No such device"));
    EXPECT_LT(makeVlanDevice("fabric", "vlan5000", 5000, netlink_, DEFAULT_NS), 0);
    EXPECT_LT(makeVlanDevice("fabric", "vlan20", 20, -1, "green"), 0);
    EXPECT_FALSE(linkOf("vlan5000"));
}

TEST_F(NetDevices, AVlanDeviceIsMadeInTheNamespaceOfTheSocket) {
    ASSERT_EQ(addNsEvenIfPresent("red"), 0);
    run({"ip", "-n", "red", "link", "add", "et2", "type", "veth", "peer", "name", "et2peer"});
    EXPECT_EQ(makeVlanDevice("et2", "et2.7", 7, -1, "red"), 0);
    EXPECT_TRUE(linkOf("et2.7", "red"));
    EXPECT_FALSE(linkOf("et2.7"));
}

std::string qdiscsOf(const std::string& device) {
    return outputOf({"tc", "qdisc", "show", "dev", device});
}

TEST_F(NetDevices, APrioRootQdiscIsInstalledOverNetlink) {
    EXPECT_EQ(addRootPrioQdisc("fabric"), 0);
    EXPECT_EQ(qdiscsOf("fabric"),
              "qdisc prio 1: root refcnt 2 bands 3 priomap 1 2 2 2 1 2 0 0 1 1 1 1 1 1 1 1\n");
    EXPECT_EQ(addRootPrioQdisc("fabric"), -EEXIST);
    EXPECT_EQ(addRootPrioQdisc("nosuch"), -ENODEV);
    EXPECT_TRUE(traced("Kestrune:0 addRootPrioQdisc nosuch: device: No such device"));
}

} // namespace
} // namespace Kestrune::Testing
