#pragma once

#include "state/ExpectedState.h"
#include "state/FilterRules.h"
#include "state/KernelState.h"

#include <map>
#include <string>
#include <vector>

namespace Kestrune {

// One way in which the kernel differs from what the store says the restore makes.
struct Drift {
    std::string ns;
    std::string device; // the device, or the filter's family for a rule
    std::string item;   // "device", "mtu", "address", "rule", ...
    std::string expected;
    std::string found;

    bool operator==(const Drift&) const = default;
};

// How each expected device, and each VRF namespace, differs from what the kernel holds. A
// device that is missing from its namespace but present in another is reported once, as
// found there.
std::vector<Drift> deviceDrift(const ExpectedState& expected,
                               const std::vector<NamespaceState>& kernel);

// How the rules in force differ from the stored ones, both as the save tool prints them, in
// the tables the store restores: missing and extra rules, chains and policies, and rules all
// there but in another order.
std::vector<Drift> ruleDrift(const RuleFamily& family,
                             const std::map<std::string, RuleTable>& stored,
                             const std::map<std::string, RuleTable>& inForce);

std::string driftTable(const std::vector<Drift>& drift);

// A chain as the save tool declares it: "INPUT ACCEPT", "CONTROL-PLANE -".
std::string chainText(const std::string& chain, const std::string& policy);

} // namespace Kestrune
