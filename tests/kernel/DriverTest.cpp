#include "PrivateNetwork.h"
#include "Scenario.h"
#include "TapDriver.h"
#include "log/Log.h"
#include "model/Config.h"
#include "model/IptablesConfig.h"
#include "model/RoutedPortInterface.h"
#include "util/Namespace.h"

#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <set>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Kestrune::Testing {
namespace {

struct Port {
    const char* name;
    InterfaceType type;
    const char* ns;
    int mtu;
    const char* primary;
    std::vector<const char*> secondaries;
    std::vector<const char*> ipv6;
};

Config::Ptr configOf(const std::vector<Port>& ports) {
    auto config = configFactory();
    config->bridgeMacIs("00:1c:73:aa:bb:cc");
    config->platformTypeIs("Test");
    for (const Port& port : ports) {
        auto intf = routedPortInterfaceFactory(port.name);
        intf->interfaceTypeIs(port.type);
        intf->netNsNameIs(port.ns);
        intf->mtuIs(port.mtu);
        intf->primaryIpv4Is(port.primary);
        for (const char* address : port.secondaries) {
            intf->secondaryIpv4Is(address, true);
        }
        for (const char* address : port.ipv6) {
            intf->ipv6Is(address, true);
        }
        config->interfaceIs(intf);
    }
    return config;
}

ino_t inodeOf(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 ? status.st_ino : 0;
}

// A sysctl as the named namespace sees it.
std::string sysctlIn(const std::string& ns, const std::string& path) {
    std::string value = outputOf({"ip", "netns", "exec", ns, "cat", path});
    return value.substr(0, value.find('\n'));
}

// New devices of the namespace start with IPv6 off and IPv6 forwarding on, the opposite of
// what the restore sets, so the test sees that it set them.
void ipv6SwitchesFlipped(const std::string& ns) {
    run({"ip", "netns", "exec", ns, "sh", "-c",
         "echo 1 > /proc/sys/net/ipv6/conf/default/disable_ipv6 && "
         "echo 1 > /proc/sys/net/ipv6/conf/default/forwarding"});
}

using Restore = PrivateNetwork;

TEST_F(Restore, RoutedPortsEndInTheirNamespacesWithTheirLayer3Settings) {
    const Log::Capture events;
    TapDriver driver(configOf({
        {"Ethernet1",
         InterfaceType::RoutedPort_,
         "red",
         9000,
         "10.1.0.1/24",
         {"10.1.0.2/24", "10.1.0.3/24"},
         {"2001:db8:1::1/64"}},
        {"Ethernet2", InterfaceType::RoutedPort_, "blue", 1500, "10.2.0.1/24", {}, {}},
        {"Ethernet3", InterfaceType::RoutedPort_, "red", 9214, "10.1.1.1/31", {}, {}},
        {"Ethernet4",
         InterfaceType::RoutedPort_,
         "default",
         9100,
         "10.3.0.1/24",
         {},
         {"2001:db8:3::1/64", "fd00::3/127"}},
        {"Ethernet5", InterfaceType::L2_, "default", 9214, "", {}, {}},
    }));
    ASSERT_TRUE(driver.doInit());
    // One socket and one netlink socket in each VRF's namespace and in the default one.
    EXPECT_EQ(driver.sockFd().size(), 3U);
    EXPECT_EQ(driver.netlinkFd().size(), 3U);
    std::set<int> fds;
    for (const auto& map : {driver.sockFd(), driver.netlinkFd()}) {
        for (const auto& [ns, fd] : map) {
            EXPECT_GT(fd, 0) << ns;
            fds.insert(fd);
        }
    }
    EXPECT_EQ(fds.size(), 6U);
    for (const char* ns : {"red", "blue", "default"}) {
        ipv6SwitchesFlipped(ns);
    }

    driver.doCreateKernelInterfaces();

    const struct {
        const char* device;
        const char* ns;
        int mtu;
        std::vector<std::pair<std::string, int>> addresses;
        bool ipv6;
    } expected[] = {
        {"et1",
         "red",
         9000,
         {{"10.1.0.1", 24}, {"10.1.0.2", 24}, {"10.1.0.3", 24}, {"2001:db8:1::1", 64}},
         true},
        {"et2", "blue", 1500, {{"10.2.0.1", 24}}, false},
        {"et3", "red", 9214, {{"10.1.1.1", 31}}, false},
        {"et4", "default", 9100, {{"10.3.0.1", 24}, {"2001:db8:3::1", 64}, {"fd00::3", 127}}, true},
    };
    for (const auto& device : expected) {
        const auto link = linkOf(device.device, device.ns);
        ASSERT_TRUE(link) << device.device << " in " << device.ns;
        EXPECT_EQ(link->mtu, device.mtu) << device.device;
        EXPECT_TRUE(link->hasFlag("UP")) << device.device;
        EXPECT_EQ(link->mac, "00:1c:73:aa:bb:cc") << device.device;
        EXPECT_EQ(link->addresses.size(), device.addresses.size()) << device.device;
        for (const auto& [local, prefix] : device.addresses) {
            const Address* address = link->address(local);
            ASSERT_TRUE(address) << device.device << " " << local;
            EXPECT_EQ(address->prefixLength, prefix) << device.device << " " << local;
        }
        const std::string conf = std::string("/proc/sys/net/ipv6/conf/") + device.device;
        // With addresses IPv6 is switched on; without, only forwarding is switched off.
        EXPECT_EQ(sysctlIn(device.ns, conf + "/disable_ipv6"), device.ipv6 ? "0" : "1")
            << device.device;
        EXPECT_EQ(sysctlIn(device.ns, conf + "/forwarding"), device.ipv6 ? "1" : "0")
            << device.device;
    }
    EXPECT_TRUE(linkOf("et1", "red")->address("10.1.0.2")->secondary);
    // The L2 port is made but gets no layer-3 settings.
    EXPECT_TRUE(linkOf("et5"));
    EXPECT_TRUE(linkOf("et5")->addresses.empty());

    EXPECT_EQ(firstLineOf("/proc/sys/net/ipv6/conf/all/forwarding"), "1");
    EXPECT_EQ(sysctlIn("red", "/proc/sys/net/ipv6/conf/all/forwarding"), "0");
    EXPECT_EQ(inodeOf("/proc/thread-self/ns/net"), inodeOf("/var/run/netns/default"));
    EXPECT_EQ(messagesOf(events.events()), std::vector<std::string>{});
    EXPECT_TRUE(traced("Kestrune:0 doCreateVrfs creating Namespace blue"));
    EXPECT_TRUE(traced("Kestrune:3 moveIntfsToCorrectNs Moving Ethernet1 to red"));
    EXPECT_TRUE(traced("Kestrune:3 configureIntfsInNs  changing NS to default"));
}

TEST_F(Restore, AnAddressThatFailsDoesNotStopTheNextOnes) {
    const Log::Capture events;
    TapDriver driver(configOf({
        {"Ethernet1",
         InterfaceType::RoutedPort_,
         "red",
         9214,
         "10.1.0.1/24",
         {"10.1.0.3/24", "10.1.0.300/24", "10.1.0.4/24"},
         {"2001:db8:1::1/64"}},
    }));
    driver.doInit();
    driver.doCreateKernelInterfaces();
    const auto link = linkOf("et1", "red");
    ASSERT_TRUE(link);
    for (const char* local : {"10.1.0.1", "10.1.0.3", "10.1.0.4", "2001:db8:1::1"}) {
        EXPECT_TRUE(link->address(local)) << local;
    }
    EXPECT_TRUE(traced("Kestrune:0 Unable to add 10.1.0.300/24 to et1"));
    EXPECT_EQ(messagesOf(events.events()),
              std::vector<std::string>{"Driver: Unable to add 10.1.0.300/24 to et1"});
}

TEST_F(Restore, AnInterfaceNotCreatedIsNeitherMovedNorConfigured) {
    const Log::Capture events;
    TapDriver driver(configOf({
        {"Ethernet1", InterfaceType::RoutedPort_, "red", 9000, "10.1.0.1/24", {}, {}},
        {"Ethernet2", InterfaceType::RoutedPort_, "red", 9000, "10.1.0.2/24", {}, {}},
    }));
    driver.refused = {"Ethernet2"};
    driver.doInit();
    driver.doCreateKernelInterfaces();
    EXPECT_TRUE(linkOf("et1", "red"));
    EXPECT_FALSE(linkOf("et2", "red"));
    EXPECT_FALSE(driver.created("Ethernet2"));
    EXPECT_EQ(messagesOf(events.events()),
              std::vector<std::string>{"Driver: Unable to create Kernel interface for Ethernet2"});
    for (const std::string& line : traces()) {
        if (line.find("Moving") != std::string::npos ||
            line.find("configure") != std::string::npos ||
            line.find("addIpAddresses") != std::string::npos) {
            EXPECT_EQ(line.find("Ethernet2"), std::string::npos) << line;
        }
    }

    // An interface that has no entry at all in `created` is passed over without a word.
    TapDriver untouched(
        configOf({{"Ethernet7", InterfaceType::RoutedPort_, "red", 9000, "", {}, {}}}));
    untouched.doInit();
    const std::size_t before = traces().size();
    untouched.moveIntfsToCorrectNs();
    untouched.configureIntfsInNs();
    const std::vector<std::string> after(traces().begin() + static_cast<long>(before),
                                         traces().end());
    EXPECT_EQ(after, (std::vector<std::string>{"Kestrune:3 moveIntfsToCorrectNs",
                                               "Kestrune:3 configureIntfsInNs"}));
}

TEST_F(Restore, FilterRulesAreInForceInTheDefaultNamespaceOnly) {
    auto config =
        configOf({{"Ethernet1", InterfaceType::RoutedPort_, "red", 9214, "10.1.0.1/24", {}, {}}});
    config->iptablesConfigIs(iptablesConfigFactory(
        "*filter\n:INPUT ACCEPT [0:0]\n-A INPUT -p tcp --dport 179 -j ACCEPT\nCOMMIT\n",
        "*filter\n:INPUT ACCEPT [0:0]\n-A INPUT -p tcp --dport 646 -j DROP\nCOMMIT\n"));
    TapDriver driver(config);
    driver.doInit();
    driver.doCreateKernelInterfaces();
    const std::string v4 = outputOf({"iptables-save"});
    const std::string v6 = outputOf({"ip6tables-save"});
    EXPECT_NE(v4.find("-A INPUT -p tcp -m tcp --dport 179 -j ACCEPT"), std::string::npos) << v4;
    EXPECT_NE(v6.find("-A INPUT -p tcp -m tcp --dport 646 -j DROP"), std::string::npos) << v6;
    EXPECT_EQ(outputOf({"ip", "netns", "exec", "red", "iptables-save"}).find("179"),
              std::string::npos);
    EXPECT_TRUE(traced("Kestrune:0 configureIptablesRules Adding iptables rules"));
    EXPECT_TRUE(traced("Kestrune:0 configureIptablesRules iptables-restore -n"));
    EXPECT_TRUE(traced("Kestrune:0 configureIptablesRules ip6tables-restore -n"));
}

TEST_F(Restore, EachVrfGetsOneNamespaceWhateverItsMembers) {
    auto config = configOf({
        {"Ethernet1", InterfaceType::RoutedPort_, "red", 9214, "", {}, {}},
        {"Ethernet2", InterfaceType::RoutedPort_, "red", 9214, "", {}, {}},
        {"Ethernet3", InterfaceType::RoutedPort_, "red", 9214, "", {}, {}},
        {"Ethernet4", InterfaceType::RoutedPort_, "blue", 9214, "", {}, {}},
        {"Ethernet5", InterfaceType::RoutedPort_, "default", 9214, "", {}, {}},
        {"Ethernet6", InterfaceType::RoutedPort_, "", 9214, "", {}, {}},
    });
    ZelVrfCreate vrfs;
    vrfs.doInit(config);
    EXPECT_EQ(vrfs.netNsName(), (ZelVrfCreate::NameSet{{"blue", true}, {"red", true}}));
    int creating = 0;
    for (const std::string& line : traces()) {
        creating += line.find(" creating Namespace ") != std::string::npos ? 1 : 0;
    }
    EXPECT_EQ(creating, 2);
    EXPECT_TRUE(traced("Kestrune:3 doCreateVrfs bridgeMac 00:1c:73:aa:bb:cc"));
    const std::string listed = outputOf({"ip", "netns", "list"});
    for (const char* ns : {"red", "blue", "default"}) {
        EXPECT_NE(listed.find(ns), std::string::npos) << ns;
    }
    EXPECT_EQ(inodeOf("/proc/thread-self/ns/net"), inodeOf("/var/run/netns/default"));
}

TEST_F(Restore, ARoutedPortIsMadeAnewInsideItsVrf) {
    auto config = configOf({{"Ethernet9", InterfaceType::RoutedPort_, "red", 9214, "", {}, {}}});
    config->bridgeMacIs("not a MAC");
    ZelVrfCreate vrfs;
    vrfs.doInit(config);
    const int sock = openSocketInNs(AF_INET, SOCK_DGRAM, 0, DEFAULT_NS);
    const Log::Capture events;
    EXPECT_TRUE(vrfs.doMoveIntfToNetNs(config->interface("Ethernet9").get(), sock));
    close(sock);
    EXPECT_TRUE(traced("Kestrune:3 doCreateVrfs bridgeMac 00:00:00:00:00:00"));
    EXPECT_TRUE(traced("Kestrune:3 doMoveIntfToNetNs Moving et9 to red"));
    EXPECT_TRUE(linkOf("et9", "red"));
    // The largest frame size goes on through the default namespace's socket, where this port
    // has no device: traced and recorded, and the move still succeeds.
    EXPECT_TRUE(traced("Kestrune:0 Unable to set MTU of et9 to 10240"));
    EXPECT_EQ(messagesOf(events.events()),
              std::vector<std::string>{"ZelVrfCreate: Unable to set MTU of et9 to 10240"});
}

// Stand-ins for the two restore tools that record how they were run and what they read.
class RestoreTools : public PrivateNetwork {
  protected:
    void SetUp() override {
        PrivateNetwork::SetUp();
        path_ = std::getenv("PATH");
        // Only the stand-ins and the basic tools: the system's restore tools are not found.
        setenv("PATH", (dir_.path().string() + ":/usr/bin:/bin").c_str(), 1);
    }
    void TearDown() override {
        setenv("PATH", path_.c_str(), 1);
        PrivateNetwork::TearDown();
    }
    void standIn(const std::string& tool) const {
        dir_.write(tool, "#!/bin/sh\necho \"$0 $*\" >> " + dir_.file("runs") + "\ncat > " +
                             dir_.file(tool + ".input") + "\n");
        std::filesystem::permissions(dir_.file(tool), std::filesystem::perms::owner_all);
    }
    std::vector<std::string> runs() const { return linesOf(dir_.file("runs")); }
    std::string input(const std::string& tool) const {
        return contentOf(dir_.file(tool + ".input"));
    }
    const TempDir dir_;

  private:
    std::string path_;
};

TEST_F(RestoreTools, EmptyRuleTextsStillRunBothCommandsIpv4First) {
    standIn("iptables-restore");
    standIn("ip6tables-restore");
    TapDriver driver(configOf({}));
    driver.configureIptablesRules();
    EXPECT_EQ(runs(), (std::vector<std::string>{dir_.file("iptables-restore") + " -n",
                                                dir_.file("ip6tables-restore") + " -n"}));
    EXPECT_EQ(input("iptables-restore"), "");
    EXPECT_EQ(input("ip6tables-restore"), "");
}

TEST_F(RestoreTools, ACommandThatCannotStartIsRecordedAndTheOtherStillRuns) {
    standIn("ip6tables-restore");
    auto config = configOf({});
    config->iptablesConfigIs(iptablesConfigFactory("*filter\nCOMMIT\n", "*filter\nCOMMIT\n"));
    TapDriver driver(config);
    const Log::Capture events;
    driver.configureIptablesRules();
    EXPECT_TRUE(traced("Kestrune:0 void Kestrune::Driver::configureIptablesRules(): popen for cmd "
                       "iptables-restore -n failed"));
    EXPECT_EQ(messagesOf(events.events()),
              std::vector<std::string>{"Driver: popen for cmd iptables-restore -n failed"});
    EXPECT_EQ(runs(), std::vector<std::string>{dir_.file("ip6tables-restore") + " -n"});
    EXPECT_EQ(input("ip6tables-restore"), "*filter\nCOMMIT\n");
}

} // namespace
} // namespace Kestrune::Testing
