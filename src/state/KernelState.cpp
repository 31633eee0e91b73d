#include "state/KernelState.h"

#include "util/Namespace.h"
#include "util/Netlink.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <libmnl/libmnl.h>
#include <linux/if.h>
#include <linux/if_addr.h>
#include <linux/if_link.h>
#include <linux/net_namespace.h>
#include <linux/pkt_sched.h>
#include <linux/rtnetlink.h>
#include <map>
#include <optional>
#include <sys/socket.h>
#include <unistd.h>

namespace Kestrune {
namespace {

const char* operStateText(unsigned state) {
    static const std::array<const char*, 7> names{"UNKNOWN", "NOTPRESENT", "DOWN", "LOWERLAYERDOWN",
                                                  "TESTING", "DORMANT",    "UP"};
    return state < names.size() ? names[state] : "UNKNOWN";
}

std::string macText(const nlattr* attribute) {
    const auto* bytes = static_cast<const unsigned char*>(mnl_attr_get_payload(attribute));
    std::string text;
    for (unsigned i = 0; i < mnl_attr_get_payload_len(attribute); ++i) {
        char piece[4];
        std::snprintf(piece, sizeof piece, i == 0 ? "%02x" : ":%02x", bytes[i]);
        text += piece;
    }
    return text;
}

struct Dump {
    std::map<int, DeviceState> devices;
};

int linkAttribute(const nlattr* attribute, void* data) {
    auto* device = static_cast<DeviceState*>(data);
    switch (mnl_attr_get_type(attribute)) {
    case IFLA_IFNAME:
        device->name = mnl_attr_get_str(attribute);
        break;
    case IFLA_MTU:
        device->mtu = mnl_attr_get_u32(attribute);
        break;
    case IFLA_ADDRESS:
        device->mac = macText(attribute);
        break;
    case IFLA_OPERSTATE:
        device->operState = operStateText(mnl_attr_get_u8(attribute));
        break;
    case IFLA_LINK:
        device->linkIndex = static_cast<std::int32_t>(mnl_attr_get_u32(attribute));
        break;
    case IFLA_LINK_NETNSID:
        device->linkNamespaceId = static_cast<std::int32_t>(mnl_attr_get_u32(attribute));
        break;
    default:
        break;
    }
    return MNL_CB_OK;
}

int linkMessage(const nlmsghdr* message, void* data) {
    const auto* link = static_cast<const ifinfomsg*>(mnl_nlmsg_get_payload(message));
    DeviceState& device = static_cast<Dump*>(data)->devices[link->ifi_index];
    device.adminUp = (link->ifi_flags & IFF_UP) != 0;
    device.carrier = (link->ifi_flags & IFF_LOWER_UP) != 0;
    mnl_attr_parse(message, sizeof *link, linkAttribute, &device);
    Netlink::LinkFacts facts;
    Netlink::linkFactsFrom(message, facts);
    device.kind = facts.kind;
    device.vlanId = facts.vlanId;
    return MNL_CB_OK;
}

int addressMessage(const nlmsghdr* message, void* data) {
    const auto* address = static_cast<const ifaddrmsg*>(mnl_nlmsg_get_payload(message));
    if (address->ifa_scope == RT_SCOPE_LINK) {
        return MNL_CB_OK;
    }
    std::array<const nlattr*, IFA_MAX + 1> attributes{};
    mnl_attr_parse(
        message, sizeof *address,
        [](const nlattr* attribute, void* table) {
            const auto type = mnl_attr_get_type(attribute);
            if (type <= IFA_MAX) {
                (*static_cast<std::array<const nlattr*, IFA_MAX + 1>*>(table))[type] = attribute;
            }
            return MNL_CB_OK;
        },
        &attributes);
    const nlattr* local =
        attributes[IFA_LOCAL] != nullptr ? attributes[IFA_LOCAL] : attributes[IFA_ADDRESS];
    if (local == nullptr) {
        return MNL_CB_OK;
    }
    char text[INET6_ADDRSTRLEN];
    inet_ntop(address->ifa_family, mnl_attr_get_payload(local), text, sizeof text);
    DeviceState& device = static_cast<Dump*>(data)->devices[static_cast<int>(address->ifa_index)];
    (address->ifa_family == AF_INET ? device.ipv4 : device.ipv6)
        .push_back(std::string(text) + "/" + std::to_string(address->ifa_prefixlen));
    return MNL_CB_OK;
}

int qdiscMessage(const nlmsghdr* message, void* data) {
    const auto* qdisc = static_cast<const tcmsg*>(mnl_nlmsg_get_payload(message));
    if (qdisc->tcm_parent != TC_H_ROOT) {
        return MNL_CB_OK;
    }
    std::string& kind = static_cast<Dump*>(data)->devices[qdisc->tcm_ifindex].qdisc;
    mnl_attr_parse(
        message, sizeof(tcmsg),
        [](const nlattr* attribute, void* target) {
            if (mnl_attr_get_type(attribute) == TCA_KIND) {
                *static_cast<std::string*>(target) = mnl_attr_get_str(attribute);
            }
            return MNL_CB_OK;
        },
        &kind);
    return MNL_CB_OK;
}

// Whether the kernel marked any message of this batch as part of a dump that changes made
// while it ran left inconsistent (entries skipped or given twice).
bool interrupted(const char* batch, std::size_t length) {
    const auto* message = reinterpret_cast<const nlmsghdr*>(batch);
    auto left = static_cast<int>(length);
    for (; mnl_nlmsg_ok(message, left); message = mnl_nlmsg_next(message, &left)) {
        if ((message->nlmsg_flags & NLM_F_DUMP_INTR) != 0) {
            return true;
        }
    }
    return false;
}

// One dump request and every answer to it. The request's header is `headerSize` zero bytes
// but for the address family in the first, as every rtnetlink header starts. `changed` tells
// whether the kernel's tables changed while it ran.
bool dump(int fd, std::uint16_t type, std::size_t headerSize, mnl_cb_t callback, Dump& into,
          bool& changed) {
    alignas(nlmsghdr) std::array<char, 256> request{};
    nlmsghdr* header = mnl_nlmsg_put_header(request.data());
    header->nlmsg_type = type;
    header->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    header->nlmsg_seq = 1;
    mnl_nlmsg_put_extra_header(header, headerSize);
    if (send(fd, header, header->nlmsg_len, 0) < 0) {
        return false;
    }
    // Larger than the largest batch the kernel sends, so none is cut short.
    std::vector<char> buffer(65536);
    for (;;) {
        const auto received = recv(fd, buffer.data(), buffer.size(), 0);
        if (received <= 0) {
            return false;
        }
        changed = changed || interrupted(buffer.data(), static_cast<std::size_t>(received));
        const int result =
            mnl_cb_run(buffer.data(), static_cast<std::size_t>(received), 1, 0, callback, &into);
        if (result <= MNL_CB_STOP) {
            return result == MNL_CB_STOP;
        }
    }
}

std::vector<std::string> namespaceNames() {
    std::vector<std::string> names{std::string(DEFAULT_NS)};
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator(namespaceDir, ignored)) {
        const std::string name = entry.path().filename().string();
        if (name != DEFAULT_NS) {
            names.push_back(name);
        }
    }
    std::sort(names.begin() + 1, names.end());
    return names;
}

// A netlink socket in the namespace. The default namespace, before a restore has named it,
// is this process's own.
int netlinkIn(const std::string& name) {
    if (name == DEFAULT_NS && !defaultNamespaceNamed()) {
        return socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
    }
    return openSocketInNs(AF_NETLINK, SOCK_RAW, NETLINK_ROUTE, name);
}

// What one namespace holds, or nothing when it cannot be read. Right after a restore the
// kernel is still at work (link-local addresses arrive as devices get carrier): a dump it
// interrupts, or one that fails, is read again on a fresh socket, a few times at most.
std::optional<Dump> namespaceDump(const std::string& name) {
    std::optional<Dump> found;
    for (int attempt = 0; attempt < 5; ++attempt) {
        const int fd = netlinkIn(name);
        if (fd < 0) {
            return found;
        }
        bool changed = false;
        found = Dump{};
        const bool read =
            dump(fd, RTM_GETLINK, sizeof(rtgenmsg), linkMessage, *found, changed) &&
            dump(fd, RTM_GETADDR, sizeof(rtgenmsg), addressMessage, *found, changed) &&
            dump(fd, RTM_GETQDISC, sizeof(tcmsg), qdiscMessage, *found, changed);
        close(fd);
        if (read && !changed) {
            break;
        }
    }
    return found;
}

// The id that the namespace behind `netlinkFd` gives the namespace `other`, -1 for none.
std::int32_t idOf(int netlinkFd, const std::string& other) {
    const std::string path = other == DEFAULT_NS && !defaultNamespaceNamed() ? "/proc/self/ns/net"
                                                                             : namespacePath(other);
    const int target = path.empty() ? -1 : open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (target < 0) {
        return -1;
    }
    alignas(nlmsghdr) std::array<char, 256> buffer{};
    nlmsghdr* header = mnl_nlmsg_put_header(buffer.data());
    header->nlmsg_type = RTM_GETNSID;
    header->nlmsg_flags = NLM_F_REQUEST;
    mnl_nlmsg_put_extra_header(header, sizeof(rtgenmsg));
    mnl_attr_put_u32(header, NETNSA_FD, static_cast<std::uint32_t>(target));
    std::int32_t id = -1;
    if (send(netlinkFd, header, header->nlmsg_len, 0) >= 0) {
        const auto received = recv(netlinkFd, buffer.data(), buffer.size(), 0);
        const auto* reply = reinterpret_cast<const nlmsghdr*>(buffer.data());
        if (received > 0 && mnl_nlmsg_ok(reply, static_cast<int>(received)) &&
            reply->nlmsg_type == RTM_NEWNSID) {
            mnl_attr_parse(
                reply, sizeof(rtgenmsg),
                [](const nlattr* attribute, void* into) {
                    if (mnl_attr_get_type(attribute) == NETNSA_NSID) {
                        *static_cast<std::int32_t*>(into) =
                            static_cast<std::int32_t>(mnl_attr_get_u32(attribute));
                    }
                    return MNL_CB_OK;
                },
                &id);
        }
    }
    close(target);
    return id;
}

// Names each VLAN device's parent: by index in its own namespace, or, for one moved away
// from its parent, in the namespace that the link's namespace id stands for.
void nameParents(std::vector<NamespaceState>& state) {
    std::map<std::string, std::map<std::int32_t, std::string>> byIndex;
    for (const NamespaceState& ns : state) {
        for (const DeviceState& device : ns.devices) {
            byIndex[ns.name][device.index] = device.name;
        }
    }
    for (NamespaceState& ns : state) {
        std::map<std::int32_t, std::string> namespaceOfId;
        int fd = -1;
        for (DeviceState& device : ns.devices) {
            if (device.kind != "vlan" || device.linkIndex == 0) {
                continue;
            }
            device.parentNamespace = ns.name;
            if (device.linkNamespaceId >= 0) {
                if (fd < 0) {
                    fd = netlinkIn(ns.name);
                    for (const NamespaceState& other : state) {
                        if (other.name != ns.name && fd >= 0) {
                            namespaceOfId[idOf(fd, other.name)] = other.name;
                        }
                    }
                }
                const auto found = namespaceOfId.find(device.linkNamespaceId);
                device.parentNamespace = found == namespaceOfId.end() ? "" : found->second;
            }
            device.parent = byIndex[device.parentNamespace][device.linkIndex];
        }
        if (fd >= 0) {
            close(fd);
        }
    }
}

} // namespace

void defaultNamespaceVisit(std::optional<NamespaceVisit>& visit, const char* operation) {
    if (defaultNamespaceNamed()) {
        visit.emplace(operation, DEFAULT_NS);
    }
}

bool defaultNamespaceNamed() {
    std::error_code ignored;
    return std::filesystem::exists(namespacePath(DEFAULT_NS), ignored);
}

std::vector<NamespaceState> kernelState() {
    std::vector<NamespaceState> state;
    for (const std::string& name : namespaceNames()) {
        std::optional<Dump> found = namespaceDump(name);
        if (!found) {
            continue;
        }
        NamespaceState ns{name, {}};
        for (auto& [index, device] : found->devices) {
            if (device.name != "lo" && !device.name.empty()) {
                device.index = index;
                ns.devices.push_back(std::move(device));
            }
        }
        state.push_back(std::move(ns));
    }
    nameParents(state);
    return state;
}

} // namespace Kestrune
