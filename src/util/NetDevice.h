#pragma once

// Net devices the restore makes over rtnetlink. Each returns 0 on success and otherwise the
// negative errno, with the failure traced.

#include <string_view>

// Creates the VLAN device `name` with id vlanId on `parent`, over a netlink socket open in
// nsName (one is opened there when netlinkFd is negative). Given the descriptor of another
// namespace, the device is made inside that one, and given an MTU, with it, which costs
// neither a move nor an MTU change; an MTU the kernel refuses is left to the step that sets
// it: the device is then made with its parent's.
int makeVlanDevice(std::string_view parent, std::string_view name, int vlanId, int netlinkFd,
                   std::string_view nsName, int namespaceFd = -1, unsigned mtu = 0);
// What makeVlanDevice says and returns when the kernel refuses the device with `error` (a
// negative errno): for a caller that knows the kernel would, where it does not ask it.
int vlanDeviceRefused(std::string_view parent, std::string_view name, int vlanId,
                      std::string_view nsName, int error);
// Installs a prio root qdisc (handle 1:, three bands, the default priority map) on a device of
// the thread's namespace.
int addRootPrioQdisc(std::string_view deviceName);
