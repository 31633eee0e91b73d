#!/usr/bin/env python3
"""Writes the restore benchmark's three peers of one store, from the kernel state a Kestrune
restore of it left (its report's "kernel") and the store's filter rules:

  plan.txt     the floor program's operations (bench/Floor.cpp): the kernel operations the
               restore makes, in the library's order (the chip's devices made, MAC, up, oper
               up; the VLAN devices made in the default namespace and up; the VRF devices, a
               VLAN device moved; then each layer-3 device's IPv6 switch, MTU, addresses, up)
  batch.sh     `ip -batch`, `tc -batch` and `sysctl -p` once per namespace
  shell.sh     one `ip`, `tc` or `sysctl` process per operation

The two last make every namespace and device straight into its final MTU, MAC, admin state,
addresses and root qdisc, as an engineer would script it. All three restore the filter rules
last, as the library's own sequence does.

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


def restorePlan(names, devices, modules, out):
    """The restore's kernel operations on the way to this state, in its order, with the
    command lines it prescribes (each chip module's `fab` role and state)."""
    plan = ["phase init"] + ["ns %s" % ns for ns in names]
    for module in sorted(modules, key=lambda m: (m["modId"], m["busId"], m["chipModel"])):
        plan += ["run fab devrole %d switch" % module["modId"], "run fab devstate %d up" % module["modId"]]
    plan.append("phase create")
    placed = {device["name"] for ns, device in devices if ns != "default"}
    chip = [(ns, d) for ns, d in devices if ns == "default" and d["kind"] != "vlan"]
    vlans = [(ns, d) for ns, d in devices if d["kind"] == "vlan"]
    fabric = [d for ns, d in chip if d["name"] == "fabric"]
    # The chip makes its devices with its frame size; the driver gives each its MAC and state.
    for device in fabric + [d for ns, d in chip if d["name"] != "fabric"]:
        name = device["name"]
        plan += ["tap default %s" % name, "mtu default %s 9216" % name,
                 "mac default %s %s" % (name, device["mac"]), "up default %s" % name]
        if name != "fabric":
            plan.append("oper default %s" % name)
        if device["qdisc"] == "prio":
            plan.append("prio default %s" % name)
    # Subinterfaces and SVIs: VLAN devices made in the default namespace and up.
    for ns, device in vlans:
        plan += ["vlan default %s %s %d" % (device["name"], device["parent"], device["vlanId"]),
                 "up default %s" % device["name"]]
    # A routed port of a VRF is made anew there, its chip device keeping the largest frames;
    # a VLAN device is moved there.
    plan.append("phase move")
    for ns, device in devices:
        if ns != "default" and device["kind"] == "vlan":
            plan.append("move default %s %s" % (device["name"], ns))
        elif ns != "default":
            plan += ["tap %s %s" % (ns, device["name"]),
                     "mac %s %s %s" % (ns, device["name"], device["mac"]),
                     "mtu default %s 10240" % device["name"]]
    # Each layer-3 device in its namespace: the IPv6 switch, MTU, addresses, up.
    plan.append("phase configure")
    for ns, device in devices:
        name = device["name"]
        if ns == "default" and (name in placed or not (device["ipv4"] or device["ipv6"])):
            continue
        plan += ["sysctl %s /proc/sys/%s %s" % (ns, path, value) for path, value in sysctls(device)]
        plan.append("mtu %s %s %d" % (ns, name, device["mtu"]))
        plan += ["addr %s %s %s" % (ns, name, a) for a in device["ipv4"] + device["ipv6"]]
        plan.append("up %s %s" % (ns, name))
    plan.append("sysctl default /proc/sys/net/ipv6/conf/all/forwarding 1")
    plan.append("phase filterRules")
    for family in ("iptables", "ip6tables"):
        plan.append("rules %s-restore %s" % (family, os.path.join(out, family + ".rules")))
    return plan


def main():
    report, store, out = sys.argv[1:4]
    kernel = json.load(open(report))["kernel"]
    saved = json.load(open(store))
    rules = saved.get("Sabrel", {})
    modules = saved.get("Tessaline", {}).get("devices", [])
    os.makedirs(out, exist_ok=True)
    for family in ("iptables", "ip6tables"):
        with open(os.path.join(out, family + ".rules"), "w") as file:
            file.write(rules.get(family, ""))
    names, devices = operations(kernel)

    plan = restorePlan(names, devices, modules, out)
    shell = ["set -e"] + ["ip netns add %s" % ns for ns in names]
    batches = {}
    for ns, device in devices:
        name = device["name"]
        shell += ["%s tuntap add dev %s mode tap" % (ip(ns), name),
                  "%s link set dev %s mtu %d" % (ip(ns), name, device["mtu"]),
                  "%s link set dev %s address %s" % (ip(ns), name, device["mac"]),
                  "%s link set dev %s up" % (ip(ns), name)]
        batch = batches.setdefault(ns, {"ip": [], "tc": [], "sysctl": []})
        batch["ip"] += ["tuntap add dev %s mode tap" % name,
                        "link set dev %s mtu %d address %s up" % (name, device["mtu"], device["mac"])]
        for address in device["ipv4"] + device["ipv6"]:
            shell.append("%s addr add %s dev %s" % (ip(ns), address, name))
            batch["ip"].append("addr add %s dev %s" % (address, name))
        for path, value in sysctls(device):
            shell.append("ip netns exec %s sysctl -qw %s=%s" % (ns, path.replace("/", "."), value)
                         if ns != "default" else "sysctl -qw %s=%s" % (path.replace("/", "."), value))
            batch["sysctl"].append("%s = %s" % (path.replace("/", "."), value))
        if device["qdisc"] == "prio":
            shell.append("%s qdisc add dev %s root handle 1: prio" % (ip(ns, "tc"), name))
            batch["tc"].append("qdisc add dev %s root handle 1: prio" % name)
    shell.append("sysctl -qw net.ipv6.conf.all.forwarding=1")
    for family in ("iptables", "ip6tables"):
        path = os.path.join(out, family + ".rules")
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
