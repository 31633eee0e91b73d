#include "PrivateNetwork.h"
#include "ProductionSwitch.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <set>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <tuple>
#include <unistd.h>

namespace Kestrune::Testing {
namespace {

bool has(const std::vector<std::string>& lines, const std::string& line) {
    return std::find(lines.begin(), lines.end(), line) != lines.end();
}

// The restore of each example as a switch runs it: the chip hears exactly the expected
// sequence through its character devices, and the kernel ends up holding the store's state.
// Each example in both orders of the filter rules: the chip and the kernel end the same.
class ExampleRestore : public ProductionSwitch,
                       public ::testing::WithParamInterface<std::tuple<const char*, const char*>> {
};

TEST_P(ExampleRestore, TheChipHearsTheExpectedSequenceAndTheKernelHoldsTheStore) {
    const std::string example = std::get<0>(GetParam());
    moduleIs(example);
    storeIs(example);
    const CliResult result = restore({"--filter-rules", std::get<1>(GetParam())});
    EXPECT_TRUE(result.exited) << "ended by signal " << result.signal;
    // The chip hears what the in-process simulator hears, after its module's load.
    const std::string chip = joined(chipLog());
    const std::string load =
        example == "strata" ? "load strata-dma-drv app_en=0\n" : "load sand-dma\n";
    EXPECT_EQ(chip, load + contentOf(std::string(KESTRUNE_SOURCE_DIR) + "/tests/vm/expected/" +
                                     example + "-example-chip.log"));
    // Read after the restore's process has ended: the VRFs' routed ports, TAP devices of the
    // restore's own, keep their carrier (its holder has their queues), as the chip's devices
    // do (the daemon holds those).
    const std::string kernel = kernelText();
    EXPECT_EQ(kernel, expected(example + "-kernel.txt", kernel));
    // In the library's order, the trace at every level and the events are what a start-up
    // process that sets no guard gets (the start-up tier compares it with the same files),
    // once the lines that only the command line's guards add are left out.
    if (std::string(std::get<1>(GetParam())) == "last") {
        const std::string trace = withoutTestFolder(joined(withoutExtraReports(result.traces)));
        EXPECT_EQ(trace, expected(example + "-trace.txt", trace));
        const std::string events = joined(eventsOf(file("history.db")));
        EXPECT_EQ(events, expected(example + "-events.txt", events));
    }
    // And `verify` finds all of it, against the store, as an operator would check it later.
    int status = -1;
    const std::string verified =
        outputOf({KESTRUNE_CLI, "verify", "--pstore-dir", file("pstore")}, &status);
    EXPECT_EQ(status, 0) << verified;
    EXPECT_NE(verified.find("The kernel matches the store"), std::string::npos) << verified;
    // The switch's sequence, in its order, through the real devices.
    const std::vector<std::string> lines = result.traces;
    EXPECT_TRUE(has(lines, "Kestrune:0 setupBdeDevice kovana-bde  driver loaded."));
    struct stat node {};
    ASSERT_EQ(stat("/dev/fabric", &node), 0);
    EXPECT_EQ(node.st_mode, S_IFCHR | 0666);
    EXPECT_EQ(node.st_rdev, makedev(240, 0));
    ASSERT_EQ(stat("/dev/kovana-bde", &node), 0);
    EXPECT_EQ(node.st_mode, S_IFCHR | 0666);
    EXPECT_EQ(node.st_rdev, makedev(127, 0));
}

INSTANTIATE_TEST_SUITE_P(Production, ExampleRestore,
                         ::testing::Combine(::testing::Values("strata", "sand"),
                                            ::testing::Values("first", "last")));

} // namespace
} // namespace Kestrune::Testing

namespace Kestrune::Testing {
namespace {

// A switch whose DMA module and nodes are already there (a restore run twice, or a system
// that loads the module itself): no module load, no node, no prio qdisc on fabric.
TEST_F(ProductionSwitch, ASecondRestoreEndsTheFirstsHolderAndTakesItsDevicesOver) {
    moduleIs("strata");
    storeIs("strata");
    ASSERT_EQ(restore().exitCode, 0);
    const std::string first = contentOf(queueHolderPidFile);
    ASSERT_FALSE(first.empty());
    // Run again, as after an interruption: it takes over what the first made.
    const CliResult second = restore({"--resume"});
    EXPECT_EQ(second.exitCode, 0);
    const std::string next = contentOf(queueHolderPidFile);
    EXPECT_NE(next, first);
    EXPECT_FALSE(running(std::stoi(first))) << "the first holder still runs";
    // The state is the first restore's.
    const std::string kernel = kernelText();
    EXPECT_EQ(kernel, expected("strata-kernel.txt", kernel));
}

// Another local user (uid 65534) asks the chip, through its node anyone may open, for two
// devices the restore has not made yet: a port, by the restore's own command, and a TAP by the
// name of an SVI's VLAN device. A resumed restore takes over neither: it says why, records it,
// fails to make them, and verify shows both.
TEST_F(ProductionSwitch, AResumeTakesOverNoDeviceAnotherUserHadTheChipMake) {
    moduleLoaded("strata");
    storeIs("strata");
    // The restore's command for et1_10, as the expected trace has it.
    const std::string ownCommand = "ifadd et1_10 0 10 -1 1015 88 1076";
    std::fflush(nullptr);
    const pid_t nobody = fork();
    if (nobody == 0) {
        if (setgroups(0, nullptr) != 0 || setgid(65534) != 0 || setuid(65534) != 0) {
            _exit(99);
        }
        const int fd = ::open("/dev/fabric", O_RDWR);
        int made = 0;
        for (const std::string& command :
             {ownCommand, std::string("ifadd vlan13 0 98 -1 0 8 24")}) {
            made += fd >= 0 && ::ioctl(fd, command.size() + 1, command.c_str()) == 0 ? 1 : 0;
        }
        _exit(made);
    }
    int status = 0;
    waitpid(nobody, &status, 0);
    ASSERT_TRUE(WIFEXITED(status));
    ASSERT_EQ(WEXITSTATUS(status), 2) << "uid 65534 could not have the chip make both devices";

    const CliResult resumed = restore({"--resume"});
    EXPECT_EQ(resumed.exitCode, 1);
    const std::string refusals[] = {
        "Not taking over et1_10 in default for Ethernet1/10: the chip made it by \"" + ownCommand +
            " (uid 65534)\" where the restore sends \"" + ownCommand + "\"",
        "Not taking over vlan13 in default for Vlan13: it is a tun device where a vlan device "
        "belongs"};
    const std::vector<std::string> events = eventsOf(file("history.db"));
    for (const std::string& refusal : refusals) {
        EXPECT_TRUE(has(resumed.traces, "Kestrune:0 " + refusal)) << joined(resumed.traces);
        EXPECT_TRUE(has(events, "Driver: " + refusal)) << joined(events);
    }
    for (const char* name : {"Ethernet1/10", "Vlan13"}) {
        EXPECT_TRUE(
            has(events, std::string("Driver: Unable to create Kernel interface for ") + name))
            << joined(events);
    }
    int verified = -1;
    const std::string drift =
        outputOf({KESTRUNE_CLI, "verify", "--pstore-dir", file("pstore")}, &verified);
    EXPECT_EQ(verified, 1) << drift;
    EXPECT_NE(drift.find("vlan13"), std::string::npos) << drift;
    EXPECT_NE(drift.find("et1_10"), std::string::npos) << drift;
}

// The VRFs' routed ports keep carrier only while their holder has their queues: `verify`
// sees the restore whole after it has exited, and sees exactly those ports lose carrier
// when the holder is gone.
TEST_F(ProductionSwitch, VerifySeesTheVrfPortsLoseCarrierWhenTheirHolderIsGone) {
    moduleIs("strata");
    storeIs("strata");
    ASSERT_EQ(restore().exitCode, 0);
    const auto verified = [this](int& status) {
        rapidjson::Document result;
        result.Parse(
            outputOf({KESTRUNE_CLI, "verify", "--json", "--pstore-dir", file("pstore")}, &status)
                .c_str());
        std::set<std::string> drift;
        for (const auto& d : result["drift"].GetArray()) {
            drift.insert(std::string(d["namespace"].GetString()) + " " + d["device"].GetString() +
                         " " + d["check"].GetString() + " " + d["found"].GetString());
        }
        return drift;
    };
    int status = -1;
    EXPECT_EQ(verified(status), std::set<std::string>{});
    EXPECT_EQ(status, 0);

    const pid_t holder = std::stoi(contentOf(queueHolderPidFile));
    ASSERT_EQ(kill(holder, SIGKILL), 0);
    for (int tries = 0; tries < 100 && running(holder); ++tries) {
        usleep(10000);
    }
    EXPECT_EQ(verified(status),
              (std::set<std::string>{"ns-blue et1_3 carrier off", "ns-blue et1_6 carrier off",
                                     "ns-blue et1_9 carrier off", "ns-blue et1_12 carrier off",
                                     "ns-red et1_2 carrier off", "ns-red et1_5 carrier off",
                                     "ns-red et1_8 carrier off", "ns-red et1_11 carrier off",
                                     "ns-red po3 carrier off"}));
    EXPECT_EQ(status, 1);
}

TEST_F(ProductionSwitch, AFabricDeviceAlreadyThereSkipsTheModuleTheNodeAndTheQdisc) {
    moduleLoaded("strata");
    storeIs("strata");
    const CliResult result = restore();
    EXPECT_TRUE(result.exited);
    const std::vector<std::string> chip = chipLog();
    EXPECT_EQ(std::count_if(chip.begin(), chip.end(),
                            [](const std::string& line) { return line.rfind("load ", 0) == 0; }),
              1);
    for (const std::string& line : result.traces) {
        EXPECT_EQ(line.find("setupFabricDevice Loading"), std::string::npos) << line;
        EXPECT_EQ(line.find("strata-dma-drv driver loaded."), std::string::npos) << line;
    }
    const std::string kernel = kernelText();
    const std::size_t fabric = kernel.find("  fabric ");
    ASSERT_NE(fabric, std::string::npos);
    EXPECT_EQ(kernel.substr(fabric, kernel.find('\n', fabric) - fabric).find("prio"),
              std::string::npos);
}

// What the chip's devices take from whoever opens them: a node made otherwise than the
// platform's bring-up makes it, or opened otherwise, is refused and said in the chip log.
struct NodeCase {
    const char* name;
    const char* path;
    mode_t mode;
    unsigned major;
    int flags;
    int error;        // errno of the open
    const char* said; // the chip log's last line, "" when the chip never hears of it
};

std::ostream& operator<<(std::ostream& out, const NodeCase& node) {
    return out << node.name;
}

class ChipNodes : public ProductionSwitch, public ::testing::WithParamInterface<NodeCase> {};

TEST_P(ChipNodes, ANodeOrOpenUnlikeTheBringUpsIsRefused) {
    const NodeCase& node = GetParam();
    moduleLoaded("strata");
    ASSERT_EQ(unlink(node.path), 0);
    const mode_t mask = umask(0);
    ASSERT_EQ(mknod(node.path, S_IFCHR | node.mode, makedev(node.major, 0)), 0);
    umask(mask);
    const int fd = open(node.path, node.flags);
    const int error = errno;
    if (fd >= 0) {
        close(fd);
    }
    EXPECT_LT(fd, 0);
    EXPECT_EQ(error, node.error) << std::strerror(error);
    const std::vector<std::string> chip = chipLog();
    EXPECT_EQ(chip.back(), node.said[0] != '\0' ? std::string(node.said) : "load strata-dma-drv");
}

INSTANTIATE_TEST_SUITE_P(
    Production, ChipNodes,
    ::testing::Values(
        NodeCase{"BdeModeNot0666", "/dev/kovana-bde", 0644, 127, O_RDWR | O_SYNC, EACCES,
                 "refused open of /dev/kovana-bde: the node has mode 0644, not 0666"},
        NodeCase{"FabricModeNot0666", "/dev/fabric", 0600, 240, O_RDWR, EACCES,
                 "refused open of /dev/fabric: the node has mode 0600, not 0666"},
        NodeCase{"BdeWithoutSync", "/dev/kovana-bde", 0666, 127, O_RDWR, EACCES,
                 "refused open of /dev/kovana-bde: not opened with O_SYNC"},
        NodeCase{"FabricReadOnly", "/dev/fabric", 0666, 240, O_RDONLY, EACCES,
                 "refused open of /dev/fabric: not opened read-write"},
        NodeCase{"BdeUnderAnUnservedMajor", "/dev/kovana-bde", 0666, 126, O_RDWR | O_SYNC, ENXIO,
                 ""},
        NodeCase{"FabricUnderAnUnservedMajor", "/dev/fabric", 0666, 241, O_RDWR, ENXIO, ""}),
    [](const ::testing::TestParamInfo<NodeCase>& info) { return info.param.name; });

} // namespace
} // namespace Kestrune::Testing

namespace Kestrune::Testing {
namespace {

// A member distributing but not collecting is state 2 on the chip; the VRFs are collected
// member by member before the default namespace is mounted.
TEST_F(ProductionSwitch, AMemberDistributingOnlyIsStateTwoAndTheVrfsAreTraced) {
    moduleIs("strata");
    storeIs("strata", [](rapidjson::Document& store) {
        auto& flags = store["Pell"]["collectDistribute"]["Ethernet1/16"];
        flags["collecting"].SetBool(false);
        flags["distributing"].SetBool(true);
    });
    const CliResult result = restore();
    EXPECT_TRUE(result.exited);
    EXPECT_TRUE(has(chipLog(), "fabric lagmemberupdate 2 0 16 2"));
    const auto& lines = result.traces;
    const auto collected =
        std::find(lines.begin(), lines.end(),
                  "Kestrune:9 doCreateVrfs ns-red added to collection for Ethernet1/2");
    const auto mounting =
        std::find(lines.begin(), lines.end(), "Kestrune:3 doCreateVrfs Mounting default Namespace");
    EXPECT_NE(collected, lines.end());
    EXPECT_NE(mounting, lines.end());
    EXPECT_LT(collected, mounting);
}

} // namespace
} // namespace Kestrune::Testing

namespace Kestrune::Testing {
namespace {

// Where named namespaces cannot be made, the default one cannot be mounted either, and the
// restore cannot come back to it: it ends on the written assertion, recorded.
TEST_F(ProductionSwitch, NoRoomForNamedNamespacesEndsTheRestoreOnTheWrittenAssertion) {
    moduleIs("strata");
    storeIs("strata");
    ASSERT_EQ(mkdir("/run/netns", 0755), 0);
    ASSERT_EQ(mount("kestrune-netns", "/run/netns", "tmpfs", MS_RDONLY, "mode=0755"), 0);
    const CliResult result = restore();
    umount2("/run/netns", MNT_DETACH);
    EXPECT_EQ(result.signal, SIGABRT);
    ASSERT_FALSE(result.recorded.empty());
    EXPECT_NE(result.recorded.back().find(
                  "assertion failed: switchToNs(DEFAULT_NS) == 0 && \"setns to default namespace "
                  "failed\""),
              std::string::npos)
        << result.recorded.back();
}

} // namespace
} // namespace Kestrune::Testing
