#include "ProductionSwitch.h"

#include "log/HistoryStore.h"
#include "state/KernelState.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <sstream>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <thread>
#include <unistd.h>

namespace Kestrune::Testing {
namespace {

const char* const modules[][2] = {{"strata", "strata-dma-drv"}, {"sand", "sand-dma"}};

std::string moduleOf(const std::string& family) {
    for (const auto& [name, module] : modules) {
        if (family == name) {
            return module;
        }
    }
    ADD_FAILURE() << "no chip family " << family;
    return {};
}

// The nodes every system has; the guest's kernel serves them.
void plainDev() {
    ASSERT_EQ(mount("kestrune-dev", "/dev", "tmpfs", MS_NOSUID, "mode=0755"), 0);
    struct Node {
        const char* path;
        mode_t mode;
        unsigned major, minor;
    };
    const Node nodes[] = {{"/dev/null", 0666, 1, 3},    {"/dev/zero", 0666, 1, 5},
                          {"/dev/full", 0666, 1, 7},    {"/dev/random", 0666, 1, 8},
                          {"/dev/urandom", 0666, 1, 9}, {"/dev/tty", 0666, 5, 0},
                          {"/dev/cuse", 0600, 10, 203}, {"/dev/net/tun", 0666, 10, 200}};
    ASSERT_EQ(mkdir("/dev/net", 0755), 0);
    ASSERT_EQ(mkdir("/dev/shm", 01777), 0);
    const mode_t mask = umask(0);
    for (const Node& node : nodes) {
        ASSERT_EQ(mknod(node.path, S_IFCHR | node.mode, makedev(node.major, node.minor)), 0)
            << node.path;
    }
    umask(mask);
}

} // namespace

void ProductionSwitch::SetUp() {
    PrivateNetwork::SetUp();
    if (HasFatalFailure()) {
        return;
    }
    ASSERT_TRUE(std::filesystem::exists("/proc/misc")) << "no /proc";
    // The test's files live under the private /run: the new /dev hides the usual scratch.
    setenv("TMPDIR", "/run", 1);
    dir_ = std::make_unique<TempDir>();
    plainDev();
    ASSERT_EQ(mount("kestrune-modprobe", "/etc/modprobe.d", "tmpfs", 0, "mode=0755"), 0);
    run({"ip", "link", "set", "lo", "up"});
    unsetenv("SIMULATION_VMID");
    chipLogPath_ = file("chip.log");
    setenv("KESTRUNE_CHIP_LOG", chipLogPath_.c_str(), 1);
    setenv("KESTRUNE_CHIP_REGISTERS", file("registers").c_str(), 1);
    std::ofstream(file("chip.log")).close();
}

void ProductionSwitch::doEndDaemonAndHolder() {
    // The daemon holds the chip's device numbers for the whole guest: the next test needs them.
    // The restore's queue holder keeps this test's namespaces alive.
    for (const std::string& pidPath : {dir_ ? file("daemon.pid") : "", queueHolderPidFile}) {
        std::ifstream pidFile(pidPath);
        pid_t pid = 0;
        if (pidFile >> pid && pid > 0 && kill(pid, SIGTERM) == 0) {
            for (int i = 0; i < 500 && running(pid); ++i) {
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
            }
        }
    }
}

void ProductionSwitch::TearDown() {
    doEndDaemonAndHolder();
    umount2("/etc/modprobe.d", MNT_DETACH);
    umount2("/dev", MNT_DETACH);
    dir_.reset();
    PrivateNetwork::TearDown();
}

bool ProductionSwitch::running(pid_t pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    std::getline(stat, line);
    const std::size_t state = line.rfind(')');
    return kill(pid, 0) == 0 && state != std::string::npos && state + 2 < line.size() &&
           line[state + 2] != 'Z';
}

const std::string ProductionSwitch::queueHolderPidFile = "/run/kestrune/queues.pid";

void ProductionSwitch::moduleCommandIs(const std::string& module, const std::string& command) {
    std::ofstream(std::string("/etc/modprobe.d/") + module + ".conf")
        << "install " << module << " " << command << "\n";
}

void ProductionSwitch::moduleIs(const std::string& family, const std::string& refused) {
    const std::string module = moduleOf(family);
    std::string command = std::string(KESTRUNE_CHIP_DAEMON) + " --family " + family + " --module " +
                          module + " --chip-log " + chipLogPath_ + " --pid-file " +
                          file("daemon.pid");
    if (!refused.empty()) {
        command += " --refuse " + refused;
    }
    moduleCommandIs(module, command + " $CMDLINE_OPTS");
}

void ProductionSwitch::moduleLoaded(const std::string& family) {
    moduleIs(family);
    run({"/sbin/modprobe", moduleOf(family)});
    const mode_t mask = umask(0);
    ASSERT_EQ(mknod("/dev/fabric", S_IFCHR | 0666, makedev(240, 0)), 0);
    ASSERT_EQ(mknod("/dev/kovana-bde", S_IFCHR | 0666, makedev(127, 0)), 0);
    umask(mask);
}

void ProductionSwitch::storeIs(const std::string& example,
                               const std::function<void(rapidjson::Document&)>& edit) {
    std::string text =
        contentOf(std::string(KESTRUNE_SOURCE_DIR) + "/examples/" + example + ".json");
    if (edit) {
        rapidjson::Document store;
        store.Parse(text.c_str());
        edit(store);
        rapidjson::StringBuffer buffer;
        rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
        store.Accept(writer);
        text = buffer.GetString();
    }
    std::filesystem::create_directories(file("pstore"));
    std::ofstream(file("pstore/zel-persistent-store.json")) << text;
}

CliResult ProductionSwitch::restore(const std::vector<std::string>& extra) {
    CliRun run;
    run.args = {"restore",          "--pstore-dir", file("pstore"),     "--history",
                file("history.db"), "--report",     file("report.json")};
    run.args.insert(run.args.end(), extra.begin(), extra.end());
    run.traceFile = file("trace.txt");
    run.toolsFirst = KESTRUNE_CHIP_TOOLS;
    return runCli(run);
}

std::string ProductionSwitch::kernelText() {
    const std::vector<NamespaceState> state = settledState();
    std::string text = kernelStateTable(state);
    for (const NamespaceState& ns : state) {
        for (const char* tool : {"iptables-save", "ip6tables-save"}) {
            std::vector<std::string> argv{tool};
            if (ns.name != "default") {
                argv.insert(argv.begin(), {"ip", "netns", "exec", ns.name});
            }
            text += "namespace " + ns.name + " " + tool + "\n";
            std::istringstream rules(outputOf(argv));
            for (std::string line; std::getline(rules, line);) {
                // The comments carry the time of the dump, the chains' counters the traffic
                // the kernel sent on its own (neighbour discovery).
                if (!line.empty() && line[0] == ':') {
                    line = line.substr(0, line.rfind(" ["));
                }
                if (!line.empty() && line[0] != '#') {
                    text += line + "\n";
                }
            }
        }
    }
    return text;
}

std::string ProductionSwitch::withoutTestFolder(std::string text) const {
    const std::string folder = dir_->file("");
    for (std::size_t at = 0; (at = text.find(folder, at)) != std::string::npos;) {
        text.replace(at, folder.size(), "<test>/");
    }
    return text;
}

std::vector<std::string> ProductionSwitch::eventsOf(const std::string& history) {
    return messagesOf(HistoryStore::historyOf(history));
}

std::vector<std::string>
ProductionSwitch::withoutExtraReports(const std::vector<std::string>& traces) {
    // The operations whose trace lines only the guard writes: none of them traces otherwise.
    static const char* const extra[] = {"runCommand ",
                                        "createIntf ",
                                        "makeVlanDevice ",
                                        "HardwareFeatureStatus ",
                                        "logEvent ",
                                        "openSocketInNs ",
                                        "doInit descriptor limit raised "};
    std::vector<std::string> kept;
    for (const std::string& line : traces) {
        const std::size_t blank = line.find(' ');
        const std::string message = blank == std::string::npos ? "" : line.substr(blank + 1);
        if (std::none_of(std::begin(extra), std::end(extra),
                         [&](const char* operation) { return message.rfind(operation, 0) == 0; })) {
            kept.push_back(line);
        }
    }
    return kept;
}

std::string ProductionSwitch::expected(const std::string& name, const std::string& actual) {
    if (const char* folder = std::getenv("KESTRUNE_ACTUAL_DIR"); folder != nullptr) {
        std::ofstream(std::string(folder) + "/" + name) << actual;
    }
    return contentOf(std::string(KESTRUNE_SOURCE_DIR) + "/tests/production/expected/" + name);
}

} // namespace Kestrune::Testing
