#pragma once

// What the parts of a repair share: a step with the work that takes it.

#include "state/FilterRules.h"
#include "state/Repair.h"

#include <functional>
#include <string>
#include <vector>

namespace Kestrune {

inline constexpr const char* notTheStores = "not the store's: left as it is";

// A step and the work that takes it, run inside the step's namespace.
struct RepairAction {
    RepairStep step;
    std::function<std::string()> take; // "" when it worked, else what failed
    bool structural = false;           // it makes the device or puts it in its namespace
};

RepairStep repairStep(const std::string& ns, const std::string& device, std::string what);
RepairStep leftStep(const std::string& ns, const std::string& device, std::string what,
                    std::string why);

// The rules the store names that are not in force, put back where the store has them; the
// rules in force it does not name are listed and left. `problem` says why the rules could not
// be read.
void rulesRepaired(const RuleFamily& family, const std::string& storedText,
                   std::vector<RepairAction>& steps, std::string& problem);

} // namespace Kestrune
