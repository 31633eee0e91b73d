#pragma once

// Net devices the restore makes over rtnetlink. Each returns 0 on success and otherwise the
// negative errno, with the failure traced.

#include <string_view>

// Creates the VLAN device `name` with id vlanId on `parent`, over a netlink socket open in
// nsName (one is opened there when netlinkFd is negative).
int makeVlanDevice(std::string_view parent, std::string_view name, int vlanId, int netlinkFd,
                   std::string_view nsName);
// Installs a prio root qdisc (handle 1:, three bands, the default priority map) on a device of
// the thread's namespace.
int addRootPrioQdisc(std::string_view deviceName);
