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

  bare-plan.py STORE OUTDIR       writes OUTDIR/bare.txt and the rule files it names
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


def plan_of(store, out):
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
    plan += made + settings + addressed + up
    plan.append("sysctl default /proc/sys/net/ipv6/conf/all/forwarding 1")
    return plan


def main():
    store, out = sys.argv[1:3]
    os.makedirs(out, exist_ok=True)
    with open(os.path.join(out, "bare.txt"), "w") as file:
        file.write("\n".join(plan_of(json.load(open(store)), out)) + "\n")


if __name__ == "__main__":
    main()
