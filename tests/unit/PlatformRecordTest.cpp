#include "model/SandConfig.h"
#include "model/StrataConfig.h"

#include <gtest/gtest.h>
#include <limits>
#include <sstream>
#include <stdexcept>

namespace Kestrune {
namespace {

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
