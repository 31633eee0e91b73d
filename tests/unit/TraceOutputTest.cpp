// Where the commands' trace lines go when nobody asked: nowhere on a terminal, to the journal
// with a priority each, and as the restore has always traced anywhere else.
#include "Scenario.h"

#include <gtest/gtest.h>
#include <string>

namespace Kestrune {
namespace {

using Testing::shellOutput;
using Testing::TempDir;

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

TEST(TraceOutput, ATerminalGetsNoTraceLinesUnlessAskedTheJournalGetsPriorities) {
    const TempDir dir;
    const std::string show =
        std::string(KESTRUNE_CLI) + " show " + KESTRUNE_SOURCE_DIR + "/examples/strata.json";
    // `script` gives the command a terminal of its own and copies what it shows.
    const auto onATerminal = [&](const std::string& options) {
        int status = -1;
        return shellOutput("script -qec '" + show + " " + options + "' /dev/null", &status);
    };
    // Standard error is the journal's stream when JOURNAL_STREAM names its device and inode.
    const auto inTheJournal = [&](const std::string& options) {
        int status = -1;
        const std::string journal = dir.file("journal");
        shellOutput("exec 2>" + journal + "; JOURNAL_STREAM=$(stat -c %d:%i " + journal + ") " +
                        show + " " + options + " >/dev/null",
                    &status);
        return shellOutput("cat " + journal, &status);
    };
    const auto piped = [&](const std::string& options) {
        int status = -1;
        return shellOutput(show + " " + options + " 2>&1 | cat", &status);
    };
    struct Case {
        const char* what;
        std::string output;
        std::vector<std::string> present;
        std::vector<std::string> absent;
    };
    const Case cases[] = {
        {"terminal", onATerminal(""), {"Ethernet1/1"}, {"Kestrune:0", "Kestrune:3"}},
        {"terminal --trace 0", onATerminal("--trace 0"), {"Kestrune:0 Found strata"}, {}},
        {"terminal --trace 0-9", onATerminal("--trace 0-9"), {"Kestrune:3 create"}, {}},
        // A finding is information; only a failure of a restore is a warning (the boot tier
        // reads those back from a real journal).
        {"journal",
         inTheJournal(""),
         {"<6>Kestrune:0 Found strata\n"},
         {"<4>", "Kestrune:3", "\nKestrune:"}},
        {"journal --trace 0-9",
         inTheJournal("--trace 0-9"),
         {"<6>Kestrune:0 Found strata\n", "<6>Kestrune:3 create\n"},
         {"\nKestrune:"}},
        {"piped", piped(""), {"Kestrune:0 Found strata\n"}, {"<6>", "Kestrune:3"}},
    };
    for (const Case& c : cases) {
        for (const std::string& part : c.present) {
            EXPECT_TRUE(contains(c.output, part)) << c.what << " lacks " << part << ":\n"
                                                  << c.output.substr(0, 400);
        }
        for (const std::string& part : c.absent) {
            EXPECT_FALSE(contains(c.output, part)) << c.what << " has " << part;
        }
    }
}

} // namespace
} // namespace Kestrune
