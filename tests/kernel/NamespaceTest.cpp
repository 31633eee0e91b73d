#include "util/Namespace.h"

#include "PrivateNetwork.h"
#include "util/EthIoctlUtil.h"

#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <netinet/ether.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Kestrune::Testing {
namespace {

const std::string defaultNs(DEFAULT_NS);

ino_t inodeOf(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 ? status.st_ino : 0;
}

ino_t threadNamespace() {
    return inodeOf("/proc/thread-self/ns/net");
}

// The namespace a socket was opened in, as the kernel tells it.
ino_t namespaceOfSocket(int fd) {
    const int ns = ioctl(fd, SIOCGSKNS);
    struct stat status {};
    fstat(ns, &status);
    close(ns);
    return status.st_ino;
}

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

class Namespaces : public PrivateNetwork {
  protected:
    void SetUp() override {
        PrivateNetwork::SetUp();
        ASSERT_EQ(mountDefaultNs(), 0);
    }
};

TEST_F(Namespaces, ANamespaceIsCreatedOnceAndTheSecondAddSucceeds) {
    const ino_t before = threadNamespace();
    EXPECT_EQ(addNsEvenIfPresent("red"), 0);
    const ino_t red = inodeOf("/var/run/netns/red");
    EXPECT_EQ(addNsEvenIfPresent("red"), 0);
    EXPECT_EQ(inodeOf("/var/run/netns/red"), red);
    EXPECT_NE(red, before);
    EXPECT_EQ(threadNamespace(), before);
    EXPECT_TRUE(contains(outputOf({"ip", "netns", "list"}), "red"));
    // Operators enter it the usual way.
    int status = -1;
    const std::string links = outputOf({"ip", "netns", "exec", "red", "ip", "-o", "link"}, &status);
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(contains(links, "lo:"));
}

TEST_F(Namespaces, NamesThatAreNotFileNamesAreRefused) {
    for (const char* name : {"", ".", "..", "../etc", "a/b"}) {
        EXPECT_EQ(addNsEvenIfPresent(name), -1) << name;
        EXPECT_EQ(switchToNs(name), -1) << name;
        EXPECT_EQ(openSocketInNs(AF_INET, SOCK_DGRAM, 0, name), -1) << name;
    }
    EXPECT_TRUE(traced("Kestrune:0 addNsEvenIfPresent ../etc is not a namespace name"));
}

TEST_F(Namespaces, ASocketLandsInItsNamespaceAndTheThreadStaysHome) {
    ASSERT_EQ(addNsEvenIfPresent("red"), 0);
    ASSERT_EQ(addNsEvenIfPresent("blue"), 0);
    const ino_t home = threadNamespace();
    for (const std::string& name : {std::string("red"), std::string("blue"), defaultNs}) {
        const int fd = openSocketInNs(AF_INET, SOCK_DGRAM, 0, name);
        ASSERT_GE(fd, 0) << name;
        EXPECT_EQ(namespaceOfSocket(fd), inodeOf("/var/run/netns/" + name)) << name;
        close(fd);
        const int netlink = openSocketInNs(AF_NETLINK, SOCK_DGRAM, 0, name);
        ASSERT_GE(netlink, 0) << name;
        EXPECT_EQ(namespaceOfSocket(netlink), inodeOf("/var/run/netns/" + name)) << name;
        close(netlink);
        EXPECT_EQ(threadNamespace(), home);
    }
    EXPECT_EQ(openSocketInNs(AF_INET, SOCK_DGRAM, 0, "green"), -1);
    EXPECT_TRUE(traced("Kestrune:0 openSocketInNs cannot open namespace /var/run/netns/green: No "
                       "such file or directory"));
}

TEST_F(Namespaces, AWalkIsInEveryNamespaceItEnters) {
    ASSERT_EQ(addNsEvenIfPresent("red"), 0);
    ASSERT_EQ(addNsEvenIfPresent("blue"), 0);
    NamespaceWalk walk;
    // The same namespace twice, then back to one entered before: each file is opened once,
    // and the thread must still end up where it was told.
    for (const std::string& name : {std::string("red"), std::string("red"), std::string("blue"),
                                    defaultNs, std::string("red")}) {
        ASSERT_EQ(walk.enter(name), 0) << name;
        EXPECT_EQ(threadNamespace(), inodeOf("/var/run/netns/" + name)) << name;
    }
    {
        // A visit on the way returns the thread to where the walk left it.
        const NamespaceVisit visit("test", "blue");
        ASSERT_TRUE(visit.entered());
    }
    ASSERT_EQ(walk.enter("red"), 0);
    EXPECT_EQ(threadNamespace(), inodeOf("/var/run/netns/red"));
    // A namespace that is not there leaves the thread where it was.
    EXPECT_EQ(walk.enter("green"), -1);
    EXPECT_EQ(threadNamespace(), inodeOf("/var/run/netns/red"));
    EXPECT_TRUE(traced("Kestrune:0 switchToNs cannot open namespace /var/run/netns/green: No "
                       "such file or directory"));
    ASSERT_EQ(walk.enter(defaultNs), 0);
    EXPECT_EQ(threadNamespace(), inodeOf("/var/run/netns/" + defaultNs));
}

TEST_F(Namespaces, ATapIsCreatedInsideANamedNamespace) {
    ASSERT_EQ(addNsEvenIfPresent("red"), 0);
    const ether_addr mac = *ether_aton("00:1c:73:00:00:01");
    {
        EthIoctlUtil ioctlUtil;
        EXPECT_TRUE(ioctlUtil.createIntf("et1_1", mac, true, "red"));
        const auto link = linkOf("et1_1", "red");
        ASSERT_TRUE(link);
        EXPECT_EQ(link->mac, "00:1c:73:00:00:01");
        EXPECT_EQ(link->kind, "tun");
        EXPECT_FALSE(linkOf("et1_1"));
        // Brought up, the device has carrier because its queue is held open.
        run({"ip", "-n", "red", "link", "set", "et1_1", "up"});
        EXPECT_FALSE(linkOf("et1_1", "red")->hasFlag("NO-CARRIER"));
    }
    // The device outlives its maker, without carrier; the next restore takes it over.
    EXPECT_TRUE(linkOf("et1_1", "red")->hasFlag("NO-CARRIER"));
    EthIoctlUtil next;
    EXPECT_TRUE(next.createIntf("et1_1", mac, true, "red"));
    EXPECT_FALSE(linkOf("et1_1", "red")->hasFlag("NO-CARRIER"));
}

TEST_F(Namespaces, ATapThatCannotBeMadeIsRefused) {
    EthIoctlUtil ioctlUtil;
    const ether_addr mac = *ether_aton("00:1c:73:00:00:01");
    EXPECT_FALSE(ioctlUtil.createIntf("et1_1", mac, true, "green"));
    EXPECT_FALSE(ioctlUtil.createIntf("et 1", mac, true, defaultNs));
    EXPECT_TRUE(traced("Kestrune:0 createIntf et 1 is not a kernel device name"));
    run({"ip", "link", "add", "kt0", "type", "veth", "peer", "name", "kt1"});
    EXPECT_FALSE(ioctlUtil.createIntf("kt0", mac, true, defaultNs));
    EXPECT_TRUE(traced("Kestrune:0 createIntf kt0 TUNSETIFF: Invalid argument"));
}

TEST_F(Namespaces, ADeviceMovesBetweenNamespaces) {
    ASSERT_EQ(addNsEvenIfPresent("red"), 0);
    ASSERT_EQ(addNsEvenIfPresent("blue"), 0);
    run({"ip", "link", "add", "kt0", "type", "veth", "peer", "name", "kt1"});
    EXPECT_EQ(moveIntfToNs("kt0", DEFAULT_NS, "red"), 0);
    EXPECT_FALSE(linkOf("kt0"));
    EXPECT_TRUE(linkOf("kt0", "red"));
    EXPECT_EQ(moveIntfToNs("kt0", "red", "blue"), 0);
    EXPECT_FALSE(linkOf("kt0", "red"));
    EXPECT_TRUE(linkOf("kt0", "blue"));
    EXPECT_EQ(moveIntfToNs("nosuch", DEFAULT_NS, "red"), -1);
    EXPECT_TRUE(traced("Kestrune:0 moveIntfToNs nosuch from default to red: No such device"));
    EXPECT_EQ(moveIntfToNs("kt1", DEFAULT_NS, "green"), -1);
    EXPECT_TRUE(linkOf("kt1"));
}

} // namespace
} // namespace Kestrune::Testing
