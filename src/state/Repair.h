#pragma once

#include "model/Config.h"
#include "state/Verification.h"

#include <string>
#include <vector>

namespace Kestrune {

// One thing a repair does to put back what the store says, or lists and leaves.
struct RepairStep {
    std::string ns;
    std::string device; // the device, or "iptables filter" and the like for a rule
    std::string what;   // "address 10.1.0.1/24 added", "moved from ns-blue", ...
    // Left as it is, with why: not the store's (a foreign address, device or rule), or not
    // something a repair can put back (a chip's device, a queue nobody holds).
    bool left = false;
    std::string why;
    // Applied: whether it worked, and if not what the kernel or the tool said.
    bool done = false;
    std::string failure;
};

// What `repair` found and did: from verify's drift and the plan, the fewest steps that put
// back what the store says. It touches only the devices, addresses and rules the store names.
struct Repair {
    bool read = false;   // the kernel, the rules and the store could be read
    std::string problem; // why not
    std::vector<RepairStep> steps;
    bool applied = false;
    Verification after; // applied: the kernel verified again

    // Like verify's: 0 nothing drifted (or, applied, nothing is left drifting), 1 drift found
    // (or left), 2 something could not be read.
    int exitStatus() const;
    std::string text() const;
    std::string json() const;
};

// Reads the kernel and the rules in force, compares them with what a restore of the model
// makes, and says the steps; with `apply`, takes them with the restore's own operations, each
// recorded as an event of group "Repair", and verifies again. A start-up process holds the
// restore's lock around it (RestoreLock), as the command line does.
Repair repair(const Config& config, bool apply);
// The same for the store at path, read as verify reads it.
Repair repairOfStore(const std::string& path, bool apply);

} // namespace Kestrune
