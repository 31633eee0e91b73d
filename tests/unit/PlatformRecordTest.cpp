#include "model/SandConfig.h"
#include "model/StrataConfig.h"

#include <gtest/gtest.h>
#include <limits>
#include <sstream>
#include <stdexcept>

namespace Kestrune {
namespace {

TEST(StrataModule, HashShiftsModIdByBusIdPlus16ModuloThirtyTwo) {
    struct Case {
        std::uint32_t modId;
        std::uint32_t busId;
        std::uint32_t hash;
    };
    const Case cases[] = {
        {3, 0, 196608},                // 3 << 16
        {3, 16, 3},                    // (16 + 16) % 32 == 0
        {1, 47, 2147483648U},          // (47 + 16) % 32 == 31
        {3, 15, 3U << 31},             // the high bit of 3 is shifted out
        {0xFFFFFFFFU, 0, 0xFFFF0000U}, // bits shifted out are lost
        {5, 0xFFFFFFFFU, 5U << 15},    // busId + 16 wraps in 32 bits
        {0, 7, 0},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(StrataModule(c.modId, c.busId, "x").hash(), c.hash)
            << "modId " << c.modId << " busId " << c.busId;
    }
}

TEST(StrataModule, OrderIsModIdThenBusIdThenChipModel) {
    struct Case {
        StrataModule left;
        StrataModule right;
        bool less;
    };
    const Case cases[] = {
        {{1, 2, "a"}, {1, 3, ""}, true}, // busId decides before chipModel
        {{1, 3, ""}, {1, 2, "a"}, false},  {{1, 9, "z"}, {2, 0, ""}, true}, // modId decides first
        {{1, 2, "a"}, {1, 2, "b"}, true},  {{1, 2, "b"}, {1, 2, "a"}, false},
        {{1, 2, "a"}, {1, 2, "a"}, false},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.left < c.right, c.less) << c.left << " < " << c.right;
    }
}

TEST(StrataModule, ModulesDifferingOnlyInChipModelHashAlikeButAreDistinctMembers) {
    StrataModule a(1, 0, "Trident");
    StrataModule b(1, 0, "Tomahawk");
    EXPECT_EQ(a.hash(), b.hash());
    EXPECT_FALSE(a == b);

    auto config = strataConfigFactory();
    config->strataModuleIs(a, true);
    config->strataModuleIs(b, false);
    config->strataModuleIs(a, false); // overwrites the flag, adds nothing
    EXPECT_EQ(config->strataModule().size(), 2U);
    EXPECT_FALSE(config->strataModule(a));
    config->strataModuleDel(b);
    config->strataModuleDel(StrataModule(9, 9, ""));
    EXPECT_EQ(config->strataModule().size(), 1U);
}

TEST(PlatformRecords, DefaultValuesAreFalsy) {
    EXPECT_TRUE(!StrataModule());
    EXPECT_FALSE(!StrataModule(0, 0, "x"));
    EXPECT_FALSE(!StrataModule(0, 1, ""));
    EXPECT_TRUE(!SandFapConfig());
    EXPECT_FALSE(!SandFapConfig("", "", 0, 0, 0, 0, 0, 0, 1));
}

TEST(SandConfig, FapConfigLookupGivesACopyOrADefault) {
    auto config = sandConfigFactory();
    EXPECT_TRUE(!config->sandFapConfig("missing"));

    SandFapConfig fap0("Fap0", "0000:03:00.0", 1, 2, 3, 4, 5, 6, 7);
    config->sandFapConfigIs("Fap0", fap0);
    EXPECT_EQ(config->sandFapConfig("Fap0"), fap0);

    SandFapConfig replaced("Fap0", "0000:04:00.0", 1, 2, 3, 4, 5, 6, 7);
    config->sandFapConfigIs("Fap0", replaced);
    EXPECT_EQ(config->sandFapConfig().size(), 1U);
    EXPECT_EQ(config->sandFapConfig("Fap0").pciName(), "0000:04:00.0");
}

TEST(PlatformRecords, TextFormsNameEveryFieldInOrder) {
    std::ostringstream module;
    module << StrataModule(1, 2, "BCM56850");
    EXPECT_EQ(module.str(),
              "Value('Kestrune::StrataModule', ** {'modId': 1, 'busId': 2, 'chipModel': "
              "'BCM56850'})");
    EXPECT_EQ(valueToStrep(SandFapConfig("Fap0", "0000:03:00.0", 1, 2, 3, 4, 5, 6, 4294967295U)),
              "Value('Kestrune::SandFapConfig', ** {'name': 'Fap0', 'pciName': '0000:03:00.0', "
              "'numFaps': 1, 'fapType': 2, 'cpuTm': 3, 'cpuSflow': 4, 'cpuAradSysPort': 5, "
              "'cpuArad': 6, 'cpuAradBridge': 4294967295})");
}

TEST(PlatformRecords, TextFormsReadBackToTheSameValue) {
    const StrataModule modules[] = {
        {}, {1, 2, "BCM56850"}, {7, 0, "it's \\odd"}, {7, 0, "two\nlines\tand \x01\x7f"}};
    for (const auto& value : modules) {
        std::string text = valueToStrep(value);
        EXPECT_EQ(StrataModule(text.begin(), text.end()), value) << text;
    }
    const SandFapConfig faps[] = {{}, {"Fap0", "0000:03:00.0", 1, 2, 3, 4, 5, 6, 4294967295U}};
    for (const auto& value : faps) {
        std::string text = valueToStrep(value);
        EXPECT_EQ(SandFapConfig(text.begin(), text.end()), value) << text;
    }
}

TEST(PlatformRecords, MalformedTextFormsAreRefusedWithWhereAndWhat) {
    struct Case {
        std::string text;
        std::string error;
    };
    const Case cases[] = {
        {"", "expected \"Value('\" at offset 0"},
        {"Value('Kestrune::SandFapConfig', ** {'modId': 1, 'busId': 2, 'chipModel': ''})",
         "expected \"Kestrune::StrataModule\" at offset 7"},
        {"Value('Kestrune::StrataModule', ** {'modId': 1, 'chipModel': ''})",
         "expected \"busId\" at offset 49"},
        {"Value('Kestrune::StrataModule', ** {'modId': -1, 'busId': 2, 'chipModel': ''})",
         "expected an unsigned 32-bit number for 'modId' at offset 45"},
        {"Value('Kestrune::StrataModule', ** {'modId': 4294967296, 'busId': 2, 'chipModel': ''})",
         "expected an unsigned 32-bit number for 'modId' at offset 45"},
        {"Value('Kestrune::StrataModule', ** {'modId': 1, 'busId': 2, 'chipModel': 'x})",
         "expected \"'\" at offset 77"},
        {"Value('Kestrune::StrataModule', ** {'modId': 1, 'busId': 2, 'chipModel': ''}) ",
         "expected the end of the text at offset 77"},
    };
    for (const auto& c : cases) {
        try {
            StrataModule(c.text.begin(), c.text.end());
            ADD_FAILURE() << "accepted: " << c.text;
        } catch (const std::invalid_argument& e) {
            EXPECT_EQ(std::string(e.what()), "malformed Kestrune::StrataModule text: " + c.error)
                << c.text;
        }
    }
}

} // namespace
} // namespace Kestrune
