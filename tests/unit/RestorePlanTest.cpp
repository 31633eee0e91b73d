// The plan of the restore for stores whose devices cannot all be made: which interface gets
// none and why, as the restore's own steps come to it (the guest's check test runs the same
// kinds of store through a restore).
#include "plan/RestorePlan.h"

#include "Scenario.h"
#include "parser/ConfigParserCreator.h"
#include "util/Json.h"
#include "util/Trace.h"

#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

namespace Kestrune {
namespace {

using Edit = std::function<void(rapidjson::Document&)>;

// The Strata example, edited, as the restore's plan has it.
RestorePlan planOf(const Edit& edit) {
    rapidjson::Document store;
    store.Parse(Testing::contentOf(KESTRUNE_SOURCE_DIR "/examples/strata.json").c_str());
    edit(store);
    rapidjson::StringBuffer text;
    rapidjson::Writer<rapidjson::StringBuffer> writer(text);
    store.Accept(writer);
    const Testing::TempDir dir;
    std::ofstream(dir.file("store.json")) << text.GetString();
    const std::uint16_t levels = Trace::levels();
    Trace::levelsIs(0);
    const auto config = configParserCreatorFactory()->createFrom(dir.file("store.json"))->parse();
    Trace::levelsIs(levels);
    return restorePlan(*config, false, true);
}

// Adds a subinterface of that name and encapsulation VLAN, in the default namespace.
Edit subinterface(const char* name, int vlan) {
    return [=](rapidjson::Document& store) {
        auto& allocator = store.GetAllocator();
        rapidjson::Value id(vlan);
        store["Vant"]["subIntfNameToEncapVlanId"].AddMember(rapidjson::Value(name, allocator), id,
                                                            allocator);
        rapidjson::Value entry(rapidjson::kObjectType);
        entry.AddMember("vrf", "default", allocator);
        entry.AddMember("ip6Address", rapidjson::Value(rapidjson::kArrayType), allocator);
        store["Oku"]["interfaces"].AddMember(rapidjson::Value(name, allocator), entry, allocator);
    };
}

Edit both(Edit first, Edit second) {
    return [=](rapidjson::Document& store) {
        first(store);
        second(store);
    };
}

struct NotMadeCase {
    const char* what;
    Edit edit;
    const char* interface;
    NotMade why;
    const char* whyNot;
};

TEST(RestorePlan, AnInterfaceWithoutADeviceSaysWhy) {
    const NotMadeCase cases[] = {
        {"a parent the store does not have", subinterface("Ethernet1/99.5", 5), "Ethernet1/99.5",
         NotMade::parentNotMade, "Ethernet1/99"},
        {"a parent named in its kernel form", subinterface("Ethernet1_1.200", 200),
         "Ethernet1_1.200", NotMade::parentNotMade, "Ethernet1_1"},
        {"an encapsulation VLAN another subinterface of the port has",
         subinterface("Port-Channel1.102", 100), "Port-Channel1.102", NotMade::vlanTaken,
         "Port-Channel1.100"},
        {"a kernel name another subinterface has, by case",
         both(subinterface("Ethernet1/6.5a", 5), subinterface("Ethernet1/6.5A", 6)),
         "Ethernet1/6.5a", NotMade::nameTaken, "Ethernet1/6.5A"},
        {"an SVI of a VLAN id another SVI has",
         [](rapidjson::Document& store) {
             auto& interfaces = store["Oku"]["interfaces"];
             rapidjson::Value copy(interfaces["Vlan10"], store.GetAllocator());
             interfaces.AddMember("Vlan010", copy, store.GetAllocator());
         },
         "Vlan10", NotMade::vlanTaken, "Vlan010"},
        {"a bridge MAC that is no unicast address",
         [](rapidjson::Document& store) { store["Vant"]["bridgeMacAddr"] = "m"; }, "Ethernet1/1",
         NotMade::bridgeMac, ""},
    };
    for (const NotMadeCase& row : cases) {
        SCOPED_TRACE(row.what);
        const RestorePlan plan = planOf(row.edit);
        const PlannedDevice* device = plan.firstOf(row.interface);
        ASSERT_NE(device, nullptr);
        EXPECT_EQ(device->notMade, row.why);
        if (*row.whyNot != '\0') {
            EXPECT_EQ(device->whyNot, row.whyNot);
        }
    }
}

TEST(RestorePlan, AVlanDeviceTakesNoLargerMtuThanItsLowerHasThen) {
    const RestorePlan plan = planOf([](rapidjson::Document&) {});
    struct LowerCase {
        const char* interface;
        std::uint32_t lowerMtu;
    } const cases[] = {
        {"Ethernet1/1.100", 9000},   // a port routed in the default namespace: its own
        {"Ethernet1/2.100", 10240},  // a VRF's routed port: the largest frames
        {"Port-Channel1.100", 9000}, // a routed LAG in the default namespace
        {"Vlan10", chipDeviceMtu},   // fabric
        {"Ethernet1/3.100", 10240},
    };
    for (const LowerCase& row : cases) {
        SCOPED_TRACE(row.interface);
        const PlannedDevice* device = plan.firstOf(row.interface);
        ASSERT_NE(device, nullptr);
        EXPECT_EQ(device->notMade, NotMade::no);
        EXPECT_EQ(device->lowerMtu, row.lowerMtu);
    }
}

} // namespace
} // namespace Kestrune
