#include "util/Trace.h"

#include "util/RestoreGuards.h"

#include <gtest/gtest.h>
#include <stdexcept>

namespace Kestrune {
namespace {

class TraceCapture : public ::testing::Test {
  protected:
    void SetUp() override {
        saved_ = Trace::levels();
        Trace::sinkIs([this](std::string_view line) { lines.emplace_back(line); });
    }
    void TearDown() override {
        Trace::sinkIs(nullptr);
        Trace::levelsIs(saved_);
    }
    std::vector<std::string> lines;

  private:
    std::uint16_t saved_ = 0;
};

TEST_F(TraceCapture, LinesCarryTheFacilityAndLevel) {
    Trace::levelsIs(Trace::levelsOf("0,3"));
    TRACE(0) << "create"
             << " " << std::string("/mnt/flash/x") << " file not present";
    TRACE(3) << "create"
             << " pstore file= " << 42;
    TRACE(9) << "not enabled";
    EXPECT_EQ(lines, (std::vector<std::string>{"Kestrune:0 create /mnt/flash/x file not present",
                                               "Kestrune:3 create pstore file= 42"}));
}

// A name from the store holding a newline or a terminal's escape: the sequence writes the
// message as it is; the escaping guard keeps it on its own line and inert.
TEST_F(TraceCapture, ControlBytesAreEscapedOnlyUnderTheGuard) {
    Trace::levelsIs(Trace::levelsOf("0"));
    const RestoreGuards saved = restoreGuards();
    const std::string name = "et1\nKestrune:0 forged\x1b[2J";
    for (const bool escaping : {false, true}) {
        RestoreGuards guards = saved;
        guards.traceEscaping = escaping;
        restoreGuardsIs(guards);
        TRACE(0) << "Unable to create " << name << "\n";
    }
    restoreGuardsIs(saved);
    EXPECT_EQ(lines, (std::vector<std::string>{
                         "Kestrune:0 Unable to create et1\nKestrune:0 forged\x1b[2J\n",
                         "Kestrune:0 Unable to create et1\\nKestrune:0 forged\\x1b[2J\n"}));
}

TEST_F(TraceCapture, ADisabledLevelDoesNotEvaluateItsMessage) {
    Trace::levelsIs(Trace::levelsOf("0"));
    int evaluated = 0;
    auto costly = [&] {
        ++evaluated;
        return "piece";
    };
    TRACE(3) << costly();
    TRACE(0) << costly();
    EXPECT_EQ(evaluated, 1);
    EXPECT_EQ(lines.size(), 1U);
}

TEST(TraceLevels, TextSelectsLevelsAndRanges) {
    const std::pair<std::string, std::uint16_t> cases[] = {
        {"0", 0x1}, {"0,3", 0x9}, {"0-9", 0x3FF}, {"2-4,9", 0x21C}, {"3,3", 0x8}, {"9", 0x200},
    };
    for (const auto& [text, mask] : cases) {
        EXPECT_EQ(Trace::levelsOf(text), mask) << text;
    }
}

TEST(TraceLevels, BadTextIsRefusedWithThePieceAtFault) {
    const std::pair<std::string, std::string> cases[] = {
        {"", "invalid trace level '' in ''"},         {"10", "invalid trace level '10' in '10'"},
        {"0,,3", "invalid trace level '' in '0,,3'"}, {"5-2", "invalid trace range '5-2' in '5-2'"},
        {"0,x", "invalid trace level 'x' in '0,x'"},  {"-1", "invalid trace level '' in '-1'"},
        {"0,", "invalid trace level '' in '0,'"},
    };
    for (const auto& [text, error] : cases) {
        try {
            Trace::levelsOf(text);
            ADD_FAILURE() << "accepted '" << text << "'";
        } catch (const std::invalid_argument& e) {
            EXPECT_EQ(std::string(e.what()).substr(0, error.size()), error) << text;
        }
    }
}

} // namespace
} // namespace Kestrune
