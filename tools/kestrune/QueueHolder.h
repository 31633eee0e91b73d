#pragma once

#include "driver/Driver.h"

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

namespace Kestrune::Cli {

// The TAP devices a restore makes in the VRF namespaces have carrier only while a queue of
// theirs is open, and the restore's process ends. So the restore hands its queues to a small
// process of its own, `kestrune hold` (its pid in holderPidFile), which holds them until the
// next restore ends it and takes the devices over. The devices the chip's driver makes are
// the driver's: it holds those.
inline constexpr const char* holderPidFile = "/run/kestrune/queues.pid";

// Ends the holder a previous restore left, if any, and returns once it is gone (its devices
// then have no carrier until this restore takes them over). False, with the reason in
// `problem`, when a holder is there and will not end.
bool doEndQueueHolder(std::string& problem);
// The queues of the TAP devices the driver made in the VRFs (none before it made any).
const std::vector<int>& vrfQueuesOf(const Driver& driver);
// Starts a holder of these queues; false, with the reason in `problem`, when it cannot.
bool doHoldQueues(const std::vector<int>& queues, std::string& problem);

// The hidden `hold` subcommand that the holder runs: it waits until told to end.
void addHoldCommand(CLI::App& app, int& status);

} // namespace Kestrune::Cli
