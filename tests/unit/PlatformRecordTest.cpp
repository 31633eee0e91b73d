#include "model/SandConfig.h"
#include "model/StrataConfig.h"

#include <gtest/gtest.h>
#include <limits>
#include <sstream>
#include <stdexcept>
#include <vector>

namespace Kestrune {
namespace {

// The module hash is a fixed mix that stores and tools depend on: modId shifted by busId + 16
// modulo 32, in 32 bits, the chip model left out.
TEST(StrataModules, HashAsTheToolsDo) {
    const std::pair<StrataModule, std::uint32_t> cases[] = {
        {{3, 0, "x"}, 196608U},          {{3, 16, "x"}, 3U},
        {{1, 47, ""}, 2147483648U},      {{0xFFFF, 8, "a"}, 0xFF000000U},
        {{0xFFFF, 7, "a"}, 0xFF800000U}, {{3, 0, "bcm56850"}, 196608U},
    };
    for (const auto& [module, hash] : cases) {
        EXPECT_EQ(module.hash(), hash) << module;
    }
}

// The chip set is iterated by modId, then busId, then model: the order in which the chips are
// added and their bus bytes go into the enable-interrupts record. Modules that differ only in
// their model hash alike and are still two chips.
TEST(StrataModules, AreOrderedByModIdThenBusIdThenModel) {
    StrataConfig config;
    for (const StrataModule& module :
         {StrataModule{2, 1, "b"}, StrataModule{1, 9, "a"}, StrataModule{2, 1, "a"},
          StrataModule{1, 3, "z"}, StrataModule{2, 0, "z"}, StrataModule{1, 3, "z"}}) {
        config.strataModuleIs(module, true);
    }
    std::vector<std::string> order;
    for (const auto& [module, flag] : config.strataModule()) {
        order.push_back(valueToStrep(module));
    }
    const auto text = [](const StrataModule& module) { return valueToStrep(module); };
    EXPECT_EQ(order,
              (std::vector<std::string>{text({1, 3, "z"}), text({1, 9, "a"}), text({2, 0, "z"}),
                                        text({2, 1, "a"}), text({2, 1, "b"})}));
    EXPECT_EQ(StrataModule(2, 1, "a").hash(), StrataModule(2, 1, "b").hash());
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
