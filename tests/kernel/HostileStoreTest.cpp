// Stores a hostile world could leave where the restore reads: each ends in a clear error, a
// recorded failure the restore survives, or the assertion the restore is meant to end on,
// with its events stored; and `kestrune check` says beforehand which of these it will be.
#include "CliRun.h"
#include "PrivateNetwork.h"
#include "Scenario.h"
#include "log/HistoryStore.h"
#include "util/Json.h"

#include <algorithm>
#include <csignal>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

namespace Kestrune::Testing {
namespace {

struct Hostile {
    const char* name;
    std::function<std::string(const std::string& store, const TempDir& dir)> file; // its path
    int endSignal;       // SIGABRT for a restore that ends on an assertion, else 0
    int exitCode;        // of a restore that exits
    const char* verdict; // what check says the restore comes to
};

std::string replaced(std::string text, const std::string& from, const std::string& to) {
    for (std::size_t at = from.empty() ? std::string::npos : text.find(from);
         at != std::string::npos; at = text.find(from, at + to.size())) {
        text.replace(at, from.size(), to);
    }
    return text;
}

// A store file made from the clean one.
std::function<std::string(const std::string&, const TempDir&)> edited(const std::string& from,
                                                                      const std::string& to) {
    return [from, to](const std::string& store, const TempDir& dir) {
        dir.write("edited.json", replaced(store, from, to));
        return dir.file("edited.json");
    };
}

// The clean store with Ethernet1/1 (routed, with IPv6) given another MTU.
std::function<std::string(const std::string&, const TempDir&)> mtuOfPort(std::int64_t mtu) {
    return [mtu](const std::string& store, const TempDir& dir) {
        rapidjson::Document parsed;
        parsed.Parse(store.c_str());
        parsed["Dorvel"]["intfMtus"]["Ethernet1/1"]["mtu"].SetInt64(mtu);
        rapidjson::StringBuffer text;
        rapidjson::Writer<rapidjson::StringBuffer> writer(text);
        parsed.Accept(writer);
        dir.write("mtu.json", text.GetString());
        return dir.file("mtu.json");
    };
}

std::function<std::string(const std::string&, const TempDir&)> written(const std::string& text) {
    return [text](const std::string&, const TempDir& dir) {
        dir.write("written.json", text);
        return dir.file("written.json");
    };
}

const Hostile hostiles[] = {
    {"the clean store", edited("", ""), 0, 0, "complete"},
    {"nested a million deep", written(std::string(1000000, '[')), SIGABRT, -1, "ends the process"},
    {"a FIFO",
     [](const std::string&, const TempDir& dir) {
         mkfifo(dir.file("fifo.json").c_str(), 0600);
         return dir.file("fifo.json");
     },
     0, 2, "no restore"},
    {"a folder",
     [](const std::string&, const TempDir& dir) {
         std::filesystem::create_directory(dir.file("folder.json"));
         return dir.file("folder.json");
     },
     0, 2, "no restore"},
    {"/dev/zero", [](const std::string&, const TempDir&) { return std::string("/dev/zero"); }, 0, 2,
     "no restore"},
    {"a byte-order mark",
     [](const std::string& store, const TempDir& dir) {
         dir.write("bom.json", "\xEF\xBB\xBF" + store);
         return dir.file("bom.json");
     },
     SIGABRT, -1, "ends the process"},
    {"a prefix length that is not a number", edited("10.1.1.1/24", "10.1.1.1/abc"), 0, 1,
     "incomplete"},
    {"a prefix length out of range", edited("10.1.1.1/24", "10.1.1.1/99999999999"), 0, 1,
     "incomplete"},
    {"a 148-byte VRF name",
     edited("\"vrf\": \"red\"", "\"vrf\": \"" + std::string(148, 'v') + "\""), SIGABRT, -1,
     "ends the process"},
    {"a 147-byte VRF name",
     edited("\"vrf\": \"red\"", "\"vrf\": \"" + std::string(147, 'v') + "\""), 0, 0, "complete"},
    {"a VRF name with a slash", edited("\"vrf\": \"red\"", "\"vrf\": \"a/b\""), SIGABRT, -1,
     "ends the process"},
    {"an interface name with a newline", edited("\"Ethernet1/5\"", "\"Ethernet1/\\n5\""), 0, 1,
     "incomplete"},
    {"an interface name that is not UTF-8", edited("\"Ethernet1/5\"", "\"Ethernet1/\xff\x35\""), 0,
     0, "complete"},
    // What the kernel or the filter tools refuse: "complete" must mean no failure.
    {"MTU -1", mtuOfPort(-1), 0, 1, "incomplete"},
    {"MTU 0", mtuOfPort(0), 0, 1, "incomplete"},
    {"MTU 67", mtuOfPort(67), 0, 1, "incomplete"},
    {"MTU 65536", mtuOfPort(65536), 0, 1, "incomplete"},
    {"MTU 2^31-1", mtuOfPort(2147483647), 0, 1, "incomplete"},
    {"MTU 1279 on a port with IPv6", mtuOfPort(1279), 0, 1, "incomplete"},
    {"MTU 1280 on a port with IPv6", mtuOfPort(1280), 0, 0, "complete"},
    {"MTU 65521", mtuOfPort(65521), 0, 0, "complete"},
    {"MTU 65522", mtuOfPort(65522), 0, 1, "incomplete"},
    {"a multicast bridge MAC", edited("02:1c:73:5e:00:01", "01:1c:73:5e:00:01"), 0, 1,
     "incomplete"},
    {"a bridge MAC that does not parse", edited("02:1c:73:5e:00:01", "not a MAC"), 0, 1,
     "incomplete"},
    {"a /33", edited("10.1.0.1/24", "10.1.0.1/33"), 0, 1, "incomplete"},
    {"a /129", edited("2001:db8:1:0::1/64", "2001:db8:1:0::1/129"), 0, 1, "incomplete"},
    {"a % in a name", edited("\"Ethernet1/5\"", "\"Ethernet1/%d\""), 0, 1, "incomplete"},
    {"a rule iptables-restore refuses", edited("-A INPUT -j CONTROL-PLANE", "-A INPUT -j NOSUCH"),
     0, 1, "incomplete"},
    // Warned about, and restored as the restore reads it: into the default VRF.
    {"a misspelled vrf", edited("\"vrf\": \"red\"", "\"vfr\": \"red\""), 0, 0, "complete"},
    {"a store whose top level is an array", written("[1, 2]"), SIGABRT, -1, "ends the process"},
};

class HostileStores : public PrivateNetwork {
  protected:
    void SetUp() override {
        PrivateNetwork::SetUp();
        run({"python3", KESTRUNE_SOURCE_DIR "/bench/generate-store.py", "--ports", "8", "--lags",
             "1", "--members", "2", "--subintfs", "0", "--svis", "0", "--vrfs", "2", "--rules", "5",
             "-o", dir_.file("clean.json")});
        store_ = contentOf(dir_.file("clean.json"));
    }
    const TempDir dir_;
    std::string store_;
};

TEST_F(HostileStores, EachEndsAsCheckSaysWithItsEventsStored) {
    for (const Hostile& hostile : hostiles) {
        SCOPED_TRACE(hostile.name);
        const TempDir dir;
        const std::string file = hostile.file(store_, dir);
        const std::string history = dir.file("h.db");
        const std::string report = dir.file("report.json");
        CliRun run;
        run.args = {"simulate", file, "--history", history, "--report", report};
        run.traceFile = dir.file("trace.txt");
        const CliResult restore = runCli(run);
        EXPECT_EQ(restore.signal, hostile.endSignal);
        if (hostile.endSignal == 0) {
            EXPECT_EQ(restore.exitCode, hostile.exitCode);
        }
        const std::vector<Event> events = std::filesystem::exists(history)
                                              ? HistoryStore::historyOf(history)
                                              : std::vector<Event>{};
        EXPECT_EQ(events.size(), restore.recorded.size());
        if (hostile.endSignal == SIGABRT) {
            ASSERT_FALSE(events.empty());
            EXPECT_TRUE(events.back().group == "Assertion" || events.back().group == "ProcessGuard")
                << events.back().group << ": " << events.back().message;
        } else {
            rapidjson::Document parsed;
            parsed.Parse<rapidjson::kParseValidateEncodingFlag>(contentOf(report).c_str());
            EXPECT_FALSE(parsed.HasParseError()) << "the report is not valid JSON";
        }

        int status = 0;
        const std::string check = outputOf({KESTRUNE_CLI, "check", file, "--json"}, &status);
        rapidjson::Document verdict;
        verdict.Parse(check.c_str());
        ASSERT_TRUE(verdict.IsObject()) << check;
        EXPECT_STREQ(verdict["restore"].GetString(), hostile.verdict) << check;

        // verify answers every store, with its JSON: an error when it cannot read one.
        const std::string verified = shellOutput(
            std::string(KESTRUNE_CLI) + " verify --json '" + file + "' 2>/dev/null", &status);
        // The shell says 128 + the signal for a verify that a signal ended, an abort too.
        const int verifyStatus = status;
        ASSERT_TRUE(verifyStatus >= 0 && verifyStatus <= 2) << "verify ended with " << status;
        rapidjson::Document answer;
        answer.Parse(verified.c_str());
        ASSERT_TRUE(answer.IsObject()) << verified;
        const bool readable = std::string(hostile.verdict) == "complete" ||
                              std::string(hostile.verdict) == "incomplete";
        if (!readable) {
            EXPECT_EQ(verifyStatus, 2);
            EXPECT_TRUE(answer.HasMember("error")) << verified;
        }

        // One line per event, whatever the names hold.
        if (!events.empty()) {
            const std::string text = outputOf({KESTRUNE_CLI, "events", "--history", history});
            EXPECT_EQ(static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n')),
                      events.size())
                << text;
        }
    }
}

TEST_F(HostileStores, SixHundredVrfsGetTheirDescriptorsOrSayHowManyTheyNeed) {
    run({"python3", KESTRUNE_SOURCE_DIR "/bench/generate-store.py", "--ports", "700", "--routed",
         "700", "--lags", "0", "--subintfs", "0", "--svis", "0", "--vrfs", "600", "--rules", "5",
         "--compact", "-o", dir_.file("vrfs.json")});
    rlimit saved{};
    getrlimit(RLIMIT_NOFILE, &saved);
    struct Limit {
        const char* what;
        rlimit limit;
    };
    const Limit limits[] = {{"a soft limit below the need", {1024, 4096}},
                            {"a hard limit below the need", {1024, 1024}}};
    for (const Limit& limit : limits) {
        SCOPED_TRACE(limit.what);
        const TempDir dir;
        ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit.limit), 0);
        CliRun run;
        run.args = {"simulate", dir_.file("vrfs.json"), "--history", dir.file("h.db")};
        run.traceFile = dir.file("trace.txt");
        const CliResult result = runCli(run);
        setrlimit(RLIMIT_NOFILE, &saved);
        const std::vector<Event> events = HistoryStore::historyOf(dir.file("h.db"));
        // Either the limit was raised and the restore came through, or it ended at once on
        // a recorded message saying how many descriptors it needs (a hard limit only a
        // process with CAP_SYS_RESOURCE may raise).
        if (result.exited) {
            EXPECT_EQ(result.exitCode, 0);
        } else {
            EXPECT_EQ(result.signal, SIGABRT);
            ASSERT_GE(events.size(), 2U);
            EXPECT_EQ(events[events.size() - 2].message,
                      "doInit needs 4533 descriptors for 601 namespaces and 700 interfaces; the "
                      "limit is 1024 and cannot be raised");
            EXPECT_EQ(events.back().group, "Assertion");
        }
        if (limit.limit.rlim_max > 4533) {
            EXPECT_TRUE(result.exited) << "a soft limit that could be raised was not";
        }
    }
}

TEST_F(HostileStores, AReportThatCannotBeWrittenFailsTheCommand) {
    int status = 0;
    outputOf({KESTRUNE_CLI, "simulate", dir_.file("clean.json"), "--report",
              dir_.file("no/such/folder/report.json")},
             &status);
    EXPECT_EQ(status, 1);
}

} // namespace
} // namespace Kestrune::Testing
