// What an image installs around the CLI: the man page and the bash completion, both written
// from the CLI's help, the boot service, and the files that keep udev and networkd off the
// restored devices.
#include "Scenario.h"
#include "parser/ConfigParserCreator.h"
#include "plan/RestorePlan.h"
#include "util/Trace.h"

#include <algorithm>
#include <fnmatch.h>
#include <fstream>
#include <gtest/gtest.h>
#include <regex>
#include <set>
#include <sstream>
#include <string>

namespace Kestrune {
namespace {

using Testing::shellOutput;
using Testing::TempDir;

const std::string cli = KESTRUNE_CLI;
const char* const commands[] = {"restore", "simulate", "check",  "show",    "events",
                                "repair",  "compare",  "status", "timeline"};

// Whether a program is on PATH. The 32-bit root has no man-db and no systemd: the files are
// the same text on every architecture, and the 64-bit run checks them.
bool installed(const std::string& program) {
    int status = -1;
    shellOutput("command -v " + program + " >/dev/null", &status);
    return status == 0;
}

// The long flags a command's help names.
std::set<std::string> flagsOf(const std::string& command) {
    int status = -1;
    const std::string help = shellOutput(cli + " " + command + " --help", &status);
    std::set<std::string> flags;
    const std::regex flag("(^|[ ,])(--[a-z][a-z-]*)");
    for (auto match = std::sregex_iterator(help.begin(), help.end(), flag);
         match != std::sregex_iterator(); ++match) {
        flags.insert((*match)[2]);
    }
    return flags;
}

TEST(ImageFiles, TheManPageHasEveryCommandAndFlagTheHelpHas) {
    if (!installed("man")) {
        GTEST_SKIP() << "no man here";
    }
    int status = -1;
    const std::string page = shellOutput(
        "LC_ALL=C.UTF-8 MANWIDTH=200 man --warnings -l " KESTRUNE_MAN_PAGE " 2>&1", &status);
    ASSERT_EQ(status, 0) << page;
    // Each command's section, up to the next one.
    for (const std::string command : commands) {
        const std::size_t start = page.find("   kestrune " + command + "\n");
        ASSERT_NE(start, std::string::npos) << command << " has no section:\n" << page;
        const std::size_t end = page.find("\n   kestrune ", start + 1);
        const std::string section = page.substr(start, end - start);
        for (const std::string& flag : flagsOf(command)) {
            EXPECT_NE(section.find(flag), std::string::npos) << command << " " << flag;
        }
    }
    EXPECT_EQ(page.find("warning"), std::string::npos) << page;
    for (const char* section : {"\nEXIT STATUS\n", "\nENVIRONMENT\n", "ZEL_PSTORE_PATH"}) {
        EXPECT_NE(page.find(section), std::string::npos) << section;
    }
}

// What an operator meets first: the help shows values as words people use, and a mistyped
// command is named, with the nearest one.
TEST(ImageFiles, TheHelpAndAMistypedCommandSpeakPlainly) {
    for (const std::string command : commands) {
        int status = -1;
        const std::string help = shellOutput(cli + " " + command + " --help", &status);
        for (const char* parserWord : {"TEXT", "UINT", "FLOAT", "NONNEGATIVE", "POSITIVE", ":{"}) {
            EXPECT_EQ(help.find(parserWord), std::string::npos) << command << ": " << parserWord;
        }
    }
    const struct {
        const char* word;
        const char* said;
    } mistyped[] = {
        {"evnets", "kestrune: 'evnets' is not a command (did you mean 'events'?); kestrune "
                   "--help lists them\n"},
        {"restroe", "kestrune: 'restroe' is not a command (did you mean 'restore'?); kestrune "
                    "--help lists them\n"},
        {"frobnicate", "kestrune: 'frobnicate' is not a command; kestrune --help lists them\n"},
    };
    for (const auto& m : mistyped) {
        int status = -1;
        EXPECT_EQ(shellOutput(cli + " " + m.word + " 2>&1", &status), m.said);
        EXPECT_EQ(status, 2) << m.word;
    }
}

TEST(ImageFiles, BashCompletesCommandsAndEachCommandsFlags) {
    // What the completion offers for the words typed so far, the last being completed.
    const auto offered = [](const std::string& words) {
        int status = -1;
        return shellOutput("bash -c 'source " KESTRUNE_COMPLETION "; COMP_WORDS=(" + words +
                               "); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _kestrune; echo "
                               "${COMPREPLY[@]}'",
                           &status);
    };
    struct Case {
        const char* words;
        const char* offer;
    };
    const Case cases[] = {
        {"kestrune res", "restore\n"},
        {"kestrune re", "restore repair\n"},
        {"kestrune \"\"", "restore simulate check show verify repair events compare status "
                          "timeline --help --version\n"},
        {"kestrune compare --max", "--max-slower\n"},
        {"kestrune restore --no", "--no-history\n"},
        {"kestrune events --s", "--since\n"},
        {"kestrune --version events --l", "--limit\n"},
        {"kestrune simulate --chip-r", "--chip-refuses\n"},
        {"kestrune show --tr", "--trace --trace-file\n"},
        {"kestrune verify --p", "--pstore-dir\n"},
        // A flag's value: its choices, or nothing where no file could be one.
        {"kestrune restore --filter-rules \"\"", "first last\n"},
        {"kestrune simulate --filter-rules l", "last\n"},
        {"kestrune restore --order \"\"", "fast library\n"},
        {"kestrune simulate --chip-refuses \"\"", "\n"},
        {"kestrune events --limit \"\"", "\n"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(offered(c.words), c.offer) << c.words;
    }
    for (const std::string command : commands) {
        std::istringstream words(offered("kestrune " + command + " --"));
        std::set<std::string> all;
        for (std::string word; words >> word;) {
            all.insert(word);
        }
        for (const std::string& flag : flagsOf(command)) {
            EXPECT_EQ(all.count(flag), 1U) << command << " " << flag;
        }
    }
}

TEST(ImageFiles, TheServiceManagerAcceptsTheBootService) {
    if (!installed("systemd-analyze")) {
        GTEST_SKIP() << "no systemd-analyze here";
    }
    // The unit as installed, its program the one just built.
    const TempDir dir;
    std::ifstream in(KESTRUNE_SERVICE_UNIT);
    std::stringstream unit;
    unit << in.rdbuf();
    std::string text = unit.str();
    const std::string installed = KESTRUNE_UNIT_BINARY;
    ASSERT_NE(text.find("ExecStart=" + installed + " restore "), std::string::npos) << text;
    text.replace(text.find(installed), installed.size(), cli);
    dir.write("kestrune-restore.service", text);
    int status = -1;
    const std::string verdict = shellOutput(
        "MANPATH=" +
            std::string(KESTRUNE_MAN_PAGE)
                .substr(0, std::string(KESTRUNE_MAN_PAGE).rfind("/man1/")) +
            ": systemd-analyze verify " + dir.file("kestrune-restore.service") + " 2>&1",
        &status);
    EXPECT_EQ(status, 0) << verdict;
    EXPECT_EQ(verdict, "") << "warnings";
}

// The boot service's exposure stays at or below 4.5 (systemd-analyze's scale, 0 to 10): a
// protection dropped, or a capability added, fails here before it reaches an image. The boot
// tier proves the restore works under it.
TEST(ImageFiles, TheBootServiceStaysHardened) {
    if (!installed("systemd-analyze")) {
        GTEST_SKIP() << "no systemd-analyze here";
    }
    int status = -1;
    const std::string verdict =
        shellOutput(std::string("systemd-analyze security --offline=true --threshold=45 ") +
                        KESTRUNE_SERVICE_UNIT + " 2>&1",
                    &status);
    EXPECT_EQ(status, 0) << verdict;
    EXPECT_NE(verdict.find("Overall exposure level for kestrune-restore.service: "),
              std::string::npos)
        << verdict;
}

// The globs of a systemd .network or .link file's [Match] line of that key.
std::vector<std::string> matchGlobs(const std::string& file, const std::string& key) {
    std::istringstream text(Testing::contentOf(KESTRUNE_SOURCE_DIR "/service/" + file));
    std::vector<std::string> globs;
    for (std::string line; std::getline(text, line);) {
        if (line.starts_with(key + "=")) {
            std::istringstream words(line.substr(key.size() + 1));
            for (std::string glob; words >> glob;) {
                globs.push_back(glob);
            }
        }
    }
    return globs;
}

bool matched(const std::vector<std::string>& globs, const std::string& name) {
    return std::any_of(globs.begin(), globs.end(), [&name](const std::string& glob) {
        return fnmatch(glob.c_str(), name.c_str(), 0) == 0;
    });
}

// The kernel names of every device a restore of the store makes.
std::vector<std::string> devicesMade(const std::string& store) {
    const std::uint16_t levels = Trace::levels();
    Trace::levelsIs(0);
    const auto config = configParserCreatorFactory()->createFrom(store)->parse();
    Trace::levelsIs(levels);
    std::vector<std::string> names;
    for (const PlannedDevice& device : restorePlan(*config, false, true).devices) {
        if (device.notMade == NotMade::no) {
            names.push_back(device.name);
        }
    }
    return names;
}

// udev's link policy and networkd's file name the same devices: every one a restore makes of
// the examples and of generated stores of both families (ports, Port-Channels, subinterfaces
// of both, VLAN interfaces, the chip's "fabric"), and none of the links an image has of its
// own. A device the globs missed would be the one whose addresses networkd drops.
TEST(ImageFiles, UdevAndNetworkdLeaveAloneEveryDeviceTheRestoreMakesAndNoOther) {
    const std::vector<std::string> globs = matchGlobs("kestrune.network", "Name");
    ASSERT_FALSE(globs.empty());
    EXPECT_EQ(matchGlobs("kestrune.link", "OriginalName"), globs);

    const TempDir dir;
    int status = -1;
    shellOutput("python3 " KESTRUNE_SOURCE_DIR "/bench/generate-store.py --family strata "
                "--ports 96 --lags 12 --subintfs 48 --svis 24 --vrfs 4 -o " +
                    dir.file("strata.json") +
                    " && python3 " KESTRUNE_SOURCE_DIR
                    "/bench/generate-store.py --family sand --ports 96 --svis 24 --vrfs 4 -o " +
                    dir.file("sand.json"),
                &status);
    ASSERT_EQ(status, 0);
    std::set<std::string> kinds;
    for (const std::string& store : {std::string(KESTRUNE_SOURCE_DIR "/examples/strata.json"),
                                     std::string(KESTRUNE_SOURCE_DIR "/examples/sand.json"),
                                     dir.file("strata.json"), dir.file("sand.json")}) {
        const std::vector<std::string> names = devicesMade(store);
        EXPECT_GT(names.size(), 10U) << store;
        for (const std::string& name : names) {
            EXPECT_TRUE(matched(globs, name)) << name << " of " << store;
            kinds.insert(name.substr(0, 2) + (name.find('.') != std::string::npos ? "." : ""));
        }
    }
    // Each kind of device was among them.
    EXPECT_EQ(kinds, (std::set<std::string>{"et", "et.", "fa", "po", "po.", "vl"}));

    for (const char* own : {"lo", "eth0", "eth0.100", "enp0s5", "ma1", "bond0", "br0", "docker0",
                            "wlan0", "tap0", "veth1", "vxlan10", "eth10"}) {
        EXPECT_FALSE(matched(globs, own)) << own;
    }
}

} // namespace
} // namespace Kestrune
