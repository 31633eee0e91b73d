// The restore's state as others read it: whether it is done in this boot, and the status line
// the boot service gives systemd.
#include "RestoreState.h"

#include "RestoreRun.h"
#include "Scenario.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace Kestrune::Testing {
namespace {

TEST(RestoreStatus, SaysWhetherTheRestoreIsDoneInThisBoot) {
    const TempDir dir;
    const std::string cli = KESTRUNE_CLI;
    const std::string boot = Cli::thisBootId();
    ASSERT_FALSE(boot.empty());
    const auto state = [&](const std::string& name, const std::string& bootId, long pid,
                           bool ended) {
        Cli::RestoreState written;
        written.state = name;
        written.bootId = bootId;
        written.pid = pid;
        written.startedAt = "2026-11-24T08:00:00Z";
        written.startedMs = 8123;
        if (ended) {
            written.endedMs = 16823;
            written.exitStatus = name == "done" ? 0 : 1;
            written.interfaces = 2304;
            written.made = name == "done" ? 2304 : 2303;
            written.failures = name == "done" ? 0 : 1;
            written.report = "/run/kestrune/report.json";
        }
        return written.json();
    };
    // A pid no process has: past the kernel's largest.
    const long gone = 4194304 + 1;
    const struct {
        const char* what;
        std::string content; // "" : no file
        int status;
        const char* says;
    } cases[] = {
        {"done in this boot", state("done", boot, 1, true), 0,
         "Restore: done\nStarted: 2026-11-24T08:00:00Z, 8.1 s after boot, process 1\nEnded: "
         "16.8 s after boot, in 8.7 s, exit status 0\nInterfaces: 2,304 of 2,304 made, 0 "
         "failures\nReport: /run/kestrune/report.json\n"},
        {"failed in this boot", state("failed", boot, 1, true), 1,
         "Interfaces: 2,303 of 2,304 made, 1 failure\n"},
        {"done in an earlier boot", state("done", "0b5e1e55-0000-4000-8000-000000000000", 1, true),
         1,
         "Restore: done, in an earlier boot (0b5e1e55-0000-4000-8000-000000000000): no restore "
         "has ended in this one\n"},
        {"running, its process gone", state("running", boot, gone, false), 1,
         "it was killed before it ended"},
        {"no state", "", 2, "no restore has run in this boot"},
        {"not a state", "{\"ok\": true}", 2, "is not a restore's state"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        std::filesystem::remove(dir.file("state.json"));
        if (!c.content.empty()) {
            dir.write("state.json", c.content);
        }
        int status = 0;
        const std::string output =
            shellOutput(cli + " status --state " + dir.file("state.json") + " 2>&1", &status);
        EXPECT_EQ(status, c.status) << output;
        EXPECT_NE(output.find(c.says), std::string::npos) << output;
    }
}

TEST(RestoreStatus, TheServiceStatusLineSaysHowTheRestoreEnded) {
    Cli::RestoreReport report;
    report.started = true;
    report.initialized = true;
    report.phasesMs = {{"create", 5000}, {"total", 8712}};
    for (int i = 0; i < 2304; ++i) {
        report.interfaces.push_back({"Ethernet" + std::to_string(i), "", "", "", i != 7, "", {}});
    }
    struct Case {
        const char* what;
        std::vector<std::string> failures;
        int stoppedBy;
        bool started;
        const char* line;
    };
    const Case cases[] = {
        {"clean", {}, 0, true, "Restored 2,303 of 2,304 interfaces in 8.7 s, 0 failures"},
        {"one failure",
         {"Driver: x"},
         0,
         true,
         "Restored 2,303 of 2,304 interfaces in 8.7 s, 1 failure"},
        {"stopped",
         {"a", "b"},
         15,
         true,
         "Stopped by SIGTERM after restoring 2,303 of 2,304 interfaces in 8.7 s, 2 failures"},
        {"no store", {}, 0, false, "Could not start: no store of a known platform"},
    };
    for (const Case& c : cases) {
        report.failures = c.failures;
        report.stoppedBy = c.stoppedBy;
        report.started = c.started;
        EXPECT_EQ(Cli::statusLine(report), c.line) << c.what;
    }
}

// What systemd's notify socket receives, at a path and in the abstract namespace.
TEST(RestoreStatus, TheStatusLineReachesTheServiceManagersSocket) {
    const TempDir dir;
    for (const std::string& name : {dir.file("notify"), std::string("@kestrune-test-notify")}) {
        SCOPED_TRACE(name);
        const int listener = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        ASSERT_GE(listener, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        name.copy(address.sun_path, name.size());
        if (name[0] == '@') {
            address.sun_path[0] = '\0';
        }
        ASSERT_EQ(bind(listener, reinterpret_cast<const sockaddr*>(&address),
                       static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size())),
                  0)
            << std::strerror(errno);
        setenv("NOTIFY_SOCKET", name.c_str(), 1);
        Cli::serviceStatusIs("Restoring: create, 256 of 2,304 interfaces");
        unsetenv("NOTIFY_SOCKET");
        char received[128] = {};
        const ssize_t size = recv(listener, received, sizeof received - 1, MSG_DONTWAIT);
        EXPECT_EQ(std::string(received, size > 0 ? static_cast<std::size_t>(size) : 0),
                  "STATUS=Restoring: create, 256 of 2,304 interfaces");
        close(listener);
    }
    // No manager listening: nothing happens, and nothing fails.
    Cli::serviceStatusIs("unheard");
}

} // namespace
} // namespace Kestrune::Testing
