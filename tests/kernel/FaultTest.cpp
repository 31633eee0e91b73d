// A large restore under faults: signals at three points, assertions at three points, filter
// tools that hang or fail, and histories that are read-only, full, corrupt or locked. Each
// time the disk must hold every event the process said it recorded, and the restore must end
// within its deadlines.
#include "CliRun.h"
#include "PrivateNetwork.h"
#include "Scenario.h"
#include "log/HistoryStore.h"
#include "util/Json.h"

#include <algorithm>
#include <csignal>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

namespace Kestrune::Testing {
namespace {

enum class History { plain, readOnly, full, corrupt, locked };
enum class Tool { real, hangs, fails, closesInput, stopsVerify };

struct Fault {
    const char* name;
    const char* store; // "large", "largeRules", "noDot", "twoPlatforms"
    Tool tool;
    History history;
    int signal; // sent once the marker is traced markerCount times
    const char* marker;
    int markerCount;
    int endSignal; // how the process must end: a signal, or 0 for an exit
    int exitCode;
    const char* chipRefuses = nullptr; // a chip fault to rehearse (see Chip::faultNames)
};

const Fault faults[] = {
    {"SIGTERM early", "large", Tool::real, History::plain, SIGTERM, "creating Namespace", 1, 0,
     128 + SIGTERM},
    {"SIGTERM during creation", "large", Tool::real, History::plain, SIGTERM,
     "Created Kernel interface", 300, 0, 128 + SIGTERM},
    {"SIGTERM during filter rules", "large", Tool::hangs, History::plain, SIGTERM,
     "configureIptablesRules iptables-restore", 1, 0, 128 + SIGTERM},
    // The stop kills the chip's tool the bring-up waits for: a stop, not the step's assertion.
    {"SIGTERM while fab runs", "large", Tool::real, History::plain, SIGTERM,
     "runCommand started fab devrole", 1, 0, 128 + SIGTERM, "fab"},
    // After the restore, while simulate reads the rules back.
    {"SIGTERM while verifying", "large", Tool::stopsVerify, History::plain, SIGTERM,
     "stand-in: verifying", 1, 0, 128 + SIGTERM},
    {"SIGINT during creation", "large", Tool::real, History::plain, SIGINT,
     "Created Kernel interface", 300, 0, 128 + SIGINT},
    {"SIGKILL early", "large", Tool::real, History::plain, SIGKILL, "creating Namespace", 1,
     SIGKILL, -1},
    {"SIGKILL during creation", "large", Tool::real, History::plain, SIGKILL,
     "Created Kernel interface", 300, SIGKILL, -1},
    {"SIGKILL during filter rules", "large", Tool::hangs, History::plain, SIGKILL,
     "configureIptablesRules iptables-restore", 1, SIGKILL, -1},
    {"assertion early", "twoPlatforms", Tool::real, History::plain, 0, "", 0, SIGABRT, -1},
    {"assertion during creation", "noDot", Tool::real, History::plain, 0, "", 0, SIGABRT, -1},
    {"assertion during filter rules", "largeRules", Tool::closesInput, History::plain, 0, "", 0,
     SIGABRT, -1},
    {"hung iptables-restore", "large", Tool::hangs, History::plain, 0, "", 0, 0, 1},
    {"failing iptables-restore", "large", Tool::fails, History::plain, 0, "", 0, 0, 1},
    {"read-only history", "large", Tool::real, History::readOnly, 0, "", 0, 0, 1},
    {"full history", "large", Tool::real, History::full, 0, "", 0, 0, 1},
    {"corrupt history", "large", Tool::real, History::corrupt, 0, "", 0, 0, 1},
    {"locked history", "large", Tool::real, History::locked, 0, "", 0, 0, 1},
};

constexpr double deadlineSeconds = 2;

class Faults : public PrivateNetwork {
  protected:
    void SetUp() override {
        PrivateNetwork::SetUp();
        generate("large", "--rules 2000");
        generate("largeRules", "--rules 20000");
        // A subinterface without a parent in its name ends the restore while it creates.
        rapidjson::Document store;
        store.Parse(contentOf(dir_.file("large.json")).c_str());
        store["Vant"]["subIntfNameToEncapVlanId"].AddMember("Ethernet1/9", 77,
                                                            store.GetAllocator());
        rapidjson::StringBuffer text;
        rapidjson::Writer<rapidjson::StringBuffer> writer(text);
        store.Accept(writer);
        dir_.write("noDot.json", text.GetString());
        dir_.write("twoPlatforms.json", R"({"Tessaline": {"platformType": "Strata"},
                                            "SandTessaline": {"platformType": "Sand"}})");
        std::filesystem::create_directory(dir_.file("tools"));
    }

    void generate(const std::string& name, const std::string& rules) {
        run({"sh", "-c",
             "python3 " KESTRUNE_SOURCE_DIR "/bench/generate-store.py --ports 512 --lags 64 "
             "--members 4 --subintfs 512 --svis 1000 --vrfs 32 --compact " +
                 rules + " -o " + dir_.file(name + ".json")});
    }

    void toolIs(Tool tool) {
        const std::string path = dir_.file("tools/iptables-restore");
        std::filesystem::remove(path);
        std::filesystem::remove(dir_.file("tools/ran"));
        switch (tool) {
        case Tool::real:
            break;
        case Tool::hangs:
            writeTool(path, "while :; do sleep 0.05; done");
            break;
        case Tool::fails:
            writeTool(path, "cat >/dev/null; exit 1");
            break;
        case Tool::closesInput:
            writeTool(path, "exec 0<&-; sleep 1");
            break;
        case Tool::stopsVerify:
            // The restore's run is the real tool's; the verification's says so in the trace,
            // where the test waits for it, and waits to be stopped.
            writeTool(path, "if [ -e " + dir_.file("tools/ran") +
                                " ]; then echo 'stand-in: verifying' >> " + dir_.file("trace.txt") +
                                "; sleep 5; exit 1; fi; touch " + dir_.file("tools/ran") +
                                "; exec /usr/sbin/iptables-restore \"$@\"");
            break;
        }
    }

    // The history's path, made as the case wants it.
    std::string historyFor(History history) {
        const std::string folder = dir_.file("history");
        std::filesystem::create_directory(folder);
        const std::string path = folder + "/h.db";
        switch (history) {
        case History::plain:
            break;
        case History::readOnly:
            EXPECT_EQ(mount("ro", folder.c_str(), "tmpfs", MS_RDONLY, nullptr), 0);
            break;
        case History::full:
            EXPECT_EQ(mount("full", folder.c_str(), "tmpfs", 0, "size=64k"), 0);
            run({"sh", "-c", "cat /dev/zero > " + folder + "/filler 2>/dev/null; true"});
            break;
        case History::corrupt:
            dir_.write("history/h.db", std::string(8192, 'x'));
            break;
        case History::locked:
            lockHistory(path);
            break;
        }
        return path;
    }

    // Another writer holds the history for a few seconds, longer than the restore takes.
    void lockHistory(const std::string& path) {
        const std::string script =
            "import sqlite3, sys, time\n"
            "db = sqlite3.connect(sys.argv[1], isolation_level=None)\n"
            "db.execute('PRAGMA journal_mode=WAL')\n"
            "db.execute('CREATE TABLE event (id INTEGER PRIMARY KEY, time REAL NOT NULL,"
            " persistence TEXT NOT NULL, agent TEXT NOT NULL, message_group TEXT NOT NULL,"
            " message TEXT NOT NULL, origin TEXT)')\n"
            "db.execute('CREATE UNIQUE INDEX event_origin ON event(origin)')\n"
            "db.execute('BEGIN IMMEDIATE')\n"
            "print('locked', flush=True)\n"
            "time.sleep(8)\n";
        dir_.write("lock.py", script);
        locker_ = popen(("python3 " + dir_.file("lock.py") + " " + path).c_str(), "r");
        char line[16] = {};
        ASSERT_NE(std::fgets(line, sizeof line, locker_), nullptr);
    }

    void TearDown() override {
        // Stand-in tools left behind by a process that was killed outright.
        outputOf({"pkill", "-KILL", "-f", dir_.file("tools")});
        if (locker_) {
            pclose(locker_);
        }
        umount2(dir_.file("history").c_str(), MNT_DETACH);
        PrivateNetwork::TearDown();
    }

    const TempDir dir_;
    FILE* locker_ = nullptr;
};

TEST_F(Faults, EveryEventRecordedIsOnDiskAndNoRestoreOutlivesItsDeadlines) {
    for (const Fault& fault : faults) {
        SCOPED_TRACE(fault.name);
        toolIs(fault.tool);
        umount2(dir_.file("history").c_str(), MNT_DETACH);
        std::filesystem::remove_all(dir_.file("history"));
        const std::string history = historyFor(fault.history);
        const std::string report = dir_.file("report.json");
        std::filesystem::remove(report);
        std::vector<std::string> args{
            "simulate",           dir_.file(std::string(fault.store) + ".json"),
            "--history",          history,
            "--report",           report,
            "--command-deadline", std::to_string(deadlineSeconds)};
        if (fault.chipRefuses != nullptr) {
            args.insert(args.end(), {"--chip-refuses", fault.chipRefuses});
        }
        CliRun run{args,         dir_.file("trace.txt"), dir_.file("tools"),
                   fault.marker, fault.markerCount,      fault.signal};
        const CliResult result = runCli(run);

        EXPECT_EQ(result.faulted, fault.signal != 0);
        EXPECT_EQ(result.signal, fault.endSignal);
        if (fault.endSignal == 0) {
            EXPECT_EQ(result.exitCode, fault.exitCode);
        }
        // No command runs past the deadline, and a stop does not wait for one.
        EXPECT_LT(result.ms, 15000);
        // A command dies with its restore, however the restore ends, SIGKILL included.
        std::string left = outputOf({"pgrep", "-f", dir_.file("tools")});
        for (int tries = 0; tries < 100 && !left.empty(); ++tries) {
            usleep(10000);
            left = outputOf({"pgrep", "-f", dir_.file("tools")});
        }
        EXPECT_EQ(left, "") << "a stand-in tool outlived the restore";

        if (fault.history == History::locked) {
            pclose(locker_); // the other writer is done: what waited can now be read
            locker_ = nullptr;
        }
        const std::vector<Event> onDisk =
            fault.history == History::readOnly || fault.history == History::full
                ? std::vector<Event>{}
                : HistoryStore::historyOf(history);
        ASSERT_FALSE(result.recorded.empty());
        if (fault.history == History::readOnly || fault.history == History::full) {
            // Nothing can reach this disk: the caller is told, by status and report.
            rapidjson::Document parsed;
            parsed.Parse(contentOf(report).c_str());
            ASSERT_TRUE(parsed.IsObject());
            EXPECT_FALSE(parsed["history"]["ok"].GetBool());
            EXPECT_FALSE(parsed["ok"].GetBool());
        } else if (fault.endSignal == SIGKILL) {
            // The trace line is written just before its event: one may be cut between them.
            EXPECT_LE(result.recorded.size() - onDisk.size(), 1U)
                << result.recorded.size() << " recorded, " << onDisk.size() << " on disk";
        } else {
            EXPECT_EQ(onDisk.size(), result.recorded.size());
        }
        if (fault.signal == SIGTERM || fault.signal == SIGINT) {
            rapidjson::Document parsed;
            parsed.Parse(contentOf(report).c_str());
            ASSERT_TRUE(parsed.IsObject()) << "no report";
            ASSERT_TRUE(parsed["stoppedBy"].IsString());
            EXPECT_EQ(std::string(parsed["stoppedBy"].GetString()),
                      fault.signal == SIGTERM ? "SIGTERM" : "SIGINT");
            ASSERT_FALSE(onDisk.empty());
            EXPECT_EQ(onDisk.back().group, "ProcessGuard");
            EXPECT_EQ(onDisk.back().message.rfind("stopped by SIG", 0), 0U);
        }
        if (fault.endSignal == SIGABRT) {
            ASSERT_FALSE(onDisk.empty());
            EXPECT_EQ(onDisk.back().group, "Assertion");
        }
        if (fault.tool == Tool::hangs && fault.signal == 0) {
            // The restore's run of the tool, then the verification's load of the same rules:
            // each ends by the deadline.
            EXPECT_LT(result.ms, 2 * deadlineSeconds * 1000 + 5000);
            EXPECT_TRUE(std::any_of(onDisk.begin(), onDisk.end(), [](const Event& event) {
                return event.group == "Command";
            })) << "the kill of the command past its deadline is not on disk";
        }
        if (fault.history == History::locked) {
            rapidjson::Document parsed;
            parsed.Parse(contentOf(report).c_str());
            EXPECT_LT(parsed["phasesMs"]["parse"].GetDouble(), 1000)
                << "a locked history stalled the restore";
            EXPECT_GT(parsed["history"]["waiting"].GetUint(), 0U);
        }
    }
}

} // namespace
} // namespace Kestrune::Testing
