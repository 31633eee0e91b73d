#include "state/Drift.h"

#include "util/Namespace.h"

#include <algorithm>
#include <set>
#include <sstream>
#include <string_view>

namespace Kestrune {

namespace {

constexpr const char* missing = "missing";
constexpr const char* none = "-";

// The entries of `from` that `other` lacks, as many times as they are lacking, in the order
// of `from`.
std::vector<std::string> without(const std::vector<std::string>& from,
                                 const std::vector<std::string>& other) {
    std::map<std::string_view, std::size_t> left;
    for (const std::string& entry : other) {
        ++left[entry];
    }
    std::vector<std::string> rest;
    for (const std::string& entry : from) {
        const auto found = left.find(entry);
        if (found != left.end() && found->second > 0) {
            --found->second;
        } else {
            rest.push_back(entry);
        }
    }
    return rest;
}

class DeviceCheck {
  public:
    DeviceCheck(const ExpectedDevice& expected, const DeviceState& found, std::vector<Drift>& drift)
        : expected_(expected), found_(found), drift_(drift) {}

    void run() {
        const std::string kind = found_.kind == "vlan" ? "vlan" : "port";
        if (kind != (expected_.vlan ? "vlan" : "port")) {
            add("kind", expected_.vlan ? "vlan" : "port",
                found_.kind.empty() ? "port (no kind)" : found_.kind);
        }
        if (expected_.mtu && *expected_.mtu != found_.mtu) {
            add("mtu", std::to_string(*expected_.mtu), std::to_string(found_.mtu));
        }
        if (!expected_.mac.empty() && expected_.mac != found_.mac) {
            add("mac", expected_.mac, found_.mac.empty() ? none : found_.mac);
        }
        if (!found_.adminUp) {
            add("admin", "up", "down");
        } else if (!found_.carrier) {
            // Up but without its lower layer: a TAP whose queues nobody holds any more, a
            // VLAN device whose parent went down.
            add("carrier", "on", "off");
        }
        if (expected_.vlan && found_.kind == "vlan") {
            vlan();
        }
        if (!expected_.qdisc.empty() && expected_.qdisc != found_.qdisc) {
            add("qdisc", expected_.qdisc, found_.qdisc.empty() ? none : found_.qdisc);
        }
        addresses(expected_.ipv4, found_.ipv4);
        addresses(expected_.ipv6, found_.ipv6);
    }

  private:
    void add(const char* item, std::string expected, std::string found) {
        drift_.push_back(
            {expected_.ns, expected_.name, item, std::move(expected), std::move(found)});
    }

    void vlan() {
        if (expected_.vlanId != found_.vlanId) {
            add("vlan id", std::to_string(expected_.vlanId), std::to_string(found_.vlanId));
        }
        if (expected_.parent != found_.parent || found_.parentNamespace != DEFAULT_NS) {
            add("parent", expected_.parent,
                found_.parent.empty() ? "unknown"
                : found_.parentNamespace == DEFAULT_NS
                    ? found_.parent
                    : found_.parent + " in " + found_.parentNamespace);
        }
    }

    void addresses(const std::vector<std::string>& expected,
                   const std::vector<std::string>& found) {
        for (const std::string& address : without(expected, found)) {
            add("address", address, missing);
        }
        for (const std::string& address : without(found, expected)) {
            add("address", none, address);
        }
    }

    const ExpectedDevice& expected_;
    const DeviceState& found_;
    std::vector<Drift>& drift_;
};

} // namespace

std::string chainText(const std::string& chain, const std::string& policy) {
    std::string text = chain;
    text += ' ';
    text += policy;
    return text;
}

std::vector<Drift> deviceDrift(const ExpectedState& expected,
                               const std::vector<NamespaceState>& kernel) {
    using Place = std::pair<std::string_view, std::string_view>; // namespace, device
    std::map<Place, const DeviceState*> found;
    for (const NamespaceState& ns : kernel) {
        for (const DeviceState& device : ns.devices) {
            found[{ns.name, device.name}] = &device;
        }
    }
    std::set<Place> expectedAt;
    for (const ExpectedDevice& device : expected.devices) {
        expectedAt.insert({device.ns, device.name});
    }
    const auto read = [&kernel](std::string_view name) {
        return std::any_of(kernel.begin(), kernel.end(),
                           [name](const NamespaceState& ns) { return ns.name == name; });
    };
    std::vector<Drift> drift;
    for (const std::string& name : expected.namespaces) {
        if (!read(name)) {
            drift.push_back({name, none, "namespace", "present", missing});
        }
    }
    for (const ExpectedDevice& device : expected.devices) {
        if (!read(device.ns)) {
            continue; // said once, for the namespace
        }
        if (const auto at = found.find({device.ns, device.name}); at != found.end()) {
            DeviceCheck(device, *at->second, drift).run();
            continue;
        }
        // Missing here, but perhaps moved to a namespace where no device of its name belongs.
        std::string elsewhere = missing;
        for (const NamespaceState& other : kernel) {
            const Place there{other.name, device.name};
            if (found.count(there) != 0 && expectedAt.count(there) == 0) {
                elsewhere = "in " + other.name;
                break;
            }
        }
        drift.push_back({device.ns, device.name, "device", "present", elsewhere});
    }
    return drift;
}

std::vector<Drift> ruleDrift(const RuleFamily& family,
                             const std::map<std::string, RuleTable>& stored,
                             const std::map<std::string, RuleTable>& inForce) {
    std::vector<Drift> drift;
    const RuleTable empty;
    for (const auto& [name, table] : stored) {
        const auto found = inForce.find(name);
        const RuleTable& actual = found == inForce.end() ? empty : found->second;
        const std::string where = std::string(family.name) + " " + name;
        auto add = [&](const char* item, std::string expected, std::string seen) {
            drift.push_back(
                {std::string(DEFAULT_NS), where, item, std::move(expected), std::move(seen)});
        };
        for (const auto& [chain, policy] : table.policies) {
            const auto have = actual.policies.find(chain);
            // A built-in chain (one with a policy) of a table the kernel has not loaded yet
            // lets everything through, as its ACCEPT would.
            const std::string seen = have != actual.policies.end() ? have->second
                                     : policy != "-"               ? "ACCEPT"
                                                                   : "";
            if (seen.empty()) {
                add("chain", chainText(chain, policy), missing);
            } else if (seen != policy) {
                add("policy", chainText(chain, policy), chainText(chain, seen));
            }
        }
        const auto lost = without(table.rules, actual.rules);
        const auto extra = without(actual.rules, table.rules);
        for (const std::string& rule : lost) {
            add("rule", rule, missing);
        }
        for (const std::string& rule : extra) {
            add("rule", none, rule);
        }
        if (lost.empty() && extra.empty() && table.rules != actual.rules) {
            add("order", "as stored", "reordered");
        }
    }
    return drift;
}

std::string driftTable(const std::vector<Drift>& drift) {
    std::vector<std::vector<std::string>> rows{
        {"namespace", "device", "check", "expected", "found"}};
    for (const Drift& d : drift) {
        rows.push_back({d.ns, d.device, d.item, d.expected, d.found});
    }
    std::vector<std::size_t> widths(4, 0);
    for (const auto& row : rows) {
        for (std::size_t i = 0; i < widths.size(); ++i) {
            widths[i] = std::max(widths[i], row[i].size());
        }
    }
    std::ostringstream out;
    for (const auto& row : rows) {
        for (std::size_t i = 0; i < widths.size(); ++i) {
            out << row[i] << std::string(widths[i] - row[i].size() + 2, ' ');
        }
        out << row.back() << "\n";
    }
    return out.str();
}

} // namespace Kestrune
