#!/usr/bin/env python3
"""Checks that a run left the kernel state a Kestrune restore left: in every namespace the same
devices with the same kind, MTU, MAC, admin state, root qdisc and addresses. Carrier is not
compared: a TAP device has it only while a process holds its queue, which `ip tuntap` does not.

  same-state.py REFERENCE_REPORT STATE_JSON LABEL     exit 1, saying what differs, when not
"""
import json
import sys


def comparable(kernel):
    return {ns: {d["name"]: (d["kind"], d["mtu"], d["mac"], d["adminUp"], d["qdisc"],
                             tuple(d["ipv4"]), tuple(sorted(d["ipv6"])))
                 for d in devices if d["name"] != "lo"}
            for ns, devices in kernel.items()}


def main():
    reference = comparable(json.load(open(sys.argv[1]))["kernel"])
    state = comparable(json.load(open(sys.argv[2])))
    if state == reference:
        return 0
    for ns in sorted(set(reference) | set(state)):
        want, have = reference.get(ns, {}), state.get(ns, {})
        for name in sorted(set(want) | set(have)):
            if want.get(name) != have.get(name):
                print("%s: %s %s: want %s, have %s" % (sys.argv[3], ns, name, want.get(name),
                                                     have.get(name)), file=sys.stderr)
                return 1
    return 1


if __name__ == "__main__":
    sys.exit(main())
