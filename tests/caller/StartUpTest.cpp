// The library as a switch's start-up process drives it: a program of its own (startup/),
// built against the installed package, run with an empty environment in the guest whose
// kernel serves the chip through the chip device daemon. It sets no guard, so what it does
// is the restore's sequence exactly: the same trace, events, chip log and kernel state as the
// command line's restore in the library's order, less the lines that only its guards add.
#include "ProductionSwitch.h"

#include <csignal>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <rapidjson/document.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Kestrune::Testing {
namespace {

// How the start-up process is run: what its environment holds besides the store's folder,
// its descriptor limit, and whether it ignores SIGCHLD.
struct Launch {
    std::vector<std::string> environment;
    rlim_t descriptorLimit = 0; // soft and hard, which cannot be raised; 0 leaves the guest's
    bool ignoresChildren = false;
};

struct StartUpResult {
    int exitCode = -1;
    int signal = 0;
    std::vector<std::string> traces;
    std::vector<std::string> events;
    std::string verified; // the program's verification, as JSON
    std::string errors;   // its standard error
};

// The cases below reach into the fixture to arrange the switch.
class StartUp : public ProductionSwitch {
  public:
    using ProductionSwitch::chipLog;
    using ProductionSwitch::file;
    using ProductionSwitch::moduleLoaded;
    using ProductionSwitch::restore;
    using ProductionSwitch::storeIs;

  protected:
    void SetUp() override {
        ProductionSwitch::SetUp();
        if (HasFatalFailure()) {
            return;
        }
        // Where a switch's chip tools and chip log are: on the shell's default search path,
        // and in /run/kestrune, with nothing in the environment to say so. The guest's kernel
        // has no nftables: its filter tools are the legacy ones, first on that path as an
        // image that needs them would have them.
        ASSERT_EQ(mkdir("/run/kestrune", 0755), 0);
        chipLogPath_ = "/run/kestrune/chip.log";
        ASSERT_EQ(mount(KESTRUNE_CHIP_TOOLS, "/usr/local/bin", nullptr, MS_BIND, nullptr), 0);
        ASSERT_EQ(mkdir(file("sbin").c_str(), 0755), 0);
        for (const char* family : {"iptables", "ip6tables"}) {
            for (const char* suffix : {"", "-save", "-restore"}) {
                const std::string legacy = std::string("/usr/sbin/") + family + "-legacy" + suffix;
                const std::string tool = file("sbin") + "/" + family + suffix;
                ASSERT_EQ(symlink(legacy.c_str(), tool.c_str()), 0) << tool;
            }
        }
        ASSERT_EQ(mount(file("sbin").c_str(), "/usr/local/sbin", nullptr, MS_BIND, nullptr), 0);
    }
    void TearDown() override {
        umount2("/usr/local/sbin", MNT_DETACH);
        umount2("/usr/local/bin", MNT_DETACH);
        ProductionSwitch::TearDown();
    }

  public:
    // A stand-in tool found before the chip's own, in the folder on /usr/local/sbin, which
    // the shell's default search path has first.
    void standInIs(const std::string& tool, const std::string& body) {
        writeTool(file("sbin") + "/" + tool, body);
    }

  protected:
    StartUpResult startUp(const Launch& launch = {}) {
        const std::string trace = file("startup-trace.txt");
        const std::string history = file("startup-history.db");
        std::vector<std::string> words{KESTRUNE_STARTUP, trace, history};
        std::vector<std::string> environment{"ZEL_PSTORE_PATH=" + file("pstore")};
        environment.insert(environment.end(), launch.environment.begin(), launch.environment.end());
        std::vector<char*> argv;
        std::vector<char*> envp;
        for (std::string& word : words) {
            argv.push_back(word.data());
        }
        for (std::string& variable : environment) {
            envp.push_back(variable.data());
        }
        argv.push_back(nullptr);
        envp.push_back(nullptr);
        const std::string out = file("startup-out.txt");
        const std::string err = file("startup-err.txt");
        const pid_t child = fork();
        if (child == 0) {
            const int outFd = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            const int errFd = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            dup2(outFd, 1);
            dup2(errFd, 2);
            if (launch.descriptorLimit != 0) {
                // A hard limit that stays: not even root may raise it past this.
                const rlimit limit{launch.descriptorLimit, launch.descriptorLimit};
                setrlimit(RLIMIT_NOFILE, &limit);
                prctl(PR_CAPBSET_DROP, CAP_SYS_RESOURCE, 0, 0, 0);
            }
            signal(SIGCHLD, launch.ignoresChildren ? SIG_IGN : SIG_DFL);
            execve(argv[0], argv.data(), envp.data());
            _exit(127);
        }
        int status = 0;
        waitpid(child, &status, 0);
        StartUpResult result;
        result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        result.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
        result.traces = linesOf(trace);
        // A process that ends before it records anything leaves no history.
        result.events =
            access(history.c_str(), F_OK) == 0 ? eventsOf(history) : std::vector<std::string>{};
        result.verified = contentOf(out);
        result.errors = contentOf(err);
        return result;
    }

    // The drift the program's verification reported, one line each.
    static std::vector<std::string> driftOf(const std::string& json) {
        rapidjson::Document verified;
        verified.Parse(json.c_str());
        std::vector<std::string> drift;
        if (!verified.IsObject() || !verified.HasMember("drift")) {
            return {"no verification: " + json};
        }
        for (const auto& d : verified["drift"].GetArray()) {
            drift.push_back(std::string(d["namespace"].GetString()) + " " +
                            d["device"].GetString() + " " + d["check"].GetString());
        }
        return drift;
    }
};

// The whole sequence, both families: every trace level, the events, the chip log and the
// kernel state equal the command line's restore in the library's order; the VRF ports keep
// carrier after the program has exited (its holder has their queues), and the program's own
// verification, made before it exited, found no drift.
class StartUpRestore : public StartUp, public ::testing::WithParamInterface<const char*> {};

TEST_P(StartUpRestore, EqualsTheLibraryOrderRestoreAndKeepsTheVrfPortsUp) {
    const std::string family = GetParam();
    moduleIs(family);
    storeIs(family);
    const StartUpResult result = startUp();
    EXPECT_EQ(result.exitCode, 0) << result.errors;
    EXPECT_EQ(driftOf(result.verified), std::vector<std::string>{});
    const std::string trace = withoutTestFolder(joined(result.traces));
    EXPECT_EQ(trace, expected(family + "-trace.txt", trace));
    const std::string events = joined(result.events);
    EXPECT_EQ(events, expected(family + "-events.txt", events));
    const std::string load =
        family == "strata" ? "load strata-dma-drv app_en=0\n" : "load sand-dma\n";
    EXPECT_EQ(joined(chipLog()),
              load + contentOf(std::string(KESTRUNE_SOURCE_DIR) + "/tests/vm/expected/" + family +
                               "-example-chip.log"));
    // Read after the program has exited: the holder keeps the VRF ports' carrier.
    const std::string kernel = kernelText();
    EXPECT_EQ(kernel, expected(family + "-kernel.txt", kernel));
}

INSTANTIATE_TEST_SUITE_P(Families, StartUpRestore, ::testing::Values("strata", "sand"));

// What the command line guards against, met by a start-up process that set no guard: each
// time the restore does what its sequence says, without the guard's departure.
struct Case {
    const char* name;
    std::function<void(StartUp&)> arrange;
    Launch launch;
    std::function<void(const StartUpResult&, StartUp&)> check;
};

std::ostream& operator<<(std::ostream& out, const Case& c) {
    return out << c.name;
}

class StartUpCase : public StartUp, public ::testing::WithParamInterface<Case> {};

TEST_P(StartUpCase, TheRestoreDoesWhatItsSequenceSays) {
    const Case& c = GetParam();
    moduleIs("strata");
    storeIs("strata");
    c.arrange(*this);
    const StartUpResult result = startUp(c.launch);
    c.check(result, *this);
}

bool hasEvent(const StartUpResult& result, const std::string& prefix) {
    return std::any_of(result.events.begin(), result.events.end(),
                       [&](const std::string& e) { return e.rfind(prefix, 0) == 0; });
}

// A store of many ports: the example's Ethernet1/1 copied as L2 ports Ethernet9/1... .
void manyPorts(rapidjson::Document& store, int count) {
    auto& allocator = store.GetAllocator();
    auto& ports = store["Tessaline"]["interfaces"];
    const rapidjson::Value model(ports["Ethernet1/1"], allocator);
    for (int port = 1; port <= count; ++port) {
        rapidjson::Value copy(model, allocator);
        copy["port"].SetInt(200 + port);
        const std::string name = "Ethernet9/" + std::to_string(port);
        ports.AddMember(rapidjson::Value(name.c_str(), allocator), copy, allocator);
    }
}

void expectWhole(const StartUpResult& result, StartUp&) {
    EXPECT_EQ(result.exitCode, 0) << result.errors;
    EXPECT_EQ(result.signal, 0);
    EXPECT_FALSE(hasEvent(result, "Command: ")) << joined(result.events);
    EXPECT_FALSE(hasEvent(result, "Assertion: ")) << joined(result.events);
    EXPECT_EQ(joined(result.events), contentOf(std::string(KESTRUNE_SOURCE_DIR) +
                                               "/tests/production/expected/strata-events.txt"));
}

INSTANTIATE_TEST_SUITE_P(
    WithoutGuards, StartUpCase,
    ::testing::Values(
        // No deadline: the chip's tool takes its time and the restore waits for it.
        Case{"AFabThatTakes35Seconds",
             [](StartUp& t) { t.standInIs("fab", "sleep 35; exec /usr/local/bin/fab \"$@\""); },
             {},
             expectWhole},
        Case{"PathEmpty", [](StartUp&) {}, {{"PATH="}}, expectWhole},
        // On a switch the chip's driver holds the ports' devices: no descriptor a port.
        Case{"AHardDescriptorLimitOf1024With512Ports",
             [](StartUp& t) {
                 t.storeIs("strata", [](rapidjson::Document& store) { manyPorts(store, 512); });
             },
             {{}, 1024, false},
             [](const StartUpResult& result, StartUp&) {
                 EXPECT_EQ(result.exitCode, 0) << result.errors;
                 EXPECT_EQ(result.signal, 0);
                 EXPECT_EQ(std::count_if(result.traces.begin(), result.traces.end(),
                                         [](const std::string& line) {
                                             return line.rfind(
                                                        "Kestrune:0 Created Kernel interface for "
                                                        "Ethernet9/",
                                                        0) == 0;
                                         }),
                           512);
             }},
        // The nodes are root's, in /dev: a link there is followed as the open's path names it.
        Case{"LinksAtTheChipNodes",
             [](StartUp& t) {
                 t.moduleLoaded("strata");
                 for (const char* node : {"/dev/fabric", "/dev/kovana-bde"}) {
                     const std::string real = std::string(node) + "-real";
                     ASSERT_EQ(rename(node, real.c_str()), 0);
                     ASSERT_EQ(symlink(real.c_str(), node), 0);
                 }
             },
             {},
             [](const StartUpResult& result, StartUp&) {
                 // The bring-up found the module loaded and its nodes there: no failure at all
                 // (its verification sees only that nobody gave "fabric" its prio root).
                 EXPECT_EQ(result.signal, 0);
                 EXPECT_NE(result.exitCode, 2) << result.errors;
                 EXPECT_EQ(joined(result.events),
                           contentOf(std::string(KESTRUNE_SOURCE_DIR) +
                                     "/tests/production/expected/strata-events.txt"));
             }},
        Case{"AnUnknownMemberNested100Deep",
             [](StartUp& t) {
                 t.storeIs("strata", [](rapidjson::Document& store) {
                     auto& allocator = store.GetAllocator();
                     rapidjson::Value deep(rapidjson::kObjectType);
                     for (int level = 1; level < 100; ++level) {
                         rapidjson::Value outer(rapidjson::kObjectType);
                         outer.AddMember("deeper", deep, allocator);
                         deep = outer;
                     }
                     store.AddMember("FutureAgent", deep, allocator);
                 });
             },
             {},
             expectWhole},
        // A caller that ignores SIGCHLD has its children reaped by the kernel: no command can
        // be waited for. The C library's system() then gives -1, so the first command whose
        // status the bring-up asserts on ends it there, as the switch's would.
        Case{"SigchldIgnoredEndsOnTheFirstCommandsAssertion",
             [](StartUp&) {},
             {{}, 0, true},
             [](const StartUpResult& result, StartUp& t) {
                 EXPECT_EQ(result.signal, SIGABRT);
                 EXPECT_NE(result.errors.find("Kestrune: assertion failed: rc == 0"),
                           std::string::npos)
                     << result.errors;
                 // The chip's tool ran; only its end could not be collected.
                 EXPECT_EQ(t.chipLog().back(), "run fab devrole 0 switch");
             }},
        // With the chip up already and no chip module to register, the filter-rule restore is
        // the first command waited for: pclose gives -1, and "retVal != -1" ends it.
        Case{"SigchldIgnoredWithOnlyTheFilterToolsEndsOnPclose",
             [](StartUp& t) {
                 t.moduleLoaded("strata");
                 t.storeIs("strata", [](rapidjson::Document& store) {
                     store["Tessaline"]["devices"].SetArray();
                 });
             },
             {{}, 0, true},
             [](const StartUpResult& result, StartUp&) {
                 EXPECT_EQ(result.signal, SIGABRT);
                 EXPECT_NE(result.errors.find("Kestrune: assertion failed: retVal != -1"),
                           std::string::npos)
                     << result.errors;
                 // The tool ran and did its work: only its end could not be collected.
                 EXPECT_NE(outputOf({"iptables-save"}).find("CONTROL-PLANE"), std::string::npos);
                 EXPECT_TRUE(hasEvent(result, "ConfigParser: ")) << "events stored before the end";
             }},
        // The prefix length's conversion error leaves ipAddrAdd, and nothing of the sequence
        // catches it: the process ends on it. The command line skips that address.
        Case{"APrefixLengthThatIsNoNumberEndsTheProcess",
             [](StartUp& t) {
                 t.storeIs("strata", [](rapidjson::Document& store) {
                     store["Oku"]["interfaces"]["Ethernet1/1"]["ipAddress"] = "10.1.0.1/abc";
                 });
             },
             {},
             [](const StartUpResult& result, StartUp& t) {
                 EXPECT_EQ(result.signal, SIGABRT);
                 EXPECT_NE(result.errors.find("std::invalid_argument"), std::string::npos)
                     << result.errors;
                 EXPECT_NE(result.errors.find("stoi"), std::string::npos) << result.errors;
                 // The devices the process made before it ended are taken over.
                 const CliResult cli = t.restore({"--resume"});
                 EXPECT_EQ(cli.exitCode, 1);
                 std::string said;
                 for (const std::string& line : cli.traces) {
                     said += line.find("abc") != std::string::npos ? line + "\n" : "";
                 }
                 EXPECT_NE(said.find("prefix length of 10.1.0.1/abc is not a number"),
                           std::string::npos)
                     << said;
             }},
        // The register commands go through the shell: a missing "schan" is the shell's
        // complaint on standard error, and the library writes nothing on standard output.
        Case{"AMissingSchanIsTheShellsToSay",
             [](StartUp& t) {
                 t.storeIs("strata", [](rapidjson::Document& store) {
                     store["Tessaline"]["devices"][0]["chipModel"] = "bcm56850";
                 });
                 t.standInIs("fab", "exec " KESTRUNE_CHIP_TOOLS "/fab \"$@\"");
             },
             {{"PATH=/usr/local/sbin"}},
             [](const StartUpResult& result, StartUp&) {
                 EXPECT_NE(result.errors.find("schan: not found"), std::string::npos)
                     << result.errors;
                 EXPECT_EQ(result.verified.find("Unable to run cmd"), std::string::npos)
                     << result.verified;
                 EXPECT_TRUE(hasEvent(result, "StrataDriver: Unable to add device"))
                     << joined(result.events);
             }},
        // The store's ints, read as ints: 3,000,000,000 ends the process on the JSON library's
        // integer assertion. The command line reads it, and its VLAN range check fails the
        // one subinterface.
        Case{"AnEncapsulationVlanPastTheIntRangeEndsOnTheIntegerAssertion",
             [](StartUp& t) {
                 t.storeIs("strata", [](rapidjson::Document& store) {
                     auto& vlans = store["Vant"]["subIntfNameToEncapVlanId"];
                     vlans.MemberBegin()->value.SetUint(3000000000U);
                 });
             },
             {},
             [](const StartUpResult& result, StartUp& t) {
                 EXPECT_EQ(result.signal, SIGABRT);
                 EXPECT_NE(result.errors.find("assertion failed: data_.f.flags & kIntFlag"),
                           std::string::npos)
                     << result.errors;
                 EXPECT_FALSE(anyContains(result.traces, "doInit")) << "the parse ends it";
                 const CliResult cli = t.restore();
                 EXPECT_EQ(cli.exitCode, 1);
                 EXPECT_EQ(cli.signal, 0);
             }},
        // A device of endless bytes as the store: the stream parse stops at its first byte and
        // the process ends on "IsObject()" at once; the command line refuses the device.
        Case{"AStoreOfEndlessBytesEndsOnTheAssertionAtOnce",
             [](StartUp& t) {
                 const std::string store = t.file("pstore") + "/zel-persistent-store.json";
                 ASSERT_EQ(unlink(store.c_str()), 0);
                 ASSERT_EQ(symlink("/dev/zero", store.c_str()), 0);
             },
             {},
             [](const StartUpResult& result, StartUp& t) {
                 EXPECT_EQ(result.signal, SIGABRT);
                 EXPECT_NE(result.errors.find("assertion failed: IsObject()"), std::string::npos)
                     << result.errors;
                 EXPECT_EQ(result.errors.find("bad_alloc"), std::string::npos) << result.errors;
                 const CliResult cli = t.restore();
                 EXPECT_EQ(cli.exitCode, 2);
                 EXPECT_TRUE(anyContains(cli.traces, "is not a regular file"));
             }}),
    [](const ::testing::TestParamInfo<Case>& info) { return info.param.name; });

} // namespace
} // namespace Kestrune::Testing
