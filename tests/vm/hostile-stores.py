#!/usr/bin/env python3
"""Writes stores with values the kernel or the chip refuses where only a guest can try them
(VLAN devices, a Sand chip's FAPs), each beside its clean store, into OUTDIR."""
import copy
import json
import os
import subprocess
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
GENERATE = os.path.join(HERE, "..", "..", "bench", "generate-store.py")


def generated(*arguments):
    text = subprocess.run([sys.executable, GENERATE, *arguments], check=True,
                          capture_output=True, text=True).stdout
    return json.loads(text)


def renamed(store, old, new):
    """The store with interface old called new wherever a section names it."""
    store = copy.deepcopy(store)
    for section, key in (("Oku", "interfaces"), ("Dorvel", "intfMtus")):
        entries = store[section][key]
        if old in entries:
            entries[new] = entries.pop(old)
    return store


def with_interface(store, name, like, internal_vlan):
    """The store with interface name added as a copy of interface like, in every section that
    has like, with an internal VLAN of its own."""
    store = copy.deepcopy(store)
    for section, key in (("Oku", "interfaces"), ("Dorvel", "intfMtus"),
                         ("Vant", "subIntfNameToEncapVlanId"), ("Vant", "intfNameToVlanId"),
                         ("Tessaline", "interfaces")):
        entries = store[section][key]
        if like in entries:
            entries[name] = copy.deepcopy(entries[like])
    if name in store["Vant"]["intfNameToVlanId"]:
        store["Vant"]["intfNameToVlanId"][name] = internal_vlan
    return store


def main():
    out = sys.argv[1]
    strata = generated("--ports", "8", "--lags", "1", "--members", "2", "--subintfs", "4",
                       "--svis", "4", "--vrfs", "2", "--rules", "5")
    sand = generated("--family", "sand", "--ports", "8", "--lags", "0", "--subintfs", "0",
                     "--svis", "4", "--vrfs", "2", "--rules", "5")
    stores = {"strata-clean": strata, "sand-clean": sand}

    def variant(name, base, change):
        store = copy.deepcopy(base)
        change(store)
        stores[name] = store

    for vlan in (-1, 0, 4095, 65536, 65537):
        variant(f"subinterface-vlan-{vlan}", strata,
                lambda s, v=vlan: s["Vant"]["subIntfNameToEncapVlanId"].update({"Ethernet1/1.100": v}))
    for vlan in (0, 4095):
        stores[f"svi-vlan-{vlan}"] = renamed(strata, "Vlan10", f"Vlan{vlan}")
    mtus = lambda s: s["Dorvel"]["intfMtus"]
    variant("svi-mtu-9217", strata, lambda s: mtus(s)["Vlan10"].update({"mtu": 9217}))
    variant("svi-mtu-9216", strata, lambda s: mtus(s)["Vlan10"].update({"mtu": 9216}))
    variant("svi-mtu-1279", strata, lambda s: mtus(s)["Vlan10"].update({"mtu": 1279}))
    variant("subinterface-mtu-9217", strata,
            lambda s: mtus(s)["Ethernet1/1.100"].update({"mtu": 9217}))
    # Ethernet1/1 is routed in the default namespace: its subinterface takes no more than it.
    variant("subinterface-above-its-port", strata,
            lambda s: (mtus(s)["Ethernet1/1"].update({"mtu": 1500}),
                       mtus(s)["Ethernet1/1.100"].update({"mtu": 9000})))
    # Below IPv6's minimum on a routed port of each namespace, a subinterface and an SVI; the
    # port in the default namespace without its subinterface, which would lose IPv6 with it.
    def below(s):
        for section, key in (("Vant", "subIntfNameToEncapVlanId"), ("Oku", "interfaces"),
                             ("Dorvel", "intfMtus")):
            s[section][key].pop("Ethernet1/1.100")
        for name in ("Ethernet1/1", "Ethernet1/2", "Ethernet1/2.100", "Vlan10"):
            mtus(s)[name].update({"mtu": 1279})
    variant("below-ipv6-mtu", strata, below)
    # A port routed in the default namespace below IPv6's minimum takes IPv6 off its VLAN
    # devices too: the subinterface's IPv6 switches are gone when it is configured.
    variant("port-below-ipv6-mtu-with-subinterface", strata,
            lambda s: mtus(s)["Ethernet1/1"].update({"mtu": 1279}))
    # The same whatever the subinterface's own MTU: its IPv6 switches come before it.
    variant("port-below-ipv6-mtu-with-subinterface-of-mtu-0", strata,
            lambda s: (mtus(s)["Ethernet1/1"].update({"mtu": 1279}),
                       mtus(s)["Ethernet1/1.100"].update({"mtu": 0})))
    # Subinterfaces whose parent has no device: not in the store, named in its kernel form,
    # or a port whose own name holds a dot (the parent is what comes before the first dot).
    stores["subinterface-parent-missing"] = with_interface(strata, "Ethernet1/99.5",
                                                           "Port-Channel1.101", 1100)
    stores["subinterface-lag-missing"] = with_interface(strata, "Port-Channel9.5",
                                                        "Port-Channel1.101", 1100)
    stores["subinterface-parent-kernel-form"] = with_interface(strata, "Ethernet1_3.200",
                                                               "Port-Channel1.101", 1100)
    dotted = renamed(strata, "Ethernet1/8", "Ethernet1/8.7")
    dotted["Tessaline"]["interfaces"]["Ethernet1/8.7"] = dotted["Tessaline"]["interfaces"].pop(
        "Ethernet1/8")
    stores["port-with-a-dot-and-its-subinterface"] = with_interface(
        dotted, "Ethernet1/8.7.5", "Port-Channel1.101", 1100)
    # Two SVIs of one VLAN id: the second finds the id taken on fabric.
    stores["svi-vlan-twice"] = with_interface(strata, "Vlan011", "Vlan11", 0)
    # Two subinterfaces of one port with one encapsulation VLAN.
    twice = with_interface(strata, "Port-Channel1.102", "Port-Channel1.101", 1100)
    twice["Vant"]["subIntfNameToEncapVlanId"]["Port-Channel1.102"] = 101
    stores["subinterface-vlan-twice"] = twice
    # A VRF's routed port's device keeps the largest frames in the default namespace: its
    # subinterface takes up to that, and no more.
    for mtu in (-1, 9217, 10240, 10241, 65521, 65536, 2147483647):
        variant(f"vrf-port-subinterface-mtu-{mtu}", strata,
                lambda s, m=mtu: mtus(s)["Ethernet1/2.100"].update({"mtu": m}))
    # One kernel name (case is folded) for subinterfaces in two VRFs: the library's order makes
    # both in the default namespace, where the second fails; the fast order must too.
    folded = with_interface(strata, "Ethernet1/1.5a", "Ethernet1/1.100", 1100)
    folded = with_interface(folded, "Ethernet1/1.5A", "Ethernet1/1.100", 1101)
    folded["Vant"]["subIntfNameToEncapVlanId"].update({"Ethernet1/1.5a": 5, "Ethernet1/1.5A": 6})
    folded["Oku"]["interfaces"]["Ethernet1/1.5A"]["vrf"] = "blue"
    stores["kernel-name-twice-in-two-vrfs"] = folded
    variant("sand-numfaps-0", sand, lambda s: s["SandTessaline"]["devices"][0].update({"numFaps": 0}))
    variant("sand-numfaps-negative", sand,
            lambda s: s["SandTessaline"]["devices"][0].update({"numFaps": -1}))
    variant("sand-no-devices", sand, lambda s: s["SandTessaline"].update({"devices": []}))
    stores["sand-svi-vlan-4095"] = renamed(sand, "Vlan10", "Vlan4095")

    os.makedirs(out, exist_ok=True)
    for name, store in stores.items():
        with open(os.path.join(out, name + ".json"), "w") as file:
            json.dump(store, file, indent=1)


if __name__ == "__main__":
    main()
