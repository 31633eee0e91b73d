#include "util/Command.h"

#include "CliRun.h"
#include "PrivateNetwork.h"
#include "Scenario.h"
#include "log/Log.h"
#include "util/KernelName.h"
#include "util/RestoreGuards.h"
#include "util/Trace.h"
#include "util/Utils.h"

#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>

namespace Kestrune::Testing {
namespace {

// A program that records the arguments it was given, NUL-separated, and then its input.
class Recorder {
  public:
    Recorder() {
        dir_.write("record",
                   "#!/bin/sh\n"
                   "for argument in \"$@\"; do printf '%s\\0' \"$argument\"; done > \"$0.args\"\n"
                   "cat > \"$0.input\"\n");
        std::filesystem::permissions(dir_.file("record"), std::filesystem::perms::owner_all);
    }
    std::string program() const { return dir_.file("record"); }
    std::string marker() const { return dir_.file("pwned"); }
    std::vector<std::string> arguments() const { return linesOf(program() + ".args", '\0'); }
    std::string input() const { return contentOf(program() + ".input"); }

  private:
    TempDir dir_;
};

TEST(CommandLine, IsSplitOnBlanksAndTabsOnly) {
    const struct {
        const char* line;
        std::vector<std::string> words;
    } cases[] = {
        {"/sbin/tc qdisc add dev et1 root handle 1: prio",
         {"/sbin/tc", "qdisc", "add", "dev", "et1", "root", "handle", "1:", "prio"}},
        {"  iptables-restore \t -n  ", {"iptables-restore", "-n"}},
        {"fab devrole 1 switch", {"fab", "devrole", "1", "switch"}},
        {"echo 'a b'", {"echo", "'a", "b'"}},
        {"echo a;b|c$(d)", {"echo", "a;b|c$(d)"}},
        {"", {}},
        {" \t ", {}},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(commandArgv(c.line), c.words) << c.line;
    }
}

TEST(RunCommand, AProgramThatCannotStartGivesMinusOne) {
    std::vector<std::string> traces;
    Trace::sinkIs([&](std::string_view line) { traces.emplace_back(line); });
    EXPECT_EQ(::runCommand("kestrune-no-such-program --help"), -1);
    EXPECT_EQ(::runCommand("/nonexistent/tool"), -1);
    EXPECT_EQ(::runCommand("   "), -1);
    Trace::sinkIs({});
    ASSERT_EQ(traces.size(), 3U);
    EXPECT_EQ(traces[0], "Kestrune:0 runCommand cannot start kestrune-no-such-program --help: No "
                         "such file or directory");
}

TEST(RunCommand, StreamsGoWhereTheArgumentsSay) {
    const TempDir dir;
    dir.write("in", "hello\n");
    const int input = open(dir.file("in").c_str(), O_RDONLY);
    const int output = open(dir.file("out").c_str(), O_WRONLY | O_CREAT, 0600);
    EXPECT_EQ(::runCommand("tr a-z A-Z", input, output), 0);
    close(input);
    close(output);
    EXPECT_EQ(firstLineOf(dir.file("out")), "HELLO");
    // Discarded standard error: nothing of the tool's complaint reaches ours.
    const std::string printed = stdoutOf([] {
        EXPECT_EQ(::runCommand("ls /nonexistent", commandInherit, commandDiscard, commandDiscard),
                  2);
    });
    EXPECT_EQ(printed, "");
}

TEST(RunCommand, ACommandPastItsTimeoutIsKilled) {
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(::runCommand("sleep 10", -1, -1, -1, 100), -1);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    EXPECT_EQ(::runCommand("sleep 0", -1, -1, -1, 5000), 0);
}

TEST(Exec, ACommandThatCannotStartIsReportedOnStandardOutput) {
    std::string output = "not run";
    EXPECT_EQ(stdoutOf([&] { output = exec("kestrune-no-such-program readreg 1"); }),
              "Unable to run cmd: kestrune-no-such-program readreg 1");
    EXPECT_EQ(output, "");
}

TEST(CommandInput, FeedsTheTextToTheCommand) {
    const Recorder recorder;
    CommandInput command(recorder.program() + " -n");
    ASSERT_TRUE(command.started());
    const std::string rules = "*filter\n-A INPUT -p tcp --dport 179 -j ACCEPT\nCOMMIT\n";
    EXPECT_EQ(command.write(rules), rules.size());
    EXPECT_EQ(command.close(), 0);
    EXPECT_EQ(recorder.input(), rules);
    EXPECT_EQ(recorder.arguments(), std::vector<std::string>{"-n"});
}

TEST(CommandInput, ACommandThatStopsReadingGivesAShortWriteNotASignal) {
    CommandInput command("true");
    ASSERT_TRUE(command.started());
    usleep(100 * 1000);
    const std::string big(1 << 20, 'r');
    EXPECT_LT(command.write(big), big.size());
    EXPECT_EQ(command.close(), 0);
    EXPECT_FALSE(CommandInput("kestrune-no-such-program -n").started());
}

// Text from the store (interface names, namespace names) may hold anything. Whatever it holds,
// the one program named runs with the words as its arguments, and no shell ever reads them.
TEST(CommandLine, ShellTextInAnyCommandRunsNothingButTheNamedProgram) {
    const Recorder recorder;
    const std::string marker = recorder.marker();
    const std::string hostile[] = {
        "et1;touch " + marker,  "$(touch " + marker + ")",    "`touch " + marker + "`",
        "et1|touch " + marker,  "et1&&touch " + marker,       "et1>" + marker,
        "et1\ntouch " + marker, "'; touch " + marker + "; '", "* ~ ${HOME} !! \\",
        "Ethernet 1/1 . 100",
    };
    for (const std::string& text : hostile) {
        const std::string line = recorder.program() + " dev " + text + " root";
        std::vector<std::string> expected = commandArgv(line);
        expected.erase(expected.begin());

        EXPECT_EQ(::runCommand(line, commandDiscard), 0) << text;
        EXPECT_EQ(recorder.arguments(), expected) << text;
        exec(line.c_str());
        EXPECT_EQ(recorder.arguments(), expected) << text;
        CommandInput input(line);
        input.write(text);
        EXPECT_EQ(input.close(), 0) << text;
        EXPECT_EQ(recorder.arguments(), expected) << text;
        EXPECT_EQ(recorder.input(), text) << text;
        EXPECT_FALSE(std::filesystem::exists(marker)) << text;
    }
}

} // namespace
} // namespace Kestrune::Testing

namespace Kestrune::Testing {
namespace {

// What a start-up process that set no guard gets, and what the command line's guards change.
// Each runs in a process of its own: the guards and the environment are process-wide.
struct DefaultCase {
    const char* name;
    bool guarded;
    std::function<void()> body;
};

std::ostream& operator<<(std::ostream& out, const DefaultCase& c) {
    return out << c.name;
}

class Defaults : public ::testing::TestWithParam<DefaultCase> {};

TEST_P(Defaults, AsTheSequenceSaysUnlessAGuardIsOn) {
    const DefaultCase& c = GetParam();
    TempDir dir;
    const Outcome outcome = runProcess(dir, [&] {
        RestoreGuards guards = c.guarded ? RestoreGuards::all() : RestoreGuards{};
        guards.stopGraceSeconds = 0;
        restoreGuardsIs(guards);
        c.body();
    });
    EXPECT_TRUE(outcome.exited) << "ended by signal " << outcome.signal;
    EXPECT_EQ(outcome.exitCode, 0) << "a check in the child failed";
}

// In the child, EXPECT is not seen by the parent: a failed check exits 1.
void require(bool condition) {
    if (!condition) {
        std::_Exit(1);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Library, Defaults,
    ::testing::Values(
        // The shell's default search path has the sbin folders, where the filter tools live.
        DefaultCase{"NoPathFindsWhatTheShellFinds", false,
                    [] {
                        unsetenv("PATH");
                        require(::runCommand("iptables-restore --version", -1, -2, -2) == 0);
                        setenv("PATH", "", 1);
                        require(::runCommand("iptables-restore --version", -1, -2, -2) == 0);
                    }},
        DefaultCase{"NoDeadline", false,
                    [] {
                        int events = 0;
                        Log::observerIs([&](const std::string&, const std::string&) { ++events; });
                        const TempDir dir;
                        writeTool(dir.file("slow"), "sleep 1; exit 3");
                        require(::runCommand(dir.file("slow")) == 3);
                        require(events == 0);
                    }},
        DefaultCase{"TheGuardsDeadlineKillsAndRecords", true,
                    [] {
                        RestoreGuards guards = restoreGuards();
                        guards.commandDeadlineMs = 200;
                        restoreGuardsIs(guards);
                        int events = 0;
                        Log::observerIs([&](const std::string&, const std::string&) { ++events; });
                        const TempDir dir;
                        writeTool(dir.file("slow"), "sleep 5; exit 3");
                        require(::runCommand(dir.file("slow")) == -1);
                        require(events == 1);
                    }},
        // pclose gives -1 when the caller's children are reaped for it.
        DefaultCase{"IgnoredChildrenCannotBeWaitedFor", false,
                    [] {
                        signal(SIGCHLD, SIG_IGN);
                        CommandInput input("cat");
                        require(input.started());
                        require(input.write("rules\n") == 6);
                        require(input.close() == -1);
                        require(::runCommand("true") == -1);
                    }},
        // popen's shell: a pipe runs, and a program the shell cannot find is the shell's
        // complaint on standard error, not the library's line on standard output.
        DefaultCase{"ExecStartsTheLineThroughTheShell", false,
                    [] {
                        require(exec("echo shell-ok | tr a-z A-Z") == "SHELL-OK\n");
                        std::string output = "not run";
                        require(stdoutOf([&] {
                                    output = exec("kestrune-no-such-program readreg 1 2>/dev/null");
                                }) == "");
                        require(output.empty());
                    }},
        DefaultCase{"TheNoShellGuardRunsOnlyTheProgramNamed", true,
                    [] {
                        require(exec("echo shell-ok | tr a-z A-Z") == "shell-ok | tr a-z A-Z\n");
                        std::string output = "not run";
                        require(stdoutOf([&] { output = exec("kestrune-no-such-program 1"); }) ==
                                "Unable to run cmd: kestrune-no-such-program 1");
                        require(output.empty());
                    }},
        // The conversion's error is the caller's, before anything reaches the kernel.
        DefaultCase{"APrefixLengthThatIsNoNumberLeavesIpAddrAdd", false,
                    [] {
                        const int netlink = socket(AF_NETLINK, SOCK_RAW, NETLINK_ROUTE);
                        require(netlink >= 0);
                        const auto thrown = [&](const std::string& text, bool six) {
                            try {
                                six ? ip6AddrAdd(netlink, "lo", text)
                                    : ipAddrAdd(netlink, "lo", text, false);
                            } catch (const std::invalid_argument&) {
                                return std::string("invalid_argument");
                            } catch (const std::out_of_range&) {
                                return std::string("out_of_range");
                            }
                            return std::string("none");
                        };
                        require(thrown("127.0.0.10/abc", false) == "invalid_argument");
                        require(thrown("127.0.0.10/", false) == "invalid_argument");
                        require(thrown("127.0.0.10/99999999999", false) == "out_of_range");
                        require(thrown("fd00::1/x", true) == "invalid_argument");
                    }},
        DefaultCase{"TheValueRangeGuardFailsOnlyThatAddress", true,
                    [] {
                        const int netlink = socket(AF_NETLINK, SOCK_RAW, NETLINK_ROUTE);
                        require(netlink >= 0);
                        require(!ipAddrAdd(netlink, "lo", "127.0.0.10/abc", false));
                        require(!ipAddrAdd(netlink, "lo", "127.0.0.10/99999999999", false));
                        require(!ip6AddrAdd(netlink, "lo", "fd00::1/x"));
                    }},
        DefaultCase{
            "KernelNamesAsThePlatformRuleGivesThem", false,
            [] { require(kernelIntfName("Ethernet1/2/3/4/5/6/7/8") == "et1_2_3_4_5_6_7_8"); }},
        DefaultCase{"TheKernelNameGuardRefusesWhatCouldNotBeADevice", true,
                    [] { require(kernelIntfName("Ethernet1/2/3/4/5/6/7/8").empty()); }}),
    [](const ::testing::TestParamInfo<DefaultCase>& info) { return info.param.name; });

} // namespace
} // namespace Kestrune::Testing
