#pragma once

#include "model/Config.h"
#include "plan/RestorePlan.h"

#include <string>
#include <vector>

namespace Kestrune {

// One kernel device that a whole restore of a store leaves behind: a device of the plan that
// the restore makes.
using ExpectedDevice = PlannedDevice;

struct ExpectedState {
    std::vector<std::string> namespaces; // the VRFs', sorted
    std::vector<ExpectedDevice> devices; // in the order the restore makes them
    std::string iptables;                // the stored rule texts
    std::string ip6tables;
};

// What a restore in which nothing fails makes of the store's model: the plan's devices that
// are made, each in its namespace (a Sand switch makes no LAG and no subinterface).
// `valueRanges` is the guard of that name, which the restore ran with.
ExpectedState expectedState(const Config& config, bool simulatedSwitch, bool valueRanges);
ExpectedState expectedState(const RestorePlan& plan);

} // namespace Kestrune
