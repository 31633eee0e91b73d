// Putting back what drifted, and nothing else: each step comes from a difference verify finds
// between the kernel and the plan, and is taken with the operation the restore itself uses.
// What the store does not name (an address, a device in a VRF, a rule) is listed and left.
#include "state/Repair.h"

#include "log/Log.h"
#include "platform/ChipDevice.h"
#include "state/Drift.h"
#include "state/ExpectedState.h"
#include "state/FilterRules.h"
#include "state/KernelState.h"
#include "util/Command.h"
#include "util/Json.h"
#include "util/Namespace.h"
#include "util/NetDevice.h"
#include "util/Netlink.h"
#include "util/RestoreGuards.h"
#include "util/Utils.h"

#include <cerrno>
#include <cstring>
#include <functional>
#include <map>
#include <net/if.h>
#include <optional>
#include <set>
#include <sys/socket.h>
#include <unistd.h>

namespace Kestrune {
namespace {

using Place = std::pair<std::string, std::string>; // namespace, device

constexpr const char* notTheStores = "not the store's: left as it is";

RepairStep stepOf(const std::string& ns, const std::string& device, std::string what) {
    return {ns, device, std::move(what), false, "", false, ""};
}

RepairStep leftStep(const std::string& ns, const std::string& device, std::string what,
                    std::string why) {
    return {ns, device, std::move(what), true, std::move(why), false, ""};
}

std::string chainText(const std::string& chain, const std::string& policy) {
    std::string text = chain;
    text.append(" ").append(policy);
    return text;
}

// A step and the work that takes it, run inside the step's namespace.
struct Planned {
    RepairStep step;
    std::function<std::string()> take; // "" when it worked, else what failed
    bool structural = false;           // it makes the device or puts it in its namespace
};

// Sockets of the namespace the thread is in, closed when done.
struct Sockets {
    Sockets()
        : socketFd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)),
          netlinkFd(socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_ROUTE)) {}
    ~Sockets() {
        close(socketFd);
        close(netlinkFd);
    }
    Sockets(const Sockets&) = delete;
    Sockets& operator=(const Sockets&) = delete;
    int socketFd;
    int netlinkFd;
};

std::string errnoText() {
    return std::strerror(errno);
}

class Planner {
  public:
    Planner(const ExpectedState& expected, const std::vector<NamespaceState>& kernel)
        : expected_(expected), kernel_(kernel) {
        for (const ExpectedDevice& device : expected.devices) {
            planned_[{device.ns, device.name}] = &device;
        }
        for (const NamespaceState& ns : kernel) {
            for (const DeviceState& device : ns.devices) {
                found_[{ns.name, device.name}] = &device;
            }
        }
    }

    std::vector<Planned> fromDrift(const std::vector<Drift>& drift) {
        std::set<Place> remade;
        for (const Drift& d : drift) {
            if (d.item == "namespace") {
                namespaceMade(d.ns);
                for (const ExpectedDevice& device : expected_.devices) {
                    if (device.ns == d.ns) {
                        deviceMade(device, "missing");
                        remade.insert({device.ns, device.name});
                    }
                }
            } else if (d.item == "device") {
                deviceMade(*planned_.at({d.ns, d.device}), d.found);
                remade.insert({d.ns, d.device});
            }
        }
        for (const Drift& d : drift) {
            const auto planned = planned_.find({d.ns, d.device});
            if (planned == planned_.end() || remade.count({d.ns, d.device}) != 0 ||
                d.item == "namespace" || d.item == "device") {
                continue;
            }
            attributeRepaired(*planned->second, d, drift);
        }
        foreignDevicesListed();
        return std::move(steps_);
    }

  private:
    void add(const std::string& ns, const std::string& device, std::string what,
             std::function<std::string()> take, bool structural = false) {
        steps_.push_back({stepOf(ns, device, std::move(what)), std::move(take), structural});
    }
    void leave(const std::string& ns, const std::string& device, std::string what,
               std::string why) {
        steps_.push_back({leftStep(ns, device, std::move(what), std::move(why)), {}, false});
    }

    void namespaceMade(const std::string& ns) {
        add(ns, "-", "namespace made",
            [ns] { return addNsEvenIfPresent(ns) == 0 ? "" : "cannot make the namespace"; });
    }

    // A device missing from its namespace: moved back from where it is, or made when the
    // restore's own operation can make it (a VLAN device on its lower device).
    void deviceMade(const ExpectedDevice& device, const std::string& found) {
        if (found.rfind("in ", 0) == 0) {
            const std::string from = found.substr(3);
            add(
                device.ns, device.name, "moved back from " + from,
                [device, from] {
                    return moveIntfToNs(device.name, from, device.ns) == 0 ? "" : "the move failed";
                },
                true);
            // A move takes the device down, and its addresses and IPv6 switches with it.
            configured(device, false);
            return;
        }
        if (!device.vlan) {
            leave(device.ns, device.name, "missing",
                  "the chip's device or a VRF's port: kestrune restore --resume makes it");
            return;
        }
        if (found_.count({std::string(DEFAULT_NS), device.parent}) == 0) {
            leave(device.ns, device.name, "missing",
                  "its lower device " + device.parent + " is missing too");
            return;
        }
        add(
            device.ns, device.name,
            "made as VLAN " + std::to_string(device.vlanId) + " on " + device.parent,
            [device] {
                // Made from the default namespace, where its lower device is, into its own.
                NamespaceFiles files("repair");
                const int namespaceFd = device.ns == DEFAULT_NS ? -1 : files.fdOf(device.ns);
                std::optional<NamespaceVisit> visit;
                if (defaultNamespaceNamed()) {
                    visit.emplace("repair", DEFAULT_NS);
                }
                const Sockets sockets;
                const int made =
                    makeVlanDevice(device.parent, device.name, device.vlanId, sockets.netlinkFd,
                                   DEFAULT_NS, namespaceFd, device.mtu.value_or(0));
                return made == 0 ? std::string() : std::string(std::strerror(-made));
            },
            true);
        configured(device, true);
    }

    // What the configure pass gives a device, for one made or moved back.
    void configured(const ExpectedDevice& device, bool made) {
        add(device.ns, device.name, device.ipv6.empty() ? "IPv6 forwarding off" : "IPv6 on",
            [device] {
                // The switch's file is the device's: writing one that is not there would end
                // the process.
                if (if_nametoindex(device.name.c_str()) == 0) {
                    return std::string("no such device");
                }
                if (device.ipv6.empty()) {
                    sysIpv6Forwarding(device.name.c_str(), 0);
                } else {
                    sysIpv6Disable(device.name.c_str(), 0);
                }
                return std::string();
            });
        if (made && !device.mac.empty()) {
            macSet(device);
        }
        for (const std::string& address : device.ipv4) {
            addressAdded(device, address);
        }
        for (const std::string& address : device.ipv6) {
            addressAdded(device, address);
        }
        upSet(device);
    }

    void macSet(const ExpectedDevice& device) {
        add(device.ns, device.name, "MAC " + device.mac, [device] {
            const Sockets sockets;
            return setMacAddress(device.name.c_str(), device.mac.c_str(), sockets.socketFd)
                       ? ""
                       : errnoText();
        });
    }

    void addressAdded(const ExpectedDevice& device, const std::string& address) {
        add(device.ns, device.name, "address " + address + " added", [device, address] {
            const Sockets sockets;
            const bool added = address.find(':') != std::string::npos
                                   ? ip6AddrAdd(sockets.netlinkFd, device.name, address)
                                   : ipAddrAdd(sockets.netlinkFd, device.name, address, false);
            return added ? "" : "the kernel refused it";
        });
    }

    void upSet(const ExpectedDevice& device) {
        add(device.ns, device.name, "up", [device] {
            const Sockets sockets;
            return setDevUp(device.name.c_str(), sockets.socketFd) ? "" : errnoText();
        });
    }

    void attributeRepaired(const ExpectedDevice& device, const Drift& d,
                           const std::vector<Drift>& drift) {
        if (d.item == "mtu") {
            add(device.ns, device.name, "MTU " + d.expected, [device] {
                const Sockets sockets;
                return setMtu(device.name.c_str(), *device.mtu, sockets.socketFd) ? ""
                                                                                  : errnoText();
            });
        } else if (d.item == "mac") {
            macSet(device);
        } else if (d.item == "admin") {
            upSet(device);
        } else if (d.item == "address" && d.found == "missing") {
            addressAdded(device, d.expected);
        } else if (d.item == "address") {
            leave(device.ns, device.name, "address " + d.found, notTheStores);
        } else if (d.item == "qdisc") {
            add(device.ns, device.name, d.expected + " root qdisc added", [device] {
                return addRootPrioQdisc(device.name) == 0 ? "" : "the kernel refused it";
            });
        } else if (d.item == "carrier") {
            // Up again, a VLAN device has its carrier back; a TAP's comes with its queue.
            const bool comesUp = std::any_of(drift.begin(), drift.end(), [&](const Drift& other) {
                return other.ns == d.ns && other.device == d.device && other.item == "admin";
            });
            if (!comesUp) {
                leave(device.ns, device.name, "carrier off",
                      device.vlan ? "its lower device " + device.parent + " has none"
                                  : "nobody holds its queue: kestrune restore --resume hands it "
                                    "to a holder");
            }
        } else {
            leave(device.ns, device.name, d.item + " " + d.found,
                  "a device of that name the restore does not make: remove it, and repair "
                  "makes the store's");
        }
    }

    // A device in a VRF's namespace that the plan does not put there, and that is not one of
    // the plan's found out of its place.
    void foreignDevicesListed() {
        std::set<std::string> movable;
        for (const ExpectedDevice& device : expected_.devices) {
            movable.insert(device.name);
        }
        for (const NamespaceState& ns : kernel_) {
            if (ns.name == DEFAULT_NS) {
                continue;
            }
            for (const DeviceState& device : ns.devices) {
                if (device.name != "lo" && planned_.count({ns.name, device.name}) == 0 &&
                    movable.count(device.name) == 0) {
                    leave(ns.name, device.name, "device", notTheStores);
                }
            }
        }
    }

    const ExpectedState& expected_;
    const std::vector<NamespaceState>& kernel_;
    std::map<Place, const ExpectedDevice*> planned_;
    std::map<Place, const DeviceState*> found_;
    std::vector<Planned> steps_;
};

// The rules the store names that are not in force, put back where the store has them; the
// rules in force it does not name are listed and left.
void rulesRepaired(const RuleFamily& family, const std::string& storedText,
                   std::vector<Planned>& steps, std::string& problem) {
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
                taken.push_back(stepOf(std::string(DEFAULT_NS), where, "chain " + chain + " made"));
            } else if (policy != "-" &&
                       (have == actual.policies.end() ? "ACCEPT" : have->second) != policy) {
                input.append(":").append(chain).append(" ").append(policy).append(" [0:0]\n");
                taken.push_back(
                    stepOf(std::string(DEFAULT_NS), where, "policy " + chainText(chain, policy)));
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
            taken.push_back(stepOf(std::string(DEFAULT_NS), where, "rule " + rule + " put back"));
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
                    if (defaultNamespaceNamed()) {
                        visit.emplace("repair", DEFAULT_NS);
                    }
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

// The namespace a step is taken in: the default one when a restore named it, else this one.
void visitFor(std::optional<NamespaceVisit>& visit, const std::string& ns) {
    if (ns != DEFAULT_NS) {
        visit.emplace("repair", ns);
    } else if (defaultNamespaceNamed()) {
        visit.emplace("repair", DEFAULT_NS);
    }
}

} // namespace

int Repair::exitStatus() const {
    if (!read) {
        return 2;
    }
    if (applied) {
        return after.exitStatus();
    }
    return steps.empty() ? 0 : 1;
}

Repair repair(const Config& config, bool apply) {
    Repair result;
    const Verification before = verification(config);
    if (!before.read) {
        result.problem = before.problem;
        return result;
    }
    const ExpectedState expected =
        expectedState(config, simulatedSwitch(), restoreGuards().valueRanges);
    const std::vector<NamespaceState> kernel = kernelState();
    std::vector<Planned> planned = Planner(expected, kernel).fromDrift(before.drift);
    std::string problem;
    rulesRepaired(ipv4Rules, expected.iptables, planned, problem);
    rulesRepaired(ipv6Rules, expected.ip6tables, planned, problem);
    if (!problem.empty()) {
        result.problem = problem;
        return result;
    }
    result.read = true;
    if (apply) {
        // A device that could not be made or moved back gets none of its later steps.
        std::set<Place> notThere;
        for (Planned& step : planned) {
            if (step.step.left) {
                continue;
            }
            const Place place{step.step.ns, step.step.device};
            std::optional<NamespaceVisit> visit;
            visitFor(visit, step.step.ns);
            if (visit && !visit->entered()) {
                step.step.failure = "cannot enter " + step.step.ns;
            } else if (notThere.count(place) != 0) {
                step.step.failure = "the device is not there";
            } else {
                step.step.failure = step.take();
            }
            if (!step.step.failure.empty() && step.structural) {
                notThere.insert(place);
            }
            step.step.done = step.step.failure.empty();
            const std::string what =
                step.step.device + " in " + step.step.ns + ": " + step.step.what;
            Log::logEvent("Repair", step.step.done
                                        ? "Put back " + what
                                        : "Unable to put back " + what + ": " + step.step.failure);
        }
        result.applied = true;
        result.after = verification(config);
    }
    for (Planned& step : planned) {
        result.steps.push_back(std::move(step.step));
    }
    return result;
}

Repair repairOfStore(const std::string& path, bool apply) {
    Repair result;
    const Config::Ptr config = storeModel(path, result.problem);
    return config ? repair(*config, apply) : result;
}

std::string Repair::text() const {
    if (!read) {
        return "The kernel could not be read: " + problem + "\n";
    }
    std::string out;
    std::size_t toTake = 0;
    for (const RepairStep& step : steps) {
        toTake += step.left ? 0 : 1;
        out += step.left ? "  left  "
               : applied ? (step.done ? "  done  " : "  FAILED")
                         : "  do    ";
        out += " " + step.ns + " " + step.device + ": " + step.what;
        if (step.left) {
            out += " (" + step.why + ")";
        } else if (applied && !step.done) {
            out += ": " + step.failure;
        }
        out += "\n";
    }
    if (steps.empty()) {
        return "Nothing to repair: the kernel matches the store.\n";
    }
    if (!applied) {
        return out + std::to_string(toTake) + " step(s) would put back what drifted; nothing was " +
               "changed (--apply takes them).\n";
    }
    return out + "Verified again: " + after.text();
}

std::string Repair::json() const {
    rapidjson::StringBuffer buffer;
    JsonWriter writer(buffer);
    writer.StartObject();
    writer.Key("applied");
    writer.Bool(applied);
    if (!read) {
        writer.Key("error");
        writer.String(problem.c_str());
    }
    writer.Key("steps");
    writer.StartArray();
    for (const RepairStep& step : steps) {
        writer.StartObject();
        writer.Key("namespace");
        writer.String(step.ns);
        writer.Key("device");
        writer.String(step.device);
        writer.Key("step");
        writer.String(step.what);
        writer.Key("left");
        writer.Bool(step.left);
        if (step.left) {
            writer.Key("why");
            writer.String(step.why);
        } else if (applied) {
            writer.Key("done");
            writer.Bool(step.done);
            if (!step.done) {
                writer.Key("failure");
                writer.String(step.failure);
            }
        }
        writer.EndObject();
    }
    writer.EndArray();
    if (applied) {
        writer.Key("matchesAfter");
        writer.Bool(after.read && after.drift.empty());
        writer.Key("driftAfter");
        writer.Uint64(after.drift.size());
    }
    writer.EndObject();
    return buffer.GetString();
}

} // namespace Kestrune
