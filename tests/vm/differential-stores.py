#!/usr/bin/env python3
"""Writes COUNT hostile stores, the same ones for the same SEED, into OUTDIR: small stores of
either chip family, each with up to three changes at the boundaries the kernel and the chip
have (parents present, missing, in kernel form, in another VRF; names by case, length and
dots; VLAN ids 0, 1, 4094, 4095 and twice; MTUs either side of each limit; VRF names)."""
import argparse
import copy
import json
import os
import random
import subprocess
import sys

HERE = os.path.dirname(os.path.abspath(__file__))
GENERATE = os.path.join(HERE, "..", "..", "bench", "generate-store.py")
MTUS = (67, 68, 1279, 1280, 9216, 9217, 10240, 10241, 65521, 65522)
VLAN_IDS = (0, 1, 4094, 4095)


def generated(*arguments):
    text = subprocess.run([sys.executable, GENERATE, *arguments], check=True,
                          capture_output=True, text=True).stdout
    return json.loads(text)


def interfaces(store):
    return store["Oku"]["interfaces"]


def layer3(store, kind=None):
    """The names of the store's layer-3 interfaces, of one kind ("sub", "svi", "port")."""
    subs = store["Vant"]["subIntfNameToEncapVlanId"]
    names = []
    for name in sorted(interfaces(store)):
        found = "sub" if name in subs else "svi" if name.startswith("Vlan") else "port"
        if kind in (None, found):
            names.append(name)
    return names


def add_subinterface(store, name, parent_vrf, vlan, rng):
    like = layer3(store, "sub")
    entry = copy.deepcopy(interfaces(store)[like[0]]) if like else {"ip6Address": []}
    entry["vrf"] = parent_vrf
    entry["ipAddress"] = f"10.{200 + rng.randrange(50)}.{rng.randrange(250)}.1/24"
    interfaces(store)[name] = entry
    store["Vant"]["subIntfNameToEncapVlanId"][name] = vlan
    store["Vant"]["intfNameToVlanId"][name] = 2000 + rng.randrange(1000)
    store["Dorvel"]["intfMtus"][name] = {"mtu": 1500, "l2Mtu": 1518}


def add_svi(store, name, vrf, rng):
    interfaces(store)[name] = {"ipAddress": f"10.{150 + rng.randrange(50)}.{rng.randrange(250)}.1/24",
                               "ip6Address": [], "vrf": vrf}
    store["Dorvel"]["intfMtus"][name] = {"mtu": 1500, "l2Mtu": 1514}


def vrf_of(store, name):
    return interfaces(store).get(name, {}).get("vrf", "default")


def missing_parent(store, rng):
    parent = rng.choice(["Ethernet1/99", "Port-Channel9", "Ethernet1_1", "Ethernet1/1/1"])
    add_subinterface(store, f"{parent}.{rng.randrange(2, 50)}", rng.choice(["default", "red"]),
                     rng.randrange(2, 4000), rng)


def parent_elsewhere(store, rng):
    ports = [n for n in layer3(store, "port") if n.startswith(("Ethernet", "Port-Channel"))]
    if not ports:
        return
    parent = rng.choice(ports)
    vrfs = [v for v in ("default", "red", "blue") if v != vrf_of(store, parent)]
    add_subinterface(store, f"{parent}.{rng.randrange(200, 300)}", rng.choice(vrfs),
                     rng.randrange(200, 300), rng)


def names_by_case(store, rng):
    ports = [n for n in layer3(store, "port") if n.startswith("Ethernet")]
    if not ports:
        return
    parent = rng.choice(ports)
    vrfs = rng.sample(["default", "red", "blue"], 2)
    add_subinterface(store, f"{parent}.7a", vrfs[0], 7, rng)
    add_subinterface(store, f"{parent}.7A", vrfs[1], 8, rng)


def long_name(store, rng):
    ports = [n for n in layer3(store, "port") if n.startswith("Ethernet")]
    if ports:
        add_subinterface(store, rng.choice(ports) + "." + "1" * rng.randrange(6, 12),
                         "default", rng.randrange(2, 4000), rng)


def vlan_ids(store, rng):
    vlan = rng.choice(VLAN_IDS)
    if rng.random() < 0.5:
        subs = layer3(store, "sub")
        if subs:
            store["Vant"]["subIntfNameToEncapVlanId"][rng.choice(subs)] = vlan
    else:
        add_svi(store, f"Vlan{vlan}", rng.choice(["default", "red"]), rng)


def vlan_twice(store, rng):
    svis = layer3(store, "svi")
    subs = layer3(store, "sub")
    if svis and rng.random() < 0.5:
        name = rng.choice(svis)
        add_svi(store, "Vlan0" + name[len("Vlan"):], rng.choice(["default", "blue"]), rng)
    elif len(subs) >= 2:
        encaps = store["Vant"]["subIntfNameToEncapVlanId"]
        first, second = rng.sample(subs, 2)
        encaps[second] = encaps[first]


def mtu(store, rng):
    names = layer3(store)
    if names:
        entry = store["Dorvel"]["intfMtus"].setdefault(rng.choice(names), {"l2Mtu": 1514})
        entry["mtu"] = rng.choice(MTUS)


def vrf_name(store, rng):
    names = layer3(store)
    if names:
        interfaces(store)[rng.choice(names)]["vrf"] = rng.choice(
            ["green", "a-very-long-vrf-name-of-forty-bytes-xxxx", "x" * 140, "UPPER"])


CHANGES = (missing_parent, parent_elsewhere, names_by_case, long_name, vlan_ids, vlan_twice,
           mtu, mtu, vrf_name)


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--count", type=int, default=200)
    parser.add_argument("outdir")
    arguments = parser.parse_args()
    strata = generated("--ports", "6", "--lags", "1", "--members", "2", "--subintfs", "3",
                       "--svis", "3", "--vrfs", "2", "--rules", "3")
    sand = generated("--family", "sand", "--ports", "6", "--lags", "0", "--subintfs", "0",
                     "--svis", "3", "--vrfs", "2", "--rules", "3")
    rng = random.Random(arguments.seed)
    os.makedirs(arguments.outdir, exist_ok=True)
    for index in range(arguments.count):
        store = copy.deepcopy(strata if rng.random() < 0.75 else sand)
        for change in rng.sample(CHANGES, rng.randrange(0, 4)):
            change(store, rng)
        with open(os.path.join(arguments.outdir, f"store-{index:04d}.json"), "w") as file:
            json.dump(store, file, indent=1)


if __name__ == "__main__":
    main()
