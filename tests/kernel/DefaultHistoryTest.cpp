// A restore records into the switch's own history unless told not to, and `kestrune events`
// reads it from there; each run here has a /var/lib and a /run of its own.
#include "Scenario.h"

#include <gtest/gtest.h>
#include <string>

namespace Kestrune::Testing {
namespace {

// Runs the commands (";"-separated, `K` standing for the CLI) in a mount namespace whose
// /var/lib and /run start empty; their output and each one's "status N".
std::string onAFreshSwitch(const std::string& commands) {
    int status = -1;
    const std::string script = "mount --make-rprivate / && mount -t tmpfs kestrune-test /var/lib "
                               "&& mount -t tmpfs kestrune-test /run && K=" KESTRUNE_CLI " && " +
                               commands;
    return shellOutput("unshare -m sh -c '" + script + "' 2>&1", &status);
}

TEST(DefaultHistory, ARestoreRecordsIntoTheSwitchsHistoryUnlessToldNot) {
    const TempDir dir; // no store in it: the restore records that and stops
    const std::string restore = "$K restore --pstore-dir " + dir.path().string() +
                                " --trace-file /dev/null >/dev/null 2>&1; ";
    const std::string events = "$K events; echo status $?";
    const std::string stored =
        "create " + dir.path().string() + "/zel-persistent-store.json file not present";
    struct Case {
        const char* what;
        std::string commands;
        bool recorded;
    };
    const Case cases[] = {
        {"by default", restore + events, true},
        {"--history ''",
         "$K restore --history \"\" --pstore-dir " + dir.path().string() +
             " --trace-file /dev/null >/dev/null 2>&1; " + events,
         false},
        {"--no-history",
         "$K restore --no-history --pstore-dir " + dir.path().string() +
             " --trace-file /dev/null >/dev/null 2>&1; " + events,
         false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const std::string output = onAFreshSwitch(c.commands);
        EXPECT_EQ(output.find(stored) != std::string::npos, c.recorded) << output;
        if (!c.recorded) {
            EXPECT_EQ(output, "no events recorded yet (/var/lib/kestrune/history.db does not "
                              "exist)\nstatus 0\n");
        }
        EXPECT_NE(output.find("status 0"), std::string::npos) << output;
    }
    // Both at once is a contradiction.
    const std::string both =
        onAFreshSwitch("$K restore --no-history --history h.db; echo status $?");
    EXPECT_NE(both.find("status 2"), std::string::npos) << both;
}

} // namespace
} // namespace Kestrune::Testing
