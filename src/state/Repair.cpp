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
#include "state/RepairAction.h"
#include "util/Namespace.h"
#include "util/NetDevice.h"
#include "util/RestoreGuards.h"
#include "util/Utils.h"

#include <cerrno>
#include <cstring>
#include <functional>
#include <linux/netlink.h>
#include <map>
#include <net/if.h>
#include <optional>
#include <set>
#include <sys/socket.h>
#include <unistd.h>

namespace Kestrune {
namespace {

using Place = std::pair<std::string, std::string>; // namespace, device

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

    std::vector<RepairAction> fromDrift(const std::vector<Drift>& drift) {
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
        steps_.push_back({repairStep(ns, device, std::move(what)), std::move(take), structural});
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
                defaultNamespaceVisit(visit, "repair");
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
    std::vector<RepairAction> steps_;
};

// The namespace a step is taken in: the default one when a restore named it, else this one.
void visitFor(std::optional<NamespaceVisit>& visit, const std::string& ns) {
    if (ns != DEFAULT_NS) {
        visit.emplace("repair", ns);
    } else {
        defaultNamespaceVisit(visit, "repair");
    }
}

} // namespace

RepairStep repairStep(const std::string& ns, const std::string& device, std::string what) {
    return {ns, device, std::move(what), false, "", false, ""};
}

RepairStep leftStep(const std::string& ns, const std::string& device, std::string what,
                    std::string why) {
    return {ns, device, std::move(what), true, std::move(why), false, ""};
}

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
    std::vector<RepairAction> planned = Planner(expected, kernel).fromDrift(before.drift);
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
        for (RepairAction& step : planned) {
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
    for (RepairAction& step : planned) {
        result.steps.push_back(std::move(step.step));
    }
    return result;
}

Repair repairOfStore(const std::string& path, bool apply) {
    Repair result;
    const Config::Ptr config = storeModel(path, result.problem);
    return config ? repair(*config, apply) : result;
}

} // namespace Kestrune
