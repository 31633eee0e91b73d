#include "PrivateNetwork.h"
#include "Scenario.h"
#include "util/RestoreGuards.h"
#include "util/Utils.h"

#include <csignal>
#include <functional>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

namespace Kestrune::Testing {
namespace {

// A veth pair, so the device under test is a real Ethernet device with carrier.
class Device : public PrivateNetwork {
  protected:
    void SetUp() override {
        PrivateNetwork::SetUp();
        run({"ip", "link", "add", "kt0", "type", "veth", "peer", "name", "kt1"});
        socket_ = socket(AF_INET, SOCK_DGRAM, 0);
        netlink_ = socket(AF_NETLINK, SOCK_DGRAM, 0);
    }
    void TearDown() override {
        close(socket_);
        close(netlink_);
        PrivateNetwork::TearDown();
    }
    int socket_ = -1;
    int netlink_ = -1;
};

TEST_F(Device, ANameLongerThanTheKernelsIsCutToIt) {
    run({"ip", "link", "add", "abcdefghijklmno", "type", "veth", "peer", "name", "kt2"});
    EXPECT_TRUE(setMtu("abcdefghijklmnopqrstuvwxyz", 1400, socket_));
    EXPECT_EQ(linkOf("abcdefghijklmno")->mtu, 1400);
}

struct Refusal {
    const char* what;
    std::function<bool(int socketFd)> call;
    const char* trace;
};

TEST_F(Device, RefusedIoctlsReturnFalseWithTheKernelsReason) {
    const Refusal refusals[] = {
        {"MAC of a missing device",
         [](int fd) { return setMacAddress("nosuch", "00:1c:73:aa:bb:cc", fd); },
         "Kestrune:0 SIOCSIFHWADDR error No such device\n"},
        {"a multicast MAC", [](int fd) { return setMacAddress("kt0", "01:00:5e:00:00:01", fd); },
         "Kestrune:0 SIOCSIFHWADDR error Cannot assign requested address\n"},
        {"up on a missing device", [](int fd) { return setDevUp("nosuch", fd); },
         "Kestrune:0  SIOCGIFFLAGS error No such device"},
        {"MTU of a missing device", [](int fd) { return setMtu("nosuch", 1500, fd); },
         "Kestrune:0  SIOCSIFMTU error No such device"},
        {"an MTU below the minimum", [](int fd) { return setMtu("kt0", 10, fd); },
         "Kestrune:0  SIOCSIFMTU error Invalid argument"},
    };
    for (const Refusal& refusal : refusals) {
        EXPECT_FALSE(refusal.call(socket_)) << refusal.what;
        EXPECT_TRUE(traced(refusal.trace)) << refusal.what;
    }
}

TEST_F(Device, Ipv4PrimaryAndSecondaryAddressesGoIn) {
    EXPECT_TRUE(ipAddrAdd(netlink_, "kt0", "10.0.0.1/24", false));
    EXPECT_TRUE(ipAddrAdd(netlink_, "kt0", "10.0.0.2/24", true));
    EXPECT_TRUE(ipAddrAdd(netlink_, "kt0", "192.168.7.1/30", true));
    const Link link = *linkOf("kt0");
    ASSERT_EQ(link.addresses.size(), 3U);
    const Address* primary = link.address("10.0.0.1");
    ASSERT_TRUE(primary);
    EXPECT_EQ(primary->prefixLength, 24);
    EXPECT_FALSE(primary->secondary);
    ASSERT_TRUE(link.address("10.0.0.2"));
    EXPECT_TRUE(link.address("10.0.0.2")->secondary);
    // The kernel decides what is secondary: an address of another subnet is a primary.
    const Address* other = link.address("192.168.7.1");
    ASSERT_TRUE(other);
    EXPECT_EQ(other->prefixLength, 30);
    EXPECT_FALSE(other->secondary);
    EXPECT_TRUE(traced("Kestrune:3 ipAddrAdd kt0 10.0.0.1/24"));
}

TEST_F(Device, AddressesThatCannotGoInReturnFalse) {
    ASSERT_TRUE(ipAddrAdd(netlink_, "kt0", "10.0.0.1/24", false));
    EXPECT_FALSE(ipAddrAdd(netlink_, "kt0", "10.0.0.1/24", false));
    EXPECT_TRUE(traced("Kestrune:0 netlinkIpv4AddrAdd failed: File exists"));
    EXPECT_FALSE(ipAddrAdd(netlink_, "kt0", "10.0.0.300/24", false));
    EXPECT_TRUE(traced("Kestrune:0 ipAddrAdd kt0 not an IPv4 address: 10.0.0.300"));
    // A prefix length past the family's: refused before the kernel when the ranges are
    // guarded, by the kernel when not (where /256 would go in as a /0).
    EXPECT_FALSE(ip6AddrAdd(netlink_, "kt0", "2001:db8::1/129"));
    EXPECT_TRUE(traced("Kestrune:0 ip6AddrAdd kt0 prefix length of 2001:db8::1/129 is outside 0 "
                       "to 128"));
    const RestoreGuards guarded = restoreGuards();
    RestoreGuards unguarded = guarded;
    unguarded.valueRanges = false;
    restoreGuardsIs(unguarded);
    EXPECT_FALSE(ip6AddrAdd(netlink_, "kt0", "2001:db8::1/129"));
    restoreGuardsIs(guarded);
    EXPECT_TRUE(traced("Kestrune:0 netlinkIpv6AddrAdd failed: Invalid argument"));
    EXPECT_EQ(linkOf("kt0")->addresses.size(), 1U);
}

TEST_F(Device, AnAddressForAMissingDeviceSaysSoOnStandardOutput) {
    bool added = true;
    EXPECT_EQ(stdoutOf([&] { added = ipAddrAdd(netlink_, "nosuch", "10.0.0.1/24", false); }),
              "Not Found at index\n ");
    EXPECT_FALSE(added);
    EXPECT_EQ(stdoutOf([&] { added = ip6AddrAdd(netlink_, "nosuch", "2001:db8::1/64"); }),
              "Not Found at index\n ");
    EXPECT_FALSE(added);
}

TEST_F(Device, Ipv6SwitchesAreWrittenUnderProc) {
    sysIpv6Disable("kt0", 1);
    EXPECT_EQ(firstLineOf("/proc/sys/net/ipv6/conf/kt0/disable_ipv6"), "1");
    sysIpv6Disable("kt0", 0);
    EXPECT_EQ(firstLineOf("/proc/sys/net/ipv6/conf/kt0/disable_ipv6"), "0");
    sysIpv6Forwarding("kt0", 1);
    EXPECT_EQ(firstLineOf("/proc/sys/net/ipv6/conf/kt0/forwarding"), "1");
    sysGlobalIpv6Forwarding(1);
    EXPECT_EQ(firstLineOf("/proc/sys/net/ipv6/conf/all/forwarding"), "1");
    sysGlobalIpv6Forwarding(0);
    EXPECT_EQ(firstLineOf("/proc/sys/net/ipv6/conf/all/forwarding"), "0");
}

TEST_F(Device, ASysctlOfAMissingDeviceEndsTheProcessOnARecordedAssertion) {
    const TempDir dir;
    const Outcome outcome = runProcess(dir, [] { sysIpv6Forwarding("nosuch", 0); });
    EXPECT_EQ(outcome.signal, SIGABRT);
    ASSERT_FALSE(outcome.events.empty());
    EXPECT_EQ(outcome.events.back().group, "Assertion");
    EXPECT_NE(outcome.events.back().message.find("assertion failed: fp"), std::string::npos);
}

} // namespace
} // namespace Kestrune::Testing
