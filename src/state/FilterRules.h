#pragma once

#include "parser/StoreCheck.h"

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Kestrune {

// The tools of one address family's packet filter.
struct RuleFamily {
    const char* name;    // "iptables", as the drift names it
    const char* restore; // "iptables-restore"
    const char* save;    // "iptables-save"
};

inline constexpr RuleFamily ipv4Rules{"iptables", "iptables-restore", "iptables-save"};
inline constexpr RuleFamily ipv6Rules{"ip6tables", "ip6tables-restore", "ip6tables-save"};

// One table as the save tool prints it: its chains with their policies ("-" for a chain of
// the user's), and its rules in order.
struct RuleTable {
    std::map<std::string, std::string> policies;
    std::vector<std::string> rules;
};

// The tables of a text in the save tool's format, by name. Counters, comments and the
// COMMIT lines are left out.
std::map<std::string, RuleTable> ruleTablesOf(std::string_view saved);

// The rules in force in the default namespace, as the save tool prints them; nothing, and
// why in `problem`, when it cannot be run.
std::optional<std::string> rulesInForce(const RuleFamily& family, std::string& problem);

// What loading a stored rule text gave.
struct LoadedRules {
    enum class Outcome { loaded, rejected, failed };
    Outcome outcome = Outcome::failed;
    std::string saved;   // loaded: the text as the save tool prints it
    std::string problem; // rejected: the restore tool's complaint; failed: what went wrong
};

// A stored rule text as the kernel holds it once loaded: restored into an empty network
// namespace of its own and saved from there. So rules match however the store spells them
// ("-p tcp --dport 22" is saved as "-p tcp -m tcp --dport 22").
LoadedRules rulesAsLoaded(const RuleFamily& family, const std::string& text);

// The store's rule texts that the restore tools would refuse, each loaded as above (so only
// as root, which may make a network namespace; otherwise a warning says they are unchecked):
// what `check` adds to the store's problems.
std::vector<StoreProblem> ruleTextProblemsOf(const std::string& storeText);

} // namespace Kestrune
