#include "util/Netlink.h"

#include "util/RestoreGuards.h"
#include "util/Trace.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <functional>
#include <libmnl/libmnl.h>
#include <linux/if.h>
#include <linux/if_addr.h>
#include <linux/if_link.h>
#include <linux/pkt_sched.h>
#include <linux/rtnetlink.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/socket.h>

namespace Kestrune::Netlink {
namespace {

// Large enough for any request built here and for the kernel's answer to one of them (a
// link message with its attributes, or an error echoing the request).
constexpr std::size_t bufferSize = 8192;

std::uint32_t nextSequence() {
    static std::uint32_t sequence = 0x4b530000; // "KS": easy to spot in a netlink capture
    return ++sequence;
}

nlmsghdr* requestHeader(char* buffer, std::uint16_t type, std::uint16_t flags) {
    nlmsghdr* header = mnl_nlmsg_put_header(buffer);
    header->nlmsg_type = type;
    header->nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK | flags;
    header->nlmsg_seq = nextSequence();
    return header;
}

// Returns false when the name cannot be a kernel device name, so it never reaches the kernel
// as a truncated or unterminated attribute.
bool putName(nlmsghdr* header, std::string_view name) {
    if (name.empty() || name.size() >= IFNAMSIZ) {
        return false;
    }
    std::array<char, IFNAMSIZ> text{};
    name.copy(text.data(), name.size());
    mnl_attr_put_strz(header, IFLA_IFNAME, text.data());
    return true;
}

// Sends the request and reads until the kernel acknowledges it, handing each answering message
// (of a request that asks for one) to `answer`. Messages answering other requests (an earlier
// one whose acknowledgement was never read) are skipped. Returns 0 or the negative errno.
int transact(int fd, nlmsghdr* request, const std::function<void(const nlmsghdr*)>& answer = {}) {
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    const auto sent = sendto(fd, request, request->nlmsg_len, 0,
                             reinterpret_cast<const sockaddr*>(&kernel), sizeof kernel);
    if (sent < 0) {
        return -errno;
    }
    const std::uint32_t sequence = request->nlmsg_seq;
    alignas(nlmsghdr) std::array<char, bufferSize> buffer{};
    for (;;) {
        const auto received = recv(fd, buffer.data(), buffer.size(), 0);
        if (received < 0) {
            if (errno == EINTR) {
                continue;
            }
            return -errno;
        }
        int length = static_cast<int>(received);
        for (auto* message = reinterpret_cast<const nlmsghdr*>(buffer.data());
             mnl_nlmsg_ok(message, length); message = mnl_nlmsg_next(message, &length)) {
            if (message->nlmsg_seq != sequence) {
                continue;
            }
            if (message->nlmsg_type == NLMSG_ERROR) {
                const auto* error = static_cast<const nlmsgerr*>(mnl_nlmsg_get_payload(message));
                return error->error;
            }
            if (answer) {
                answer(message);
            }
        }
    }
}

ifaddrmsg* addressHeader(nlmsghdr* header, std::uint8_t family, int ifIndex, int prefixLength,
                         std::uint8_t flags) {
    auto* address = static_cast<ifaddrmsg*>(mnl_nlmsg_put_extra_header(header, sizeof(ifaddrmsg)));
    address->ifa_family = family;
    address->ifa_prefixlen = static_cast<std::uint8_t>(prefixLength);
    address->ifa_flags = flags;
    address->ifa_scope = RT_SCOPE_UNIVERSE;
    address->ifa_index = static_cast<std::uint32_t>(ifIndex);
    return address;
}

} // namespace

int addressAdd(int fd, std::uint8_t family, int ifIndex, const void* address,
               std::size_t addressSize, const void* peer, int prefixLength, std::uint8_t flags,
               bool replace) {
    alignas(nlmsghdr) std::array<char, bufferSize> buffer{};
    nlmsghdr* header = requestHeader(buffer.data(), RTM_NEWADDR,
                                     NLM_F_CREATE | (replace ? NLM_F_REPLACE : NLM_F_EXCL));
    addressHeader(header, family, ifIndex, prefixLength, flags);
    mnl_attr_put(header, IFA_LOCAL, addressSize, address);
    mnl_attr_put(header, IFA_ADDRESS, addressSize, peer != nullptr ? peer : address);
    return transact(fd, header);
}

int linkIndex(int fd, std::string_view deviceName) {
    if (deviceName.empty() || deviceName.size() >= IFNAMSIZ) {
        return -ENODEV;
    }
    // Any socket answers for its own namespace, and the ioctl costs the kernel none of the
    // whole link message a RTM_GETLINK answer is built of: a restore asks once a VLAN device.
    ifreq request{};
    deviceName.copy(request.ifr_name, deviceName.size());
    if (ioctl(fd, SIOCGIFINDEX, &request) < 0) {
        return -errno;
    }
    return request.ifr_ifindex > 0 ? request.ifr_ifindex : -ENODEV;
}

int linkNamespaceIs(int fd, std::string_view deviceName, int namespaceFd) {
    alignas(nlmsghdr) std::array<char, bufferSize> buffer{};
    nlmsghdr* header = requestHeader(buffer.data(), RTM_NEWLINK, 0);
    mnl_nlmsg_put_extra_header(header, sizeof(ifinfomsg));
    if (!putName(header, deviceName)) {
        return -ENODEV;
    }
    mnl_attr_put_u32(header, IFLA_NET_NS_FD, static_cast<std::uint32_t>(namespaceFd));
    return transact(fd, header);
}

int vlanLinkAdd(int fd, std::string_view name, int parentIndex, std::uint16_t vlanId,
                int namespaceFd, unsigned mtu) {
    alignas(nlmsghdr) std::array<char, bufferSize> buffer{};
    nlmsghdr* header = requestHeader(buffer.data(), RTM_NEWLINK, NLM_F_CREATE | NLM_F_EXCL);
    mnl_nlmsg_put_extra_header(header, sizeof(ifinfomsg));
    if (!putName(header, name)) {
        return -EINVAL;
    }
    mnl_attr_put_u32(header, IFLA_LINK, static_cast<std::uint32_t>(parentIndex));
    if (namespaceFd >= 0) {
        mnl_attr_put_u32(header, IFLA_NET_NS_FD, static_cast<std::uint32_t>(namespaceFd));
    }
    if (mtu != 0) {
        mnl_attr_put_u32(header, IFLA_MTU, mtu);
    }
    nlattr* linkInfo = mnl_attr_nest_start(header, IFLA_LINKINFO);
    mnl_attr_put_strz(header, IFLA_INFO_KIND, "vlan");
    nlattr* vlanData = mnl_attr_nest_start(header, IFLA_INFO_DATA);
    mnl_attr_put_u16(header, IFLA_VLAN_ID, vlanId);
    mnl_attr_nest_end(header, vlanData);
    mnl_attr_nest_end(header, linkInfo);
    return transact(fd, header);
}

int rootPrioQdiscAdd(int fd, int ifIndex) {
    alignas(nlmsghdr) std::array<char, bufferSize> buffer{};
    nlmsghdr* header = requestHeader(buffer.data(), RTM_NEWQDISC, NLM_F_CREATE | NLM_F_EXCL);
    auto* qdisc = static_cast<tcmsg*>(mnl_nlmsg_put_extra_header(header, sizeof(tcmsg)));
    qdisc->tcm_family = AF_UNSPEC;
    qdisc->tcm_ifindex = ifIndex;
    qdisc->tcm_handle = TC_H_MAKE(1U << 16, 0);
    qdisc->tcm_parent = TC_H_ROOT;
    mnl_attr_put_strz(header, TCA_KIND, "prio");
    // The priority map tc itself installs when none is given: TC_PRIO_* -> band.
    tc_prio_qopt options{3, {1, 2, 2, 2, 1, 2, 0, 0, 1, 1, 1, 1, 1, 1, 1, 1}};
    mnl_attr_put(header, TCA_OPTIONS, sizeof options, &options);
    return transact(fd, header);
}

int operStateIs(int fd, std::string_view deviceName, std::uint32_t sequence,
                std::uint8_t operState) {
    alignas(nlmsghdr) std::array<char, bufferSize> buffer{};
    nlmsghdr* header = requestHeader(buffer.data(), RTM_SETLINK, 0);
    header->nlmsg_seq = sequence;
    mnl_nlmsg_put_extra_header(header, sizeof(ifinfomsg));
    if (!putName(header, deviceName)) {
        return -ENODEV;
    }
    mnl_attr_put_u8(header, IFLA_OPERSTATE, operState);
    return transact(fd, header);
}

namespace {

int linkInfoOf(const nlattr* info, void* data) {
    auto* facts = static_cast<LinkFacts*>(data);
    if (mnl_attr_get_type(info) == IFLA_INFO_KIND) {
        facts->kind = mnl_attr_get_str(info);
    } else if (mnl_attr_get_type(info) == IFLA_INFO_DATA && facts->kind == "vlan") {
        // The kernel gives the kind before the data.
        mnl_attr_parse_nested(
            info,
            [](const nlattr* vlan, void* target) {
                if (mnl_attr_get_type(vlan) == IFLA_VLAN_ID) {
                    static_cast<LinkFacts*>(target)->vlanId = mnl_attr_get_u16(vlan);
                }
                return MNL_CB_OK;
            },
            data);
    }
    return MNL_CB_OK;
}

int linkFactOf(const nlattr* attribute, void* data) {
    auto* facts = static_cast<LinkFacts*>(data);
    switch (mnl_attr_get_type(attribute)) {
    case IFLA_LINK:
        facts->parentIndex = static_cast<int>(mnl_attr_get_u32(attribute));
        break;
    case IFLA_LINK_NETNSID:
        facts->parentElsewhere = true;
        break;
    case IFLA_IFALIAS:
        facts->alias = mnl_attr_get_str(attribute);
        break;
    case IFLA_LINKINFO:
        mnl_attr_parse_nested(attribute, linkInfoOf, data);
        break;
    default:
        break;
    }
    return MNL_CB_OK;
}

} // namespace

void linkFactsFrom(const nlmsghdr* message, LinkFacts& facts) {
    facts = LinkFacts{};
    mnl_attr_parse(message, sizeof(ifinfomsg), linkFactOf, &facts);
}

int linkFactsOf(int fd, std::string_view deviceName, LinkFacts& facts) {
    alignas(nlmsghdr) std::array<char, bufferSize> buffer{};
    nlmsghdr* header = requestHeader(buffer.data(), RTM_GETLINK, 0);
    mnl_nlmsg_put_extra_header(header, sizeof(ifinfomsg));
    if (!putName(header, deviceName)) {
        return -ENODEV;
    }
    facts = LinkFacts{};
    return transact(fd, header, [&facts](const nlmsghdr* message) {
        if (message->nlmsg_type == RTM_NEWLINK) {
            linkFactsFrom(message, facts);
        }
    });
}

int linkAliasIs(int fd, std::string_view deviceName, std::string_view alias) {
    alignas(nlmsghdr) std::array<char, bufferSize> buffer{};
    nlmsghdr* header = requestHeader(buffer.data(), RTM_SETLINK, 0);
    mnl_nlmsg_put_extra_header(header, sizeof(ifinfomsg));
    if (!putName(header, deviceName) || alias.size() >= IFALIASZ) {
        return -EINVAL;
    }
    mnl_attr_put(header, IFLA_IFALIAS, alias.size(), alias.data());
    return transact(fd, header);
}

} // namespace Kestrune::Netlink

namespace {

int traced(const char* operation, int result) {
    if (result < 0) {
        TRACE_EXTRA(0) << operation << " failed: " << std::strerror(-result);
        return 0;
    }
    return 1;
}

} // namespace

int netlinkIpv4AddrAdd(int netlinkFd, int ifIndex, const in_addr* address, const in_addr* peer,
                       int prefixLength, bool secondary, bool replace) {
    return traced("netlinkIpv4AddrAdd",
                  Kestrune::Netlink::addressAdd(netlinkFd, AF_INET, ifIndex, address,
                                                sizeof *address, peer, prefixLength,
                                                secondary ? IFA_F_SECONDARY : 0, replace));
}

int netlinkIpv6AddrAdd(int netlinkFd, int ifIndex, const in6_addr* address, int prefixLength,
                       bool replace) {
    return traced("netlinkIpv6AddrAdd", Kestrune::Netlink::addressAdd(
                                            netlinkFd, AF_INET6, ifIndex, address, sizeof *address,
                                            nullptr, prefixLength, 0, replace));
}

int linkOperStateSet(int netlinkFd, const char* deviceName, int sequence, int operState) {
    return traced("linkOperStateSet",
                  Kestrune::Netlink::operStateIs(netlinkFd, deviceName,
                                                 static_cast<std::uint32_t>(sequence),
                                                 static_cast<std::uint8_t>(operState)));
}
