#!/usr/bin/env python3
"""Writes the bare floor's plan for bench/Floor.cpp from a store: the fewest kernel operations
that leave the state a restore of the store must leave. Every device is made where it ends,
the chip's ones in the default namespace, a VRF's inside its namespace, a VLAN device with its
MTU in the message that makes it, and given its MTU and MAC in one message while no device is
up (an MTU change walks the IPv6 routes of the namespace, which only devices that are up
have); then the addresses go on while the devices are still down; then one message a device
brings it up, with a chip device's operational state. A Sand port's prio qdisc is
one rtnetlink message, not a tc process. No move, no MTU changed on a device that is up, no
sysctl that would write the value already there. The chip's bring-up commands and the filter
rules (restored first, as the command line does) cost what they cost in the restore.

It reads the store as the restore models it, not a restore's output:
  - the front-panel ports are the platform section's interfaces; a port or Port-Channel with
    an internal VLAN (Vant's intfNameToVlanId) is routed, with its Oku addresses and VRF;
  - Port-Channels (Pell) and subinterfaces (Vant's encapsulation VLANs) exist on Strata only;
  - Oku's Vlan entries with an IPv4 and an IPv6 member are SVIs on "fabric";
  - a routed device of a VRF keeps a copy in the default namespace with the largest frames;
  - MTUs are Dorvel's, a chip device's is the chip's 9216.

The lever floor (OUTDIR/lever.txt) is the same with the kernel's IPv6 lever: each device is
made with IPv6 off and no link-local address generation, so bringing it up walks no IPv6
routes; its IPv4 addresses go on while it is down; once every device is up, each in turn gets
IPv6 on, its IPv6 addresses, and address generation back (which makes its link-local
address). The state it ends in is the bare floor's.

  bare-plan.py STORE OUTDIR       writes OUTDIR/bare.txt, OUTDIR/lever.txt and the rule files
                                  they name
"""
import json
import os
import re
import sys

CHIP_MTU = 9216
VRF_COPY_MTU = 10240


def kernel_name(name):
    for switch, kernel in (("Ethernet", "et"), ("Port-Channel", "po"), ("Vlan", "vlan")):
        if name.startswith(switch) and name[len(switch):len(switch) + 1].isdigit():
            name = kernel + name[len(switch):]
            break
    return name.replace("/", "_")


def namespace(facts):
    vrf = facts.get("vrf", "default")
    return vrf if vrf == "default" else "ns-" + vrf


def addresses(facts):
    found = [facts["ipAddress"]] if facts.get("ipAddress") else []
    # The secondaries and IPv6 addresses are sets in the model: added in text order.
    return found + sorted(set(facts.get("secondaryIpAddress", []))) + \
        sorted(set(facts.get("ip6Address", [])))


def lever_of(made, addressed, up):
    """The lever's operations around the bare floor's: (before the settings, the IPv4
    addresses, after every device is up). `made` holds (namespace, device) pairs."""
    def ipv6(op):
        return ":" in op.split()[3]

    def conf(ns, device, key, value):
        return "sysctl %s /proc/sys/net/ipv6/conf/%s/%s %d" % (ns, device, key, value)

    off = [conf(ns, k, key, 1) for ns, k in made for key in ("addr_gen_mode", "disable_ipv6")]
    later = {}
    for op in addressed:
        if ipv6(op):
            later.setdefault(tuple(op.split()[1:3]), []).append(op)
    on = []
    for ns, k in sorted(made):  # one namespace after the other
        on.append(conf(ns, k, "disable_ipv6", 0))
        on += later.get((ns, k), [])
        on.append(conf(ns, k, "addr_gen_mode", 0))
    return off, [op for op in addressed if not ipv6(op)], on


def plan_of(store, out, lever=False):
    strata = "Tessaline" in store
    platform = store["Tessaline" if strata else "SandTessaline"]
    vant, oku = store.get("Vant", {}), store.get("Oku", {}).get("interfaces", {})
    mtus = store.get("Dorvel", {}).get("intfMtus", {})
    mac = vant["bridgeMacAddr"]
    routed = vant.get("intfNameToVlanId", {})
    lags = list(store.get("Pell", {}).get("inputIntfLag", {})) if strata else []

    def mtu(name):
        return mtus.get(name, {}).get("mtu", 1500)

    chip = list(platform["interfaces"]) + lags
    svis = [name for name, facts in oku.items()
            if re.fullmatch(r"Vlan[0-9]+", name) and "ipAddress" in facts
            and "ip6Address" in facts
            and not (not facts["ip6Address"] and facts["ipAddress"].startswith("0.0.0.0"))]
    subintfs = [name for name in vant.get("subIntfNameToEncapVlanId", {})
                if strata and name.split(".")[0] in chip]
    placed = [name for name in chip + subintfs + svis
              if (name in routed or name in svis or name in subintfs) and name in oku]
    names = sorted({namespace(oku[name]) for name in placed} - {"default"})

    plan = ["phase init"] + ["ns %s" % ns for ns in names]
    if strata:
        for module in sorted(platform.get("devices", []),
                             key=lambda m: (m["modId"], m["busId"], m["chipModel"])):
            plan += ["run fab devrole %d switch" % module["modId"],
                     "run fab devstate %d up" % module["modId"]]
    # The rules first: their tools then work against no addresses, which costs them least.
    plan.append("phase filterRules")
    rules = store.get("Sabrel", {})
    for family in ("iptables", "ip6tables"):
        path = os.path.join(out, family + ".rules")
        with open(path, "w") as file:
            file.write(rules.get(family, ""))
        plan.append("rules %s-restore %s" % (family, path))
    plan.append("phase devices")
    # Every device made, with its MTU and MAC, while none is up: an MTU change walks the
    # namespace's IPv6 routes, which only devices that are up have. Then the addresses, on
    # devices still down; then each device up, the chip's with their operational state.
    made, settings, addressed, up = [], [], [], []
    made.append("tap default fabric")
    settings.append("set default fabric %d %s" % (CHIP_MTU, mac))
    up.append("link default fabric 0 -")
    for name in chip:
        k = kernel_name(name)
        made.append("tap default %s" % k)
        if not strata:
            settings.append("prio default %s" % k)
        size = CHIP_MTU
        if name in routed and name in oku:
            if namespace(oku[name]) == "default":
                size = mtu(name)
                addressed += ["addr default %s %s" % (k, a) for a in addresses(oku[name])]
            else:
                size = VRF_COPY_MTU
        settings.append("set default %s %d %s" % (k, size, mac))
        up.append("link default %s 0 - oper" % k)
    # One namespace after the other: the thread enters each once.
    for name in sorted(placed, key=lambda name: namespace(oku[name])):
        ns, k = namespace(oku[name]), kernel_name(name)
        if name in svis:
            made.append("vlan %s %s fabric %s %d" % (ns, k, name[len("Vlan"):], mtu(name)))
        elif name in subintfs:
            parent, _ = name.split(".", 1)
            made.append("vlan %s %s %s %d %d" % (ns, k, kernel_name(parent),
                                                 vant["subIntfNameToEncapVlanId"][name],
                                                 mtu(name)))
        elif ns != "default":
            made.append("tap %s %s" % (ns, k))
            settings.append("set %s %s %d %s" % (ns, k, mtu(name), mac))
        else:
            continue  # a routed chip device of the default VRF: made above
        addressed += ["addr %s %s %s" % (ns, k, a) for a in addresses(oku[name])]
        up.append("link %s %s 0 -" % (ns, k))
    if lever:
        devices = [(op.split()[1], op.split()[2]) for op in made]
        off, addressed, on = lever_of(devices, addressed, up)
        plan += made + off + settings + addressed + up + on
    else:
        plan += made + settings + addressed + up
    plan.append("sysctl default /proc/sys/net/ipv6/conf/all/forwarding 1")
    return plan


def main():
    store, out = sys.argv[1:3]
    os.makedirs(out, exist_ok=True)
    for name, lever in (("bare.txt", False), ("lever.txt", True)):
        with open(os.path.join(out, name), "w") as file:
            file.write("\n".join(plan_of(json.load(open(store)), out, lever)) + "\n")


if __name__ == "__main__":
    main()
