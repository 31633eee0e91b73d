#!/usr/bin/env python3
"""Writes a persistent store of either chip family, as the switch's agents would.

The store has front-panel ports (some routed), Port-Channels with members (half of them
routed), subinterfaces on routed ports and Port-Channels, VLAN interfaces, VRFs besides the
default one, IPv4 primaries and secondaries, IPv6 addresses, MTUs and a filter rule set in
the save format that iptables-restore reads. The same arguments always give the same store.
"""

import argparse
import json
import sys

PORTS_PER_SLOT = 32
PORTS_PER_CHIP = 64
FIRST_INTERNAL_VLAN = 1006


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--family", choices=["strata", "sand"], default="strata")
    parser.add_argument("--ports", type=int, default=48, help="front-panel ports")
    parser.add_argument("--routed", type=int, default=None,
                        help="routed ports (default: a quarter of the ports)")
    parser.add_argument("--lags", type=int, default=4, help="Port-Channels")
    parser.add_argument("--members", type=int, default=2, help="members per Port-Channel")
    parser.add_argument("--subintfs", type=int, default=6, help="subinterfaces")
    parser.add_argument("--svis", type=int, default=6, help="VLAN interfaces")
    parser.add_argument("--first-svi", type=int, default=10,
                        help="VLAN id of the first VLAN interface (the others follow it)")
    parser.add_argument("--vrfs", type=int, default=2, help="VRFs besides the default one")
    parser.add_argument("--rules", type=int, default=20, help="filter rules per family")
    parser.add_argument("--compact", action="store_true", help="no indentation")
    parser.add_argument("-o", "--output", help="file to write (default: standard output)")
    arguments = parser.parse_args()
    if arguments.routed is None:
        arguments.routed = arguments.ports // 4
    if arguments.lags * arguments.members + arguments.routed > arguments.ports:
        parser.error("not enough ports for the routed ports and the Port-Channel members")
    if arguments.svis and not 1 <= arguments.first_svi <= 4095 - arguments.svis:
        parser.error("VLAN interfaces need VLAN ids within 1-4094")
    if arguments.subintfs and not (arguments.routed or arguments.lags):
        parser.error("subinterfaces need a routed port or a Port-Channel to sit on")
    return arguments


def port_name(index):
    return "Ethernet%d/%d" % (index // PORTS_PER_SLOT + 1, index % PORTS_PER_SLOT + 1)


class Store:
    def __init__(self, arguments):
        self.arguments = arguments
        self.ports = [port_name(i) for i in range(arguments.ports)]
        self.vrfs = ["default"] + ["vrf%d" % i for i in range(1, arguments.vrfs + 1)]
        if arguments.vrfs >= 2:
            self.vrfs[1:3] = ["red", "blue"]
        self.next_vlan = FIRST_INTERNAL_VLAN
        self.oku = {}
        self.mtus = {}

    def internal_vlan(self):
        vlan = self.next_vlan
        self.next_vlan += 1
        return vlan

    def vrf(self, index):
        return self.vrfs[index % len(self.vrfs)]

    def address(self, name, index, prefix_a, secondaries=0, ipv6=True):
        high, low = divmod(index, 256)
        entry = {"ipAddress": "10.%d.%d.1/24" % (prefix_a + high, low),
                 "ip6Address": ["2001:db8:%x:%x::1/64" % (prefix_a, index)] if ipv6 else [],
                 "vrf": self.vrf(index)}
        if secondaries:
            entry["secondaryIpAddress"] = [
                "10.%d.%d.1/24" % (prefix_a + 100 + high, (low + s) % 256)
                for s in range(1, secondaries + 1)]
        self.oku[name] = entry

    def build(self):
        a = self.arguments
        platform = self.strata() if a.family == "strata" else self.sand()
        routed = self.ports[:a.routed]
        members_from = a.routed
        lags, flags = {}, {}
        for i in range(a.lags):
            name = "Port-Channel%d" % (i + 1)
            members = self.ports[members_from + i * a.members:members_from + (i + 1) * a.members]
            lags[name] = {"member": members}
            for m, member in enumerate(members):
                flags[member] = {"collecting": True, "distributing": m == 0 or i % 2 == 0}
        routed_lags = [name for i, name in enumerate(lags) if i % 2 == 0]

        internal = {}
        for i, name in enumerate(routed):
            internal[name] = self.internal_vlan()
            self.address(name, i, 1, secondaries=1 if i % 5 == 0 else 0)
            self.mtus[name] = {"mtu": 9000 if i % 3 == 0 else 1500,
                               "l2Mtu": 9214 if i % 3 == 0 else 1514}
        for i, name in enumerate(routed_lags):
            internal[name] = self.internal_vlan()
            self.address(name, i, 2)
        for name in lags:
            self.mtus[name] = {"mtu": 9000, "l2Mtu": 9214}

        parents = routed_lags[:1] + routed
        encap = {}
        for i in range(a.subintfs):
            parent = parents[i % len(parents)]
            name = "%s.%d" % (parent, 100 + i // len(parents))
            encap[name] = 100 + i // len(parents)
            internal[name] = self.internal_vlan()
            self.address(name, i, 3, ipv6=i % 2 == 0)
            self.mtus[name] = {"mtu": 1500, "l2Mtu": 1518}
        for i in range(a.svis):
            name = "Vlan%d" % (a.first_svi + i)
            self.address(name, i, 4, secondaries=2 if i % 4 == 0 else 0)
            self.mtus[name] = {"mtu": 1500, "l2Mtu": 1514}
        for name in self.ports:
            self.mtus.setdefault(name, {"mtu": 9214, "l2Mtu": 9216})

        store = {
            "Pell": {"inputIntfLag": lags, "collectDistribute": flags},
            "Vant": {"bridgeMacAddr": "02:1c:73:5e:00:01",
                     "subIntfNameToEncapVlanId": encap, "intfNameToVlanId": internal},
            "Oku": {"interfaces": self.oku},
            "Dorvel": {"intfMtus": self.mtus},
            "Sabrel": {"iptables": rules(a.rules, ipv6=False),
                       "ip6tables": rules(a.rules, ipv6=True)},
        }
        store.update(platform)
        return store

    def strata(self):
        chips = max(1, -(-len(self.ports) // PORTS_PER_CHIP))
        devices = [{"modId": c, "busId": c + 1, "chipModel": "BCM56850"} for c in range(chips)]
        interfaces = {}
        for i, name in enumerate(self.ports):
            interfaces[name] = {"modId": i // PORTS_PER_CHIP, "port": i % PORTS_PER_CHIP + 1,
                                "uc_qbase": 16 + 8 * (i % PORTS_PER_CHIP),
                                "mc_qbase": 1040 + 4 * (i % PORTS_PER_CHIP)}
        return {"Tessaline": {"platformType": "Strata", "devices": devices,
                              "interfaces": interfaces}}

    def sand(self):
        faps = max(1, -(-len(self.ports) // PORTS_PER_CHIP))
        devices = [{"name": "Fap%d" % f, "pciName": "0000:%02x:00.0" % (f + 1), "numFaps": 1,
                    "fapType": 3, "cpuTm": 0, "cpuSflow": 1, "cpuAradSysPort": 2,
                    "cpuArad": 3, "cpuAradBridge": 4} for f in range(faps)]
        interfaces = {}
        for i, name in enumerate(self.ports):
            interfaces[name] = {"nativeVlan": 0 if i % 8 == 0 else 1,
                                "systemPhyPortId": 100 + i, "trafficClass": i % 8,
                                "dot1qTunnel": 0, "deviceName": "Fap%d" % (i // PORTS_PER_CHIP)}
        return {"SandTessaline": {"platformType": "Sand",
                                  "driverParams": {"oldestFapType": 3, "maxLags": 1024,
                                                   "maxMembersPerLag": 16},
                                  "devices": devices, "interfaces": interfaces}}


def rules(count, ipv6):
    """A control-plane filter in save format: established traffic, the routing and
    monitoring protocols from the fabric's peers, management, then a drop."""
    icmp = "-p ipv6-icmp -j ACCEPT" if ipv6 else "-p icmp -m icmp --icmp-type 8 -j ACCEPT"
    lines = ["*filter", ":INPUT ACCEPT [0:0]", ":FORWARD ACCEPT [0:0]", ":OUTPUT ACCEPT [0:0]",
             ":CONTROL-PLANE - [0:0]",
             "-A INPUT -j CONTROL-PLANE",
             "-A CONTROL-PLANE -m conntrack --ctstate RELATED,ESTABLISHED -j ACCEPT",
             "-A CONTROL-PLANE %s" % icmp]
    services = [("tcp", 179), ("udp", 3784), ("udp", 3785), ("udp", 4784), ("tcp", 22),
                ("udp", 161), ("tcp", 443), ("udp", 123), ("tcp", 830), ("udp", 514)]
    for i in range(max(0, count - 4)):
        protocol, port = services[i % len(services)]
        # Each round of services is for another peer network, so every rule is distinct.
        peer = i // len(services)
        peers = ("2001:db8:ffff:%x::/64" % peer if ipv6
                 else "10.%d.%d.0/24" % (peer // 256, peer % 256))
        mgmt = ("2001:db8:fffe::%x/128" % peer if ipv6
                else "192.0.%d.%d/32" % (2 + peer // 256, peer % 256))
        source = peers if port in (179, 3784, 3785, 4784) else mgmt
        lines.append("-A CONTROL-PLANE -s %s -p %s -m %s --dport %d -j ACCEPT"
                     % (source, protocol, protocol, port))
    lines += ["-A CONTROL-PLANE -i lo -j ACCEPT", "-A CONTROL-PLANE -j DROP", "COMMIT", ""]
    return "\n".join(lines)


def main():
    arguments = parse_arguments()
    store = Store(arguments).build()
    text = json.dumps(store, indent=None if arguments.compact else 2) + "\n"
    if arguments.output:
        with open(arguments.output, "w") as output:
            output.write(text)
    else:
        sys.stdout.write(text)


if __name__ == "__main__":
    main()
