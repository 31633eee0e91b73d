#!/usr/bin/env python3
"""Writes the restore benchmark's three peers of one store, from the kernel state a Kestrune
restore of it left (its report's "kernel") and the store's filter rules:

  plan.txt     the floor program's operations (bench/Floor.cpp)
  batch.sh     `ip -batch`, `tc -batch` and `sysctl -p` once per namespace
  shell.sh     one `ip`, `tc` or `sysctl` process per operation

Each makes every namespace and device with its MTU, MAC, admin state, addresses and root
qdisc, writes the IPv6 switches the restore writes, and restores the filter rules last, as a
restore in the specified order does.

  peers.py REPORT STORE OUTDIR
"""
import json
import os
import shlex
import sys


def operations(kernel):
    """(namespace, device) in the report's order, namespaces first."""
    names = [ns for ns in kernel if ns != "default"]
    devices = []
    for ns in ["default"] + names:
        for device in kernel[ns]:
            if device["name"] != "lo":
                devices.append((ns, device))
    return names, devices


def ip(ns, tool="ip"):
    """The tool run in a namespace; the sandbox's own is "default"."""
    return tool if ns == "default" else "%s -n %s" % (tool, ns)


def sysctls(device):
    name = device["name"]
    if device["ipv6"]:
        return [("net/ipv6/conf/%s/disable_ipv6" % name, "0")]
    if device["ipv4"]:
        return [("net/ipv6/conf/%s/forwarding" % name, "0")]
    return []


def main():
    report, store, out = sys.argv[1:4]
    kernel = json.load(open(report))["kernel"]
    rules = json.load(open(store)).get("Sabrel", {})
    os.makedirs(out, exist_ok=True)
    for family in ("iptables", "ip6tables"):
        with open(os.path.join(out, family + ".rules"), "w") as file:
            file.write(rules.get(family, ""))
    names, devices = operations(kernel)

    plan = ["ns %s" % ns for ns in names]
    shell = ["set -e"] + ["ip netns add %s" % ns for ns in names]
    batches = {}
    for ns, device in devices:
        name = device["name"]
        plan.append("dev %s %s %d %s" % (ns, name, device["mtu"], device["mac"]))
        shell += ["%s tuntap add dev %s mode tap" % (ip(ns), name),
                  "%s link set dev %s mtu %d" % (ip(ns), name, device["mtu"]),
                  "%s link set dev %s address %s" % (ip(ns), name, device["mac"]),
                  "%s link set dev %s up" % (ip(ns), name)]
        batch = batches.setdefault(ns, {"ip": [], "tc": [], "sysctl": []})
        batch["ip"] += ["tuntap add dev %s mode tap" % name,
                        "link set dev %s mtu %d address %s up" % (name, device["mtu"], device["mac"])]
        for address in device["ipv4"] + device["ipv6"]:
            plan.append("addr %s %s %s" % (ns, name, address))
            shell.append("%s addr add %s dev %s" % (ip(ns), address, name))
            batch["ip"].append("addr add %s dev %s" % (address, name))
        for path, value in sysctls(device):
            plan.append("sysctl %s /proc/sys/%s %s" % (ns, path, value))
            shell.append("ip netns exec %s sysctl -qw %s=%s" % (ns, path.replace("/", "."), value)
                         if ns != "default" else "sysctl -qw %s=%s" % (path.replace("/", "."), value))
            batch["sysctl"].append("%s = %s" % (path.replace("/", "."), value))
        if device["qdisc"] == "prio":
            plan.append("prio %s %s" % (ns, name))
            shell.append("%s qdisc add dev %s root handle 1: prio" % (ip(ns, "tc"), name))
            batch["tc"].append("qdisc add dev %s root handle 1: prio" % name)
    plan.append("sysctl default /proc/sys/net/ipv6/conf/all/forwarding 1")
    shell.append("sysctl -qw net.ipv6.conf.all.forwarding=1")
    for family in ("iptables", "ip6tables"):
        path = os.path.join(out, family + ".rules")
        plan.append("rules %s-restore %s" % (family, path))
        shell.append("%s-restore -n < %s" % (family, shlex.quote(path)))

    script = ["set -e"] + ["ip netns add %s" % ns for ns in names]
    for ns, batch in batches.items():
        for kind, lines in batch.items():
            if not lines:
                continue
            path = os.path.join(out, "%s.%s" % (ns, kind))
            with open(path, "w") as file:
                file.write("\n".join(lines) + "\n")
            prefix = "" if ns == "default" else "ip netns exec %s " % ns
            script.append({"ip": "%s -batch %s" % (ip(ns), path),
                           "tc": "%s -batch %s" % (ip(ns, "tc"), path),
                           "sysctl": "%ssysctl -qp %s" % (prefix, path)}[kind])
    script.append("sysctl -qw net.ipv6.conf.all.forwarding=1")
    for family in ("iptables", "ip6tables"):
        script.append("%s-restore -n < %s" % (family, os.path.join(out, family + ".rules")))

    for name, lines in (("plan.txt", plan), ("batch.sh", script), ("shell.sh", shell)):
        with open(os.path.join(out, name), "w") as file:
            file.write("\n".join(lines) + "\n")


if __name__ == "__main__":
    main()
