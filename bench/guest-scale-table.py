#!/usr/bin/env python3
"""Prints bench/guest-scale.sh's tables for one chip family from the runs' millisecond files:

  kestrune.ms  total, parse+init, create, move, configure, filterRules (the report's phases)
  library.ms   total, filter-rule tools, init, create, move, configure, filterRules
  bare.ms      total, filter-rule tools, init, filterRules, devices
  lever.ms     the same, for the lever floor

  guest-scale-table.py WORK FAMILY STORE...
"""
import json
import os
import statistics
import sys

COLUMNS = {
    "kestrune": {"total": 0, "init": 1, "create": 2, "move": 3, "configure": 4, "filterRules": 5},
    "library": {"total": 0, "init": 2, "create": 3, "move": 4, "configure": 5, "filterRules": 6},
    "bare": {"total": 0, "init": 2, "filterRules": 3, "devices": 4},
    "lever": {"total": 0, "init": 2, "filterRules": 3, "devices": 4},
}


def times(work, store, who, phase):
    path = os.path.join(work, store, who + ".ms")
    column = COLUMNS[who][phase]
    return [float(line.split()[column]) for line in open(path) if line.strip()]


def median(work, store, who, phase):
    return statistics.median(times(work, store, who, phase))


def spread(work, store, who, phase="total"):
    t = [x / 1000 for x in times(work, store, who, phase)]
    return "%.1f (%.1f-%.1f)" % (statistics.median(t), min(t), max(t))


def devices(work, store):
    kernel = json.load(open(os.path.join(work, store, "reference.json")))["kernel"]
    vlans = sum(1 for ns in kernel.values() for d in ns if d["kind"] == "vlan")
    return sum(len(ns) for ns in kernel.values()), vlans, len(kernel)


def main():
    work, family, stores = sys.argv[1], sys.argv[2], sys.argv[3:]
    rounds = len(times(work, stores[0], "kestrune", "total"))
    print("%s, %d rounds, seconds: median (min-max)" % (family, rounds))
    print("| store | devices (VLAN) / namespaces | Kestrune | library-order floor | bare floor "
          "| lever floor | Kestrune / bare | Kestrune / lever | Kestrune / library |")
    print("|---|---|---|---|---|---|---|---|---|")
    who_all = ("kestrune", "library", "bare", "lever")
    for store in stores:
        k, lib, bare, lever = (median(work, store, who, "total") for who in who_all)
        print("| %s | %d (%d) / %d | %s | %s | %s | %s | %.2f | %.2f | %.2f |" % (
            (store,) + devices(work, store) +
            tuple(spread(work, store, who) for who in who_all) + (k / bare, k / lever, k / lib)))
    print()
    print("By phase, medians in seconds: Kestrune / library-order floor; the bare floor's "
          "devices phase makes, addresses and brings up every device:")
    print("| store | init | create | move | configure | filter rules | bare: init, rules, devices "
          "| lever: init, rules, devices |")
    print("|---|---|---|---|---|---|---|---|")
    for store in stores:
        cells = ["%.1f / %.1f" % (median(work, store, "kestrune", p) / 1000,
                                  median(work, store, "library", p) / 1000)
                 for p in ("init", "create", "move", "configure", "filterRules")]
        floors = [", ".join("%.1f" % (median(work, store, who, p) / 1000)
                            for p in ("init", "filterRules", "devices"))
                  for who in ("bare", "lever")]
        print("| %s | %s | %s |" % (store, " | ".join(cells), " | ".join(floors)))
    series = [s for s in ("svi1024", "svi2048", "svi4094") if s in stores]
    if len(series) > 1:
        print()
        print("Growth per 2 times the SVIs (linear is 2.0; 2,048 to 4,094 is 2.0 times too):")
        print("| from | to | Kestrune total | Kestrune create + move + configure "
              "| bare total | bare devices | lever total | lever devices |")
        print("|---|---|---|---|---|---|---|---|")

        def work_of(store, who):
            if who == "kestrune":
                return sum(median(work, store, who, p) for p in ("create", "move", "configure"))
            return median(work, store, who, "devices")

        for small, large in zip(series, series[1:]):
            print("| %s | %s | %.2f | %.2f | %.2f | %.2f | %.2f | %.2f |" % (
                small, large,
                median(work, large, "kestrune", "total") / median(work, small, "kestrune", "total"),
                work_of(large, "kestrune") / work_of(small, "kestrune"),
                median(work, large, "bare", "total") / median(work, small, "bare", "total"),
                work_of(large, "bare") / work_of(small, "bare"),
                median(work, large, "lever", "total") / median(work, small, "lever", "total"),
                work_of(large, "lever") / work_of(small, "lever")))
    print()


if __name__ == "__main__":
    main()
