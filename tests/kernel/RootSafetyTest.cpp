// What the restore writes as root, in a private mount namespace: no link planted where it
// makes a file, node or mount point is followed (and the refusal is recorded), and every file
// and node it makes has its own mode under umask 000.
#include "PrivateNetwork.h"
#include "Scenario.h"
#include "log/Log.h"
#include "platform/ChipDevice.h"
#include "platform/StrataDriver.h"
#include "util/Namespace.h"
#include "util/RestoreLock.h"

#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <linux/magic.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/vfs.h>
#include <unistd.h>

namespace Kestrune::Testing {
namespace {

mode_t modeOf(const std::string& path) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

class RootSafety : public PrivateNetwork {
  protected:
    void SetUp() override {
        PrivateNetwork::SetUp();
        // The module option folder, private to this test.
        ASSERT_EQ(mount("kestrune-test", "/etc/modprobe.d", "tmpfs", 0, "mode=0755"), 0);
        dir_.write("target", "untouched");
        mask_ = umask(0);
    }
    void TearDown() override {
        umask(mask_);
        umount2("/etc/modprobe.d", MNT_DETACH);
        PrivateNetwork::TearDown();
    }
    void plant(const std::string& link) const {
        ASSERT_EQ(symlink(dir_.file("target").c_str(), link.c_str()), 0) << link;
    }
    bool targetUntouched() const {
        return contentOf(dir_.file("target")) == "untouched" && modeOf(dir_.file("target")) == 0644;
    }

    const TempDir dir_;
    mode_t mask_ = 0;
};

// The event history of a child process that records one event with the history at path.
Log::HistoryStatus historyOfChild(const TempDir& dir, const std::string& path) {
    runProcess(dir, [&] {
        Log::historyPathIs(path);
        Log::logEvent("Driver", "one");
        Log::doStorePending();
        const Log::HistoryStatus status = Log::historyStatus();
        std::ofstream(dir.file("status")) << status.ok << "\n"
                                          << (status.problems.empty() ? "" : status.problems[0]);
    });
    const auto lines = linesOf(dir.file("status"));
    Log::HistoryStatus status;
    status.ok = !lines.empty() && lines[0] == "1";
    if (lines.size() > 1) {
        status.problems.push_back(lines[1]);
    }
    return status;
}

TEST_F(RootSafety, NoPlantedLinkIsFollowedAndEachRefusalIsRecorded) {
    struct Planted {
        const char* what;
        std::string link;
        std::function<std::string()> act; // what the restore recorded or said about it
        const char* expected;
    };
    const Planted cases[] = {
        {"the module option file", StrataDriver::bdeOptionsFile,
         [] {
             const Log::Capture events;
             StrataDriver::configureBdeModuleParam();
             return events.events().empty() ? "" : events.events()[0].message;
         },
         "configureBdeModuleParam open failed"},
        {"a chip device node", dir_.file("fabric"),
         [&] {
             const int fd = chipDevice().open(dir_.file("fabric").c_str(), O_RDWR);
             return std::string(fd < 0 && errno == ELOOP ? "refused" : "followed");
         },
         "refused"},
        {"a namespace mount point", "/var/run/netns/ns-planted",
         [] {
             const Log::Capture events;
             addNsEvenIfPresent("ns-planted");
             return events.events().empty() ? "" : events.events()[0].message;
         },
         "addNsEvenIfPresent /var/run/netns/ns-planted is a link; not followed"},
        {"the history", dir_.file("history.db"),
         [&] {
             const TempDir child;
             const auto status = historyOfChild(child, dir_.file("history.db"));
             return std::string(status.ok ? "ok" : "refused");
         },
         "refused"},
        {"the history's folder", dir_.file("history"),
         [&] {
             const TempDir child;
             const auto status = historyOfChild(child, dir_.file("history") + "/h.db");
             return std::string(status.ok ? "ok" : "refused");
         },
         "refused"},
    };
    unsetenv("SIMULATION_VMID");
    chipDeviceIs(nullptr);
    mkdir("/var/run/netns", 0755);
    for (const Planted& planted : cases) {
        SCOPED_TRACE(planted.what);
        plant(planted.link);
        EXPECT_EQ(planted.act(), planted.expected);
        EXPECT_TRUE(targetUntouched());
        struct statfs filesystem {};
        EXPECT_EQ(statfs(dir_.file("target").c_str(), &filesystem), 0);
        EXPECT_NE(filesystem.f_type, static_cast<decltype(filesystem.f_type)>(NSFS_MAGIC))
            << "a namespace was mounted through the link";
        unlink(planted.link.c_str());
    }
}

TEST_F(RootSafety, WhatTheRestoreMakesHasItsOwnModeUnderUmask000) {
    unsetenv("SIMULATION_VMID");
    chipDeviceIs(nullptr);
    struct Made {
        const char* what;
        std::function<void()> make;
        std::string path;
        mode_t mode;
    };
    const std::string history = dir_.file("var/history/h.db");
    const Made cases[] = {
        {"the module option file", [] { StrataDriver::configureBdeModuleParam(); },
         StrataDriver::bdeOptionsFile, 0644},
        {"the option file over a world-writable one",
         [] {
             const int fd = ::open(StrataDriver::bdeOptionsFile, O_WRONLY | O_CREAT, 0666);
             fchmod(fd, 0666);
             ::close(fd);
             StrataDriver::configureBdeModuleParam();
         },
         StrataDriver::bdeOptionsFile, 0644},
        {"a chip device node",
         [&] { chipDevice().mknod(dir_.file("node").c_str(), S_IFCHR | 0666, makedev(240, 0)); },
         dir_.file("node"), 0666},
        {"the named-namespace folder", [] { addNsEvenIfPresent("ns-mode"); }, "/var/run/netns",
         0755},
        {"the history's folder", [&] { historyOfChild(TempDir(), history); },
         dir_.file("var/history"), 0755},
        // Nobody else may open the history: a shared lock on its -shm would hold every event.
        {"the history", [] {}, history, 0600},
        {"the restore lock",
         [&] {
             std::filesystem::create_directory(dir_.file("run"));
             RestoreLock lock(dir_.file("run/kestrune/restore.lock"));
             lock.doTake();
         },
         // flock works on a read-only descriptor: a lock others can open, others can hold.
         dir_.file("run/kestrune/restore.lock"), 0600},
    };
    for (const Made& made : cases) {
        SCOPED_TRACE(made.what);
        made.make();
        EXPECT_EQ(modeOf(made.path), made.mode) << std::oct << modeOf(made.path);
    }
    EXPECT_EQ(contentOf(StrataDriver::bdeOptionsFile), "options kovana-bde fixed_modid=1\n");
}

} // namespace
} // namespace Kestrune::Testing
