#pragma once

#include "CliRun.h"
#include "PrivateNetwork.h"
#include "Scenario.h"

#include <functional>
#include <memory>
#include <rapidjson/document.h>
#include <string>
#include <sys/types.h>

namespace Kestrune::Testing {

// A switch as the shipped restore meets it, in a guest whose kernel serves the chip through
// the chip device daemon: /dev a plain tmpfs holding only what any system has (the chip's
// nodes are the restore's own mknod to make), real /sbin/modprobe reaching the daemon through
// an install line in /etc/modprobe.d/, the chip's tools on PATH, and SIMULATION_VMID unset.
// Each test gets its own network and mount namespaces; the daemon is stopped after it.
class ProductionSwitch : public PrivateNetwork {
  protected:
    void SetUp() override;
    void TearDown() override;
    // Ends the chip device daemon and the queue holder, each told to end as at shutdown, and
    // returns once they are gone.
    void doEndDaemonAndHolder();

    // Makes the DMA module of the family ("strata" or "sand") load the daemon, refusing what
    // `refused` names (comma-separated, see the chip's fault names), or run `command` instead.
    void moduleIs(const std::string& family, const std::string& refused = "");
    void moduleCommandIs(const std::string& module, const std::string& command);
    // Loads the module now, as a system that had it before the restore.
    void moduleLoaded(const std::string& family);

    // The store the restore will read: an example, edited.
    void storeIs(const std::string& example,
                 const std::function<void(rapidjson::Document&)>& edit = {});
    // `kestrune restore` of that store, every trace level on, with `extra` flags.
    CliResult restore(const std::vector<std::string>& extra = {});

    std::string file(const std::string& name) const { return dir_->file(name); }
    std::vector<std::string> chipLog() const { return linesOf(chipLogPath_); }
    // The text with this test's folder written as "<test>", as the expected files have it.
    std::string withoutTestFolder(std::string text) const;
    // "<group>: <message>" of each event in a history file, oldest first.
    static std::vector<std::string> eventsOf(const std::string& history);
    // The lines of a trace that the restore's sequence has, without those its guards add
    // (RestoreGuards::extraReports): what a start-up process that sets no guard traces.
    static std::vector<std::string> withoutExtraReports(const std::vector<std::string>& traces);
    // What the kernel holds after the restore, as text: every namespace's devices (kind, MTU,
    // MAC, state, root qdisc, addresses) and filter rules.
    static std::string kernelText();
    // The expected file in tests/production/expected/; also writes `actual` beside it in
    // $KESTRUNE_ACTUAL_DIR when that is set, to review a change.
    static std::string expected(const std::string& name, const std::string& actual);

    // Where the restore's queue holder (`kestrune hold`) keeps its pid.
    static const std::string queueHolderPidFile;
    // Alive and not yet a zombie: the guest's init may be slow to reap a process whose
    // parent, the restore, is gone.
    static bool running(pid_t pid);

    // Where the chip device daemon and the chip's tools write the chip log.
    std::string chipLogPath_;

  private:
    std::unique_ptr<TempDir> dir_;
};

} // namespace Kestrune::Testing
