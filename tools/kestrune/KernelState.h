#pragma once

#include <string>
#include <vector>

namespace Kestrune::Cli {

// The network devices of every namespace as the kernel reports them, for `simulate` to show
// what a restore left behind.
struct DeviceState {
    std::string name;
    std::string kind; // "vlan", "tun", ... ("" for a plain device)
    unsigned mtu = 0;
    std::string mac;
    bool adminUp = false;
    std::string operState;
    std::string qdisc;             // the root queueing discipline's kind, "" for none
    std::vector<std::string> ipv4; // "10.0.0.1/24"
    std::vector<std::string> ipv6; // global ones; link-local addresses are left out
};

struct NamespaceState {
    std::string name;
    std::vector<DeviceState> devices;
};

// The default namespace first, then every named one in name order. Read over rtnetlink.
std::vector<NamespaceState> kernelState();

std::string kernelStateJson(const std::vector<NamespaceState>& state);
std::string kernelStateTable(const std::vector<NamespaceState>& state);

} // namespace Kestrune::Cli
