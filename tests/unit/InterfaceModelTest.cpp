#include "model/Config.h"
#include "model/LagInterface.h"
#include "model/SandConfig.h"
#include "model/SandInterface.h"
#include "model/StrataInterface.h"
#include "model/SubInterface.h"
#include "model/VlanInterface.h"

#include <functional>
#include <gtest/gtest.h>
#include <stdexcept>

namespace Kestrune {
namespace {

std::vector<std::string> attributeNames(const Interface& interface) {
    std::vector<std::string> names;
    for (const auto& attribute : interface.attributes()) {
        names.emplace_back(attribute.name);
    }
    return names;
}

std::string textOf(const Interface& interface, std::string_view name) {
    const auto* attribute = attributeNamed(interface.attributes(), name);
    return attribute ? attributeText(attribute->read(interface))
                     : "<no attribute " + std::string(name) + ">";
}

// The attribute names are what `show --json` prints and what users script against; a
// renamed, lost or reordered attribute breaks them.
TEST(InterfaceModel, EveryClassExposesItsAttributesByNameInDeclarationOrder) {
    const std::vector<std::string> base = {"name", "interfaceType", "primaryIpv4", "secondaryIpv4",
                                           "ipv6", "netNsName",     "mtu",         "l2Mtu"};
    auto with = [&](std::vector<std::string> added) {
        auto names = base;
        names.insert(names.end(), added.begin(), added.end());
        return names;
    };
    struct Case {
        Interface::Ptr interface;
        std::string className;
        std::vector<std::string> names;
    };
    const Case cases[] = {
        {interfaceFactory("a"), "Interface", base},
        {routedPortInterfaceFactory("a"), "RoutedPortInterface", with({"internalVlan"})},
        {vlanInterfaceFactory("a"), "VlanInterface", with({"vlan"})},
        {subInterfaceFactory("a"), "SubInterface", with({"internalVlan", "encapVlan"})},
        {lagInterfaceFactory("a"), "LagInterface", with({"internalVlan", "member"})},
        {strataInterfaceFactory("a"), "StrataInterface",
         with({"internalVlan", "port", "modId", "uc_qbase", "mc_qbase"})},
        {sandInterfaceFactory("a"), "SandInterface",
         with({"internalVlan", "nativeVlan", "systemPhyPortId", "trafficClass", "dot1qTunnel",
               "deviceName"})},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.interface->className(), c.className);
        EXPECT_EQ(attributeNames(*c.interface), c.names) << c.className;
    }
}

TEST(InterfaceModel, AttributesReadTheirCurrentValueAsText) {
    auto port = sandInterfaceFactory("Ethernet3");
    port->interfaceTypeIs(InterfaceType::RoutedPort_);
    port->internalVlanIs(1006);
    port->dot1qTunnelIs(7);
    port->deviceNameIs("fap0's");
    port->mtuIs(-1);
    port->ipv6Is("2001:db8::1/64", true);
    port->ipv6Is("2001:db8::2/64", false);

    EXPECT_EQ(textOf(*port, "interfaceType"), "RoutedPort");
    EXPECT_EQ(textOf(*port, "internalVlan"), "1006");
    EXPECT_EQ(textOf(*port, "dot1qTunnel"), "7");
    EXPECT_EQ(textOf(*port, "deviceName"), "'fap0\\'s'");
    EXPECT_EQ(textOf(*port, "mtu"), "-1");
    EXPECT_EQ(textOf(*port, "ipv6"), "{'2001:db8::1/64': true, '2001:db8::2/64': false}");
    EXPECT_EQ(textOf(*port, "noSuchAttribute"), "<no attribute noSuchAttribute>");
}

TEST(InterfaceModel, AddressSetsInsertOverwriteAndDelete) {
    using Op = std::function<void(Interface&)>;
    struct Case {
        std::string what;
        std::vector<Op> ops;
        FlagSet expected;
    };
    const std::string a = "10.0.0.1/24";
    const std::string b = "10.0.1.1/24";
    const Case cases[] = {
        {"a false flag overwrites a true one and keeps the entry",
         {[&](Interface& i) { i.secondaryIpv4Is(a, true); },
          [&](Interface& i) { i.secondaryIpv4Is(a, false); }},
         {{a, false}}},
        {"duplicates collapse",
         {[&](Interface& i) { i.secondaryIpv4Is(a, true); },
          [&](Interface& i) { i.secondaryIpv4Is(a, true); },
          [&](Interface& i) { i.secondaryIpv4Is(b, true); }},
         {{a, true}, {b, true}}},
        {"deleting an absent address is harmless",
         {[&](Interface& i) { i.secondaryIpv4Is(a, true); },
          [&](Interface& i) { EXPECT_FALSE(i.secondaryIpv4Del(b)); }},
         {{a, true}}},
        {"delete returns the flag the entry held",
         {[&](Interface& i) { i.secondaryIpv4Is(a, true); },
          [&](Interface& i) { i.secondaryIpv4Is(b, false); },
          [&](Interface& i) { EXPECT_TRUE(i.secondaryIpv4Del(a)); },
          [&](Interface& i) { EXPECT_FALSE(i.secondaryIpv4Del(b)); }},
         {}},
        {"delete all empties the set",
         {[&](Interface& i) { i.secondaryIpv4Is(a, true); },
          [&](Interface& i) { i.secondaryIpv4DelAll(); }},
         {}},
    };
    for (const auto& c : cases) {
        auto interface = interfaceFactory("Vlan10");
        for (const auto& op : c.ops) {
            op(*interface);
        }
        EXPECT_EQ(interface->secondaryIpv4(), c.expected) << c.what;
        EXPECT_TRUE(interface->ipv6().empty()) << c.what << ": the IPv6 set is separate";
    }
}

TEST(InterfaceModel, InterfaceIsReplacesAnInterfaceOfTheSameNameWhole) {
    auto config = configFactory();
    auto first = interfaceFactory("Ethernet3");
    first->primaryIpv4Is("10.0.0.1/24");
    config->interfaceIs(first);
    ASSERT_GT(first.use_count(), 1);

    auto routed = routedPortInterfaceFactory("Ethernet3");
    config->interfaceIs(routed);

    EXPECT_EQ(config->interface().size(), 1U);
    EXPECT_EQ(config->interface("Ethernet3"), routed);
    EXPECT_EQ(first.use_count(), 1) << "the collection dropped its reference to the old object";
    EXPECT_EQ(config->interface("Ethernet3")->primaryIpv4(), "") << "nothing is merged";
}

TEST(InterfaceModel, MemberIsReplacesAMemberOfTheSameNameWhole) {
    auto lag = lagInterfaceFactory("Port-Channel5");
    auto port = interfaceFactory("Ethernet1");
    auto first = lagMemberFactory();
    first->interfaceIs(port);
    first->collectingIs(true);
    lag->memberIs(first);

    auto second = lagMemberFactory();
    second->interfaceIs(port);
    lag->memberIs(second);
    lag->memberIs(second);

    EXPECT_EQ(lag->member().size(), 1U);
    EXPECT_EQ(lag->member("Ethernet1"), second);
    EXPECT_FALSE(lag->member("Ethernet1")->collecting());
    EXPECT_EQ(first.use_count(), 1);
    EXPECT_EQ(second.use_count(), 2);
    EXPECT_EQ(lag->member("Ethernet2"), nullptr);
}

TEST(InterfaceModel, MemberWithoutPortIsKeptUnderTheEmptyName) {
    auto lag = lagInterfaceFactory("Port-Channel5");
    auto first = lagMemberFactory();
    auto second = lagMemberFactory();
    EXPECT_EQ(first->name(), "");
    lag->memberIs(first);
    lag->memberIs(second);
    EXPECT_EQ(lag->member().size(), 1U);
    EXPECT_EQ(lag->member(""), second);
}

TEST(InterfaceModel, NullHandlesAreRefusedWithTheirExactRangeError) {
    struct Case {
        std::function<void()> mutate;
        std::string message;
    };
    auto config = configFactory();
    auto lag = lagInterfaceFactory("Port-Channel5");
    const Case cases[] = {
        {[&] { config->interfaceIs(nullptr); },
         "null _interface parameter to mutator for Kestrune::Config::interface not allowed\""},
        {[&] { lag->memberIs(nullptr); },
         "null _member parameter to mutator for Kestrune::LagInterface::member not allowed\""},
    };
    for (const auto& c : cases) {
        try {
            c.mutate();
            ADD_FAILURE() << "no range error for: " << c.message;
        } catch (const std::range_error& e) {
            EXPECT_EQ(std::string(e.what()), c.message);
        }
    }
    EXPECT_TRUE(config->interface().empty());
    EXPECT_TRUE(lag->member().empty());
}

} // namespace
} // namespace Kestrune

namespace Kestrune {
namespace {

TEST(NameOrder, InterfacesAreOrderedAsPeopleReadTheirNames) {
    const std::vector<std::string> ordered = {
        "Ethernet1/1", "Ethernet1/1.2", "Ethernet1/1.100", "Ethernet1/2",    "Ethernet1/10",
        "Ethernet2/1", "Ethernet10/1",  "Port-Channel2",   "Port-Channel10", "Vlan9",
        "Vlan010",     "Vlan10",        "Vlan4094"};
    NameOrder less;
    for (std::size_t i = 0; i < ordered.size(); ++i) {
        EXPECT_FALSE(less(ordered[i], ordered[i])) << ordered[i];
        for (std::size_t j = i + 1; j < ordered.size(); ++j) {
            EXPECT_TRUE(less(ordered[i], ordered[j])) << ordered[i] << " < " << ordered[j];
            EXPECT_FALSE(less(ordered[j], ordered[i])) << ordered[j] << " < " << ordered[i];
        }
    }
}

} // namespace
} // namespace Kestrune
