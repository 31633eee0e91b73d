#include "util/KernelName.h"

#include <gtest/gtest.h>

namespace {

TEST(KernelIntfName, MapsEverySwitchNameForm) {
    const struct {
        const char* name;
        const char* kernel;
    } cases[] = {
        {"Ethernet1", "et1"},
        {"Ethernet1/2", "et1_2"},
        {"Ethernet1/2/3", "et1_2_3"},
        {"Ethernet1/1.100", "et1_1.100"},
        {"Ethernet3.4094", "et3.4094"},
        {"Port-Channel5", "po5"},
        {"Port-Channel5.10", "po5.10"},
        {"Port-Channel1000", "po1000"},
        {"Vlan10", "vlan10"},
        {"Vlan4094", "vlan4094"},
        {"Management1", "ma1"},
        {"Management1/1", "ma1_1"},
        // Anything else: lower case, "/" -> "_".
        {"Loopback0", "loopback0"},
        {"Fabric", "fabric"},
        {"Tunnel1/2", "tunnel1_2"},
        // A known word without a number is not that kind of interface.
        {"EthernetX", "ethernetx"},
        {"Vlan", "vlan"},
        // 15 bytes fit.
        {"Ethernet12/34/5.6789", "et12_34_5.6789"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(kernelIntfName(c.name), c.kernel) << c.name;
    }
}

TEST(KernelIntfName, RefusesWhatIsNotAKernelName) {
    const char* refused[] = {
        "",
        "Ethernet1/2/3/4.409400", // 16 bytes
        "Port-Channel1234567890123456",
        "Ethernet1 1",
        "Vlan10\t",
        "Vlan10\n",
        "a:b",
        ".",
        "..",
        "Ethernet1\x7f",
    };
    for (const char* name : refused) {
        EXPECT_EQ(kernelIntfName(name), "") << name;
    }
    EXPECT_EQ(kernelIntfName(std::string_view("Vlan1\0x", 7)), "");
}

TEST(KernelDeviceName, FollowsTheKernelsRule) {
    EXPECT_TRUE(Kestrune::isKernelDeviceName("abcdefghijklmno"));
    EXPECT_FALSE(Kestrune::isKernelDeviceName("abcdefghijklmnop"));
    EXPECT_TRUE(Kestrune::isKernelDeviceName("a;b$(c)"));
    EXPECT_FALSE(Kestrune::isKernelDeviceName("a/b"));
}

} // namespace
