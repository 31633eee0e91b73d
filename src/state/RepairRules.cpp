// Putting back the stored filter rules that are not in force, where the store has them, with
// one run of the restore tool a table that never flushes.
#include "state/Drift.h"
#include "state/KernelState.h"
#include "state/RepairAction.h"
#include "util/Command.h"
#include "util/Namespace.h"

#include <map>
#include <optional>

namespace Kestrune {

void rulesRepaired(const RuleFamily& family, const std::string& storedText,
                   std::vector<RepairAction>& steps, std::string& problem) {
    if (storedText.empty()) {
        return;
    }
    const LoadedRules loaded = rulesAsLoaded(family, storedText);
    if (loaded.outcome != LoadedRules::Outcome::loaded) {
        if (loaded.outcome == LoadedRules::Outcome::failed) {
            problem = loaded.problem;
        }
        return; // rejected rules: verify says so, and no repair can load them
    }
    const auto inForceText = rulesInForce(family, problem);
    if (!inForceText) {
        return;
    }
    const auto stored = ruleTablesOf(loaded.saved);
    const auto inForce = ruleTablesOf(*inForceText);
    for (const auto& [name, table] : stored) {
        const auto found = inForce.find(name);
        const RuleTable empty;
        const RuleTable& actual = found == inForce.end() ? empty : found->second;
        const std::string where = std::string(family.name) + " " + name;
        std::string input;
        std::vector<RepairStep> taken;
        for (const auto& [chain, policy] : table.policies) {
            const auto have = actual.policies.find(chain);
            if (have == actual.policies.end() && policy == "-") {
                input += ":" + chain + " - [0:0]\n";
                taken.push_back(
                    repairStep(std::string(DEFAULT_NS), where, "chain " + chain + " made"));
            } else if (policy != "-" &&
                       (have == actual.policies.end() ? "ACCEPT" : have->second) != policy) {
                input.append(":").append(chain).append(" ").append(policy).append(" [0:0]\n");
                taken.push_back(repairStep(std::string(DEFAULT_NS), where,
                                           "policy " + chainText(chain, policy)));
            }
        }
        // Each missing rule goes where the store has it in its chain: in stored order, every
        // rule before it is there by then.
        std::map<std::string, std::size_t> left;
        for (const std::string& rule : actual.rules) {
            ++left[rule];
        }
        std::map<std::string, int> position;
        for (const std::string& rule : table.rules) {
            const std::size_t space = rule.find(' ', 3);
            if (rule.rfind("-A ", 0) != 0 || space == std::string::npos) {
                continue; // the save tool prints every rule as "-A CHAIN ..."
            }
            const std::string chain = rule.substr(3, space - 3);
            const int at = ++position[chain];
            if (left[rule] > 0) {
                --left[rule];
                continue;
            }
            input += "-I " + chain + " " + std::to_string(at) + rule.substr(space) + "\n";
            taken.push_back(
                repairStep(std::string(DEFAULT_NS), where, "rule " + rule + " put back"));
        }
        std::size_t foreign = 0;
        for (const auto& [rule, count] : left) {
            for (std::size_t i = 0; i < count; ++i, ++foreign) {
                steps.push_back(
                    {leftStep(std::string(DEFAULT_NS), where, "rule " + rule, notTheStores), {}});
            }
        }
        if (taken.empty()) {
            if (foreign == 0 && table.rules != actual.rules) {
                steps.push_back({leftStep(std::string(DEFAULT_NS), where, "rules in another order",
                                          "a whole restore of the tables (kestrune restore "
                                          "--resume) puts them in order"),
                                 {}});
            }
            continue;
        }
        // The table's steps are taken by one run of the restore tool, without flushing.
        std::string text = "*" + name + "\n";
        text.append(input).append("COMMIT\n");
        for (std::size_t i = 0; i < taken.size(); ++i) {
            std::function<std::string()> take;
            if (i == 0) {
                take = [family, text] {
                    std::optional<NamespaceVisit> visit;
                    defaultNamespaceVisit(visit, "repair");
                    CommandInput tool(std::string(family.restore) + " -n");
                    if (!tool.started()) {
                        return std::string("cannot run ") + family.restore;
                    }
                    tool.write(text);
                    const int status = tool.close();
                    return status == 0 ? std::string()
                                       : std::string(family.restore) + " exited with " +
                                             std::to_string(status);
                };
            } else {
                take = [] { return std::string(); }; // taken with the first
            }
            steps.push_back({taken[i], take, false});
        }
    }
}

} // namespace Kestrune
