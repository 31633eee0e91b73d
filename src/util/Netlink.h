#pragma once

// rtnetlink requests over a NETLINK_ROUTE socket, built with libmnl in a buffer on the stack.
// Every request asks for an acknowledgement and waits for it, so a result is the kernel's.

#include <cstddef>
#include <cstdint>
#include <linux/netlink.h>
#include <netinet/in.h>
#include <string>
#include <string_view>

// Adds an IPv4 address (scope 0) to an interface. `peer`, when given, is the address of the
// other end of a point-to-point link. Non-zero on success. With `replace`, an address the
// interface has already is replaced rather than refused (EEXIST).
int netlinkIpv4AddrAdd(int netlinkFd, int ifIndex, const in_addr* address, const in_addr* peer,
                       int prefixLength, bool secondary, bool replace = false);
// Adds an IPv6 address (scope 0) to an interface. Non-zero on success.
int netlinkIpv6AddrAdd(int netlinkFd, int ifIndex, const in6_addr* address, int prefixLength,
                       bool replace = false);
// Sets the operational state (IF_OPER_*) of the named link; `sequence` numbers the request.
// Non-zero on success.
int linkOperStateSet(int netlinkFd, const char* deviceName, int sequence, int operState);

namespace Kestrune::Netlink {

// Each returns 0 (or the index asked for) on success, or the negative errno the kernel gave.

// The interface index of a device in the socket's namespace.
int linkIndex(int netlinkFd, std::string_view deviceName);
// Moves a device of the socket's namespace into the namespace open on namespaceFd.
int linkNamespaceIs(int netlinkFd, std::string_view deviceName, int namespaceFd);
// Creates the VLAN device `name` with id `vlanId` on the device with index parentIndex (of the
// socket's namespace). Given a namespace descriptor, the device is made inside that namespace,
// which costs no move; given an MTU, it is made with it, which costs no MTU change.
int vlanLinkAdd(int netlinkFd, std::string_view name, int parentIndex, std::uint16_t vlanId,
                int namespaceFd = -1, unsigned mtu = 0);
// Adds an address of the family (AF_INET, AF_INET6) to an interface, with scope 0; with
// `replace`, an address that is there already is replaced rather than refused with EEXIST.
int addressAdd(int netlinkFd, std::uint8_t family, int ifIndex, const void* address,
               std::size_t addressSize, const void* peer, int prefixLength, std::uint8_t flags,
               bool replace = false);
int operStateIs(int netlinkFd, std::string_view deviceName, std::uint32_t sequence,
                std::uint8_t operState);
// Installs a prio root qdisc with handle 1: and the kernel's default priority map.
int rootPrioQdiscAdd(int netlinkFd, int ifIndex);

// What a device is, as far as telling whether a restore made it goes.
struct LinkFacts {
    std::string kind;             // "vlan", "tun", ... ("" for a plain device)
    int parentIndex = 0;          // a VLAN device's lower device, 0 for none
    bool parentElsewhere = false; // the lower device's index is in another namespace
    std::uint16_t vlanId = 0;
    std::string alias; // IFLA_IFALIAS, "" for none
};
int linkFactsOf(int netlinkFd, std::string_view deviceName, LinkFacts& facts);
// The same facts from a link message the kernel sent (RTM_NEWLINK).
void linkFactsFrom(const nlmsghdr* message, LinkFacts& facts);
// Sets the device's alias (IFLA_IFALIAS).
int linkAliasIs(int netlinkFd, std::string_view deviceName, std::string_view alias);

} // namespace Kestrune::Netlink
