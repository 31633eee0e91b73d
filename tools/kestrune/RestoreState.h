#pragma once

#include "RestoreRun.h"

#include <CLI/CLI.hpp>
#include <string>

namespace Kestrune::Cli {

// Where the restore's state is for other daemons and operators to read (`kestrune status`).
inline constexpr const char* defaultStatePath = "/run/kestrune/state.json";

// The restore's state: written whole when a restore starts ("running") and replaced when it
// ends ("done", "failed" or "stopped"), so a reader never sees half of one. The boot's id tells
// a state this boot wrote from one an earlier boot left.
struct RestoreState {
    std::string state; // "running", "done", "failed", "stopped"
    std::string bootId;
    long pid = 0;
    double startedMs = 0;  // since boot
    std::string startedAt; // UTC, ISO 8601
    double endedMs = -1;   // since boot; -1 while running
    int exitStatus = -1;
    std::size_t interfaces = 0;
    std::size_t made = 0;
    std::size_t failures = 0;
    std::string report; // the report's path, "" for none

    std::string json() const;
    // A running restore's state, this process's, from now.
    static RestoreState started();
    // The state a finished restore leaves.
    static RestoreState ended(const RestoreState& start, const RestoreReport& report,
                              const std::string& reportPath);
};

// /proc/sys/kernel/random/boot_id, "" when it cannot be read.
std::string thisBootId();

// Reads the state at `path`; false, with why in `problem`, when there is none or it is not one.
bool restoreStateRead(const std::string& path, RestoreState& state, std::string& problem);

// Writes the state whole (a new file renamed over the old), making /run/kestrune for the
// default path; false, with the reason on standard error, when it cannot.
bool restoreStateWritten(const std::string& path, const RestoreState& state);

// "Restored 2,304 of 2,304 interfaces in 8.7 s, 0 failures", and the like for a restore that
// could not start or was stopped.
std::string statusLine(const RestoreReport& report);

// "Restoring: create, 1,024 of 2,304 interfaces".
std::string progressLine(const char* phase, std::size_t done, std::size_t of);

// Tells the service manager the unit's status line (sd_notify's "STATUS="), when it runs the
// process as a service that listens ($NOTIFY_SOCKET); nothing otherwise.
void serviceStatusIs(const std::string& line);

// `kestrune status`.
void addStatusCommand(CLI::App& app, int& status);

} // namespace Kestrune::Cli
