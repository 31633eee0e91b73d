#pragma once

#include "util/Namespace.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Kestrune {

// The network devices of every namespace as the kernel reports them, for `simulate` to show
// what a restore left behind.
struct DeviceState {
    std::string name;
    std::string kind; // "vlan", "tun", ... ("" for a plain device)
    unsigned mtu = 0;
    std::string mac;
    bool adminUp = false;
    bool carrier = false; // the lower layer is up: a TAP's queue is held, a VLAN's parent up
    std::string operState;
    std::string qdisc;             // the root queueing discipline's kind, "" for none
    std::vector<std::string> ipv4; // "10.0.0.1/24"
    std::vector<std::string> ipv6; // global ones; link-local addresses are left out
    std::uint16_t vlanId = 0;      // a VLAN device's id, 0 for any other
    std::string parent;            // the device a VLAN device sits on, "" for none
    std::string parentNamespace;   // where the parent is: a moved VLAN device's is elsewhere

    // The device's index, and its lower device's as rtnetlink gives it: an index, in the namespace
    // the device is in unless the link names another (a namespace id as this one knows it, -1 for
    // its own).
    std::int32_t index = 0;
    std::int32_t linkIndex = 0;
    std::int32_t linkNamespaceId = -1;
};

struct NamespaceState {
    std::string name;
    std::vector<DeviceState> devices;
};

// The default namespace first, then every named one in name order. Read over rtnetlink. A
// namespace that cannot be read is left out; the default one, when no restore has named it
// yet, is the namespace this process is in.
std::vector<NamespaceState> kernelState();

// Whether a restore has named the default namespace yet; before, it is this process's own.
bool defaultNamespaceNamed();
// Puts the thread into the default namespace for `visit`'s life when a restore has named it
// (before, the thread is in it already); `operation` names the caller in a failure's trace.
void defaultNamespaceVisit(std::optional<NamespaceVisit>& visit, const char* operation);

std::string kernelStateJson(const std::vector<NamespaceState>& state);
std::string kernelStateTable(const std::vector<NamespaceState>& state);
// Each namespace in a few lines: how many devices, how many of them up and with addresses,
// and their names, wrapped to fit a terminal.
std::string kernelStateBrief(const std::vector<NamespaceState>& state);

} // namespace Kestrune
