#include "log/Log.h"

#include "Scenario.h"
#include "log/EventJournal.h"
#include "log/HistoryStore.h"
#include "util/Assert.h"
#include "util/Json.h"
#include "util/RestoreGuards.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/stat.h>

namespace Kestrune {
namespace {

using Testing::messagesOf;
using Testing::Outcome;
using Testing::runProcess;
using Testing::TempDir;

TEST(EventLog, EventsOfAProcessThatExitsNormallyAreStoredAtExit) {
    TempDir dir;
    Outcome outcome = runProcess(dir, [] {
        Log::logEvent("Driver", "first");
        Log::logEvent("ZelVrfCreate", "second");
    });
    ASSERT_TRUE(outcome.exited);
    ASSERT_EQ(outcome.events.size(), 2U);
    EXPECT_EQ(messagesOf(outcome.events),
              (std::vector<std::string>{"Driver: first", "ZelVrfCreate: second"}));
    for (const Event& event : outcome.events) {
        EXPECT_EQ(event.persistence, "persistent");
        EXPECT_EQ(event.agent, "Kestrune");
        EXPECT_GT(event.time, 1.7e9) << "a UTC time in seconds";
    }
    EXPECT_LE(outcome.events[0].time, outcome.events[1].time);
}

TEST(EventLog, AProcessEndingOnAnAssertionLeavesItsEventsAndTheAssertion) {
    TempDir dir;
    Outcome outcome = runProcess(dir, [] {
        Log::logEvent("Driver", "before the fault");
        KESTRUNE_ASSERT(1 + 1 == 3);
    });
    EXPECT_EQ(outcome.signal, SIGABRT);
    ASSERT_EQ(outcome.events.size(), 2U);
    EXPECT_EQ(outcome.events[0].message, "before the fault");
    EXPECT_EQ(outcome.events[1].group, "Assertion");
    EXPECT_EQ(outcome.events[1].message.rfind("assertion failed: 1 + 1 == 3 (", 0), 0U)
        << outcome.events[1].message;
    EXPECT_NE(outcome.events[1].message.find("LogTest.cpp:"), std::string::npos);
}

// What standard error says of an assertion: the condition as always; under a service manager
// as the journal's critical line, and, with the guards' extra reports, a second line naming
// the last failure before it. Without the guards the library adds nothing, not even the
// Assertion event.
TEST(EventLog, AnAssertionInTheJournalIsCriticalAndNamesTheLastFailure) {
    struct Case {
        const char* what;
        bool journal;
        bool guarded;
        std::vector<std::string> lines; // after the file and line are cut off
        std::size_t events;
    };
    const Case cases[] = {
        {"journal, guarded",
         true,
         true,
         {"<2>Kestrune: assertion failed: 0",
          "<2>Kestrune: the restore ended after its last "
          "failure: StrataDriver: setupFabricDevice open failed."},
         2},
        {"journal, no guard", true, false, {"<2>Kestrune: assertion failed: 0"}, 1},
        {"a file, guarded",
         false,
         true,
         {"Kestrune: assertion failed: 0", "Kestrune: the restore ended after its last failure: "
                                           "StrataDriver: setupFabricDevice open failed."},
         2},
    };
    for (const Case& c : cases) {
        TempDir dir;
        const std::string errors = dir.file("errors");
        Outcome outcome = runProcess(dir, [&] {
            RestoreGuards guards = c.guarded ? RestoreGuards::all() : RestoreGuards{};
            guards.stopGraceSeconds = 0;
            restoreGuardsIs(guards);
            if (std::freopen(errors.c_str(), "w", stderr) == nullptr) {
                std::_Exit(3);
            }
            if (c.journal) {
                struct stat file {};
                fstat(fileno(stderr), &file);
                setenv("JOURNAL_STREAM",
                       (std::to_string(file.st_dev) + ":" + std::to_string(file.st_ino)).c_str(),
                       1);
            }
            Log::logEvent("StrataDriver", "setupFabricDevice open failed.");
            KESTRUNE_ASSERT_TEXT(false, "0");
        });
        EXPECT_EQ(outcome.signal, SIGABRT) << c.what;
        std::vector<std::string> lines;
        for (std::string line : Testing::linesOf(errors)) {
            lines.push_back(line.substr(0, line.find(" (")));
        }
        EXPECT_EQ(lines, c.lines) << c.what;
        EXPECT_EQ(outcome.events.size(), c.events) << c.what;
    }
}

TEST(EventLog, TheJsonLibrarysTypeAssertionsAreRecordedToo) {
    TempDir dir;
    Outcome outcome = runProcess(dir, [] {
        rapidjson::Document document;
        document.Parse("[1, 2]");
        Log::logEvent("ConfigParser", "parsing");
        static_cast<void>(document.HasMember("Oku"));
    });
    EXPECT_EQ(outcome.signal, SIGABRT);
    ASSERT_EQ(outcome.events.size(), 2U);
    EXPECT_EQ(outcome.events[1].message.rfind("assertion failed: IsObject() (", 0), 0U)
        << outcome.events[1].message;
}

TEST(EventLog, EachBatchIsWrittenOnceAndHistoryAccumulatesAcrossProcesses) {
    TempDir dir;
    Outcome first = runProcess(dir, [] {
        Log::logEvent("Driver", "one");
        Log::doStorePending();
        Log::doStorePending(); // nothing new: writes nothing
        Log::logEvent("Driver", "two");
    });
    EXPECT_EQ(messagesOf(first.events), (std::vector<std::string>{"Driver: one", "Driver: two"}));

    Outcome second = runProcess(dir, [] { Log::logEvent("Driver", "three"); });
    EXPECT_EQ(messagesOf(second.events),
              (std::vector<std::string>{"Driver: one", "Driver: two", "Driver: three"}));
}

TEST(EventLog, AnUnwritableHistoryIsTracedAndDoesNotStopTheProcess) {
    TempDir dir;
    dir.write("not-a-folder", "");
    Outcome outcome = runProcess(dir, [&] {
        Log::historyPathIs(dir.file("not-a-folder") + "/history.db");
        Log::logEvent("Driver", "lost");
    });
    EXPECT_TRUE(outcome.exited);
    const std::string expected = "Kestrune:0 HistoryStore cannot open event history " +
                                 dir.file("not-a-folder") + "/history.db: ";
    EXPECT_TRUE(std::any_of(outcome.traces.begin(), outcome.traces.end(), [&](const auto& line) {
        return line.rfind(expected, 0) == 0;
    })) << testing::PrintToString(outcome.traces);
}

TEST(EventLog, AKilledProcessLeavesItsEventsInItsJournalForTheNextOpenToFoldIn) {
    TempDir dir;
    Outcome killed = runProcess(dir, [] {
        Log::logEvent("Driver", "first");
        Log::logEvent("Driver", "second\twith a tab\nand a line");
        raise(SIGKILL);
    });
    EXPECT_EQ(killed.signal, SIGKILL);
    EXPECT_EQ(messagesOf(killed.events), (std::vector<std::string>{
                                             "Driver: first",
                                             "Driver: second\twith a tab\nand a line",
                                         }))
        << "read from the database and the journal";
    ASSERT_EQ(EventJournal::journalsOf(dir.file("history.db")).size(), 1U);
    // A record cut short by the kill is left out, not glued to the next one.
    const std::string journal = EventJournal::journalsOf(dir.file("history.db"))[0];
    std::ofstream(journal, std::ios::app) << "cut-1\t1.5\tpersistent\tKestrune\tDriver\thalf";

    Outcome next = runProcess(dir, [] { Log::logEvent("Driver", "third"); });
    EXPECT_EQ(messagesOf(next.events),
              (std::vector<std::string>{"Driver: first", "Driver: second\twith a tab\nand a line",
                                        "Driver: third"}));
    EXPECT_TRUE(EventJournal::journalsOf(dir.file("history.db")).empty())
        << "folded in and removed";
}

TEST(EventLog, AnEventFoldedInTwiceIsStoredOnce) {
    TempDir dir;
    runProcess(dir, [] {
        Log::logEvent("Driver", "once");
        Log::doStorePending();
        Log::logEventAs(Log::originPrefix() + "-1", "Driver", "once");
    });
    EXPECT_EQ(HistoryStore::historyOf(dir.file("history.db")).size(), 1U);
}

TEST(EventsCommand, PrintsTheHistoryAsJsonAndAsATable) {
    TempDir dir;
    runProcess(dir, [] {
        Log::logEvent("ConfigParserCreator", "create /x file not present");
        Log::logEvent("Driver", "say \"hi\"");
    });
    int status = -1;
    std::string json = Testing::shellOutput(
        std::string(KESTRUNE_CLI) + " events --json --history " + dir.file("history.db"), &status);
    ASSERT_EQ(status, 0) << json;
    rapidjson::Document document;
    document.Parse(json.c_str());
    ASSERT_TRUE(document.IsArray()) << json;
    ASSERT_EQ(document.Size(), 2U);
    const auto& second = document[1];
    EXPECT_EQ(std::string(second["group"].GetString()), "Driver");
    EXPECT_EQ(std::string(second["message"].GetString()), "say \"hi\"");
    EXPECT_EQ(std::string(second["persistence"].GetString()), "persistent");
    EXPECT_EQ(std::string(second["agent"].GetString()), "Kestrune");
    EXPECT_TRUE(second["time"].IsNumber());

    std::string table = Testing::shellOutput(
        std::string(KESTRUNE_CLI) + " events --history " + dir.file("history.db"), &status);
    EXPECT_EQ(status, 0);
    EXPECT_NE(table.find("  ConfigParserCreator  create /x file not present\n"), std::string::npos)
        << table;
    EXPECT_NE(table.find("  Driver               say \"hi\"\n"), std::string::npos) << table;
}

TEST(EventsCommand, AMissingHistoryIsAClearErrorAndBadUsageIsStatusTwo) {
    TempDir dir;
    int status = -1;
    std::string output = Testing::shellOutput(
        std::string(KESTRUNE_CLI) + " events --history " + dir.file("none.db") + " 2>&1", &status);
    EXPECT_EQ(status, 1);
    EXPECT_EQ(output, "kestrune events: cannot read event history " + dir.file("none.db") +
                          ": No such file or directory\n");

    Testing::shellOutput(std::string(KESTRUNE_CLI) + " events --bogus 2>&1", &status);
    EXPECT_EQ(status, 2);
    Testing::shellOutput(std::string(KESTRUNE_CLI) + " 2>&1", &status);
    EXPECT_EQ(status, 2);
    std::string help = Testing::shellOutput(std::string(KESTRUNE_CLI) + " events --help", &status);
    EXPECT_EQ(status, 0);
    EXPECT_NE(help.find("--json"), std::string::npos) << help;
}

} // namespace
} // namespace Kestrune
