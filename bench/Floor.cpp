// The floor of the restore benchmark: kernel operations issued as directly as a program can
// (one ioctl or rtnetlink message each, one socket per namespace, a namespace entered only
// when the thread is not there), from a plan. bench/peers.py writes the restore's own
// operations in the library's order: what Kestrune takes above that is its own overhead.
// bench/bare-plan.py writes, from the store, the fewest operations that reach the same state:
// what the kernel cannot do faster.
//
//   floor PLAN [DUMP OUTPUT]
// exits 0 when every operation took; prints the milliseconds it took in all, then those of the
// filter-rule tools, then those of each phase the plan marks ("phase NAME" lines), in order. DUMP
// runs (its output to OUTPUT) before the floor lets go of its devices' queues, so the state it
// reads is the one the floor left, carrier included.
//
// Plan lines: "ns NAME", "tap NS DEVICE", "mtu NS DEVICE MTU", "mac NS DEVICE MAC",
// "up NS DEVICE", "oper NS DEVICE", "addr NS DEVICE ADDRESS/PREFIX", "sysctl NS PATH VALUE",
// "prio NS DEVICE", "vlan NS DEVICE PARENT ID [MTU]" (PARENT in the default namespace, the
// device made inside NS), "move FROM DEVICE TO", "link NS DEVICE MTU MAC|- [oper]" (MTU, MAC,
// up and the operational state in one message; MTU 0 leaves it), "set NS DEVICE MTU MAC|-"
// (the same, the device left down), "run COMMAND LINE", "rules COMMAND FILE" (run with FILE on
// stdin), "phase NAME" (the operations up to the next mark are timed as NAME's).
#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <iostream>
#include <libmnl/libmnl.h>
#include <linux/if.h>
#include <linux/if_addr.h>
#include <linux/if_link.h>
#include <linux/if_tun.h>
#include <linux/pkt_sched.h>
#include <linux/rtnetlink.h>
#include <map>
#include <net/if_arp.h>
#include <sched.h>
#include <sstream>
#include <string>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

struct Namespace {
    int fd = -1;
    int socket = -1;
    mnl_socket* netlink = nullptr;
};

std::map<std::string, Namespace> namespaces;
std::string current = "default";
std::vector<int> queues; // held, so the devices keep carrier while the floor runs
unsigned sequence = 0;
int failures = 0;
double rulesMs = 0;

bool failed(const std::string& what) {
    std::cerr << "floor: " << what << ": " << std::strerror(errno) << "\n";
    ++failures;
    return false;
}

Namespace& enter(const std::string& name) {
    Namespace& ns = namespaces[name];
    if (name != current) {
        if (setns(ns.fd, CLONE_NEWNET) != 0) {
            failed("setns " + name);
        }
        current = name;
    }
    if (ns.socket < 0) {
        ns.socket = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        ns.netlink = mnl_socket_open(NETLINK_ROUTE);
        mnl_socket_bind(ns.netlink, 0, MNL_SOCKET_AUTOPID);
    }
    return ns;
}

void addNamespace(const std::string& name) {
    const std::string path = "/run/netns/" + name;
    const int file = open(path.c_str(), O_RDONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0);
    close(file);
    const int home = namespaces["default"].fd;
    if (unshare(CLONE_NEWNET) != 0 ||
        mount("/proc/thread-self/ns/net", path.c_str(), "none", MS_BIND, nullptr) != 0) {
        failed("namespace " + name);
    }
    namespaces[name].fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    setns(home, CLONE_NEWNET);
    current = "default";
}

ifreq request(const std::string& device) {
    ifreq r{};
    device.copy(r.ifr_name, IFNAMSIZ - 1);
    return r;
}

void addTap(const std::string& nsName, const std::string& name) {
    enter(nsName);
    const int queue = open("/dev/net/tun", O_RDWR | O_CLOEXEC);
    ifreq r = request(name);
    r.ifr_flags = IFF_TAP | IFF_NO_PI;
    if (ioctl(queue, TUNSETIFF, &r) != 0 || ioctl(queue, TUNSETPERSIST, 1) != 0) {
        failed("tap " + name);
    }
    queues.push_back(queue);
}

void setMtu(const std::string& nsName, const std::string& name, int mtu) {
    Namespace& ns = enter(nsName);
    ifreq r = request(name);
    r.ifr_mtu = mtu;
    if (ioctl(ns.socket, SIOCSIFMTU, &r) != 0) {
        failed("mtu " + name);
    }
}

void setMac(const std::string& nsName, const std::string& name, const std::string& mac) {
    Namespace& ns = enter(nsName);
    ifreq r = request(name);
    r.ifr_hwaddr.sa_family = ARPHRD_ETHER;
    unsigned bytes[6];
    std::sscanf(mac.c_str(), "%x:%x:%x:%x:%x:%x", &bytes[0], &bytes[1], &bytes[2], &bytes[3],
                &bytes[4], &bytes[5]);
    for (int i = 0; i < 6; ++i) {
        r.ifr_hwaddr.sa_data[i] = static_cast<char>(bytes[i]);
    }
    if (ioctl(ns.socket, SIOCSIFHWADDR, &r) != 0) {
        failed("mac " + name);
    }
}

void setUp(const std::string& nsName, const std::string& name) {
    Namespace& ns = enter(nsName);
    ifreq r = request(name);
    ioctl(ns.socket, SIOCGIFFLAGS, &r);
    r.ifr_flags = static_cast<short>(r.ifr_flags | IFF_UP);
    if (ioctl(ns.socket, SIOCSIFFLAGS, &r) != 0) {
        failed("up " + name);
    }
}

// A request that the kernel acknowledges, with `flags` besides.
nlmsghdr* requestIn(char* buffer, std::uint16_t type, std::uint16_t flags) {
    nlmsghdr* message = mnl_nlmsg_put_header(buffer);
    message->nlmsg_type = type;
    message->nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK | flags;
    return message;
}

bool transact(mnl_socket* netlink, nlmsghdr* message) {
    message->nlmsg_seq = ++sequence;
    if (mnl_socket_sendto(netlink, message, message->nlmsg_len) < 0) {
        return false;
    }
    char buffer[MNL_SOCKET_BUFFER_SIZE];
    const ssize_t got = mnl_socket_recvfrom(netlink, buffer, sizeof buffer);
    return got > 0 &&
           mnl_cb_run(buffer, static_cast<std::size_t>(got), sequence, 0, nullptr, nullptr) >= 0;
}

int indexOf(Namespace& ns, const std::string& device) {
    ifreq r = request(device);
    return ioctl(ns.socket, SIOCGIFINDEX, &r) == 0 ? r.ifr_ifindex : 0;
}

void addAddress(const std::string& nsName, const std::string& device, const std::string& text) {
    Namespace& ns = enter(nsName);
    const std::size_t slash = text.find('/');
    const std::string address = text.substr(0, slash);
    const int family = address.find(':') != std::string::npos ? AF_INET6 : AF_INET;
    unsigned char bytes[16];
    inet_pton(family, address.c_str(), bytes);
    char buffer[MNL_SOCKET_BUFFER_SIZE];
    nlmsghdr* message = requestIn(buffer, RTM_NEWADDR, NLM_F_CREATE | NLM_F_EXCL);
    auto* info = static_cast<ifaddrmsg*>(mnl_nlmsg_put_extra_header(message, sizeof(ifaddrmsg)));
    info->ifa_family = static_cast<unsigned char>(family);
    info->ifa_prefixlen = static_cast<unsigned char>(std::stoi(text.substr(slash + 1)));
    info->ifa_index = static_cast<unsigned>(indexOf(ns, device));
    const std::size_t size = family == AF_INET ? 4 : 16;
    mnl_attr_put(message, IFA_LOCAL, size, bytes);
    mnl_attr_put(message, IFA_ADDRESS, size, bytes);
    if (!transact(ns.netlink, message)) {
        failed("address " + text + " on " + device);
    }
}

void addPrio(const std::string& nsName, const std::string& device) {
    Namespace& ns = enter(nsName);
    char buffer[MNL_SOCKET_BUFFER_SIZE];
    nlmsghdr* message = requestIn(buffer, RTM_NEWQDISC, NLM_F_CREATE | NLM_F_EXCL);
    auto* info = static_cast<tcmsg*>(mnl_nlmsg_put_extra_header(message, sizeof(tcmsg)));
    info->tcm_ifindex = indexOf(ns, device);
    info->tcm_parent = TC_H_ROOT;
    info->tcm_handle = 0x10000;
    mnl_attr_put_strz(message, TCA_KIND, "prio");
    tc_prio_qopt options{3, {1, 2, 2, 2, 1, 2, 0, 0, 1, 1, 1, 1, 1, 1, 1, 1}};
    mnl_attr_put(message, TCA_OPTIONS, sizeof options, &options);
    if (!transact(ns.netlink, message)) {
        failed("prio on " + device);
    }
}

void setOperUp(const std::string& nsName, const std::string& device) {
    Namespace& ns = enter(nsName);
    char buffer[MNL_SOCKET_BUFFER_SIZE];
    nlmsghdr* message = requestIn(buffer, RTM_SETLINK, 0);
    mnl_nlmsg_put_extra_header(message, sizeof(ifinfomsg));
    mnl_attr_put_strz(message, IFLA_IFNAME, device.c_str());
    mnl_attr_put_u8(message, IFLA_OPERSTATE, 6); // IF_OPER_UP
    if (!transact(ns.netlink, message)) {
        failed("oper state of " + device);
    }
}

// A VLAN device on a device of the default namespace, made inside `nsName` (no move) and with
// its MTU when one is given: one rtnetlink message.
void addVlan(const std::string& nsName, const std::string& device, const std::string& parent,
             int id, int mtu) {
    // The default namespace's sockets reach it from wherever the thread is.
    Namespace& home = namespaces["default"].socket >= 0 ? namespaces["default"] : enter("default");
    const int parentIndex = indexOf(home, parent);
    const int target = namespaces[nsName].fd;
    char buffer[MNL_SOCKET_BUFFER_SIZE];
    nlmsghdr* message = requestIn(buffer, RTM_NEWLINK, NLM_F_CREATE | NLM_F_EXCL);
    mnl_nlmsg_put_extra_header(message, sizeof(ifinfomsg));
    mnl_attr_put_strz(message, IFLA_IFNAME, device.c_str());
    mnl_attr_put_u32(message, IFLA_LINK, static_cast<std::uint32_t>(parentIndex));
    if (nsName != "default") {
        mnl_attr_put_u32(message, IFLA_NET_NS_FD, static_cast<std::uint32_t>(target));
    }
    if (mtu > 0) {
        mnl_attr_put_u32(message, IFLA_MTU, static_cast<std::uint32_t>(mtu));
    }
    nlattr* info = mnl_attr_nest_start(message, IFLA_LINKINFO);
    mnl_attr_put_strz(message, IFLA_INFO_KIND, "vlan");
    nlattr* data = mnl_attr_nest_start(message, IFLA_INFO_DATA);
    mnl_attr_put_u16(message, IFLA_VLAN_ID, static_cast<std::uint16_t>(id));
    mnl_attr_nest_end(message, data);
    mnl_attr_nest_end(message, info);
    if (!transact(home.netlink, message)) {
        failed("vlan " + device);
    }
}

// Moves a device between namespaces, as the library's order does with a VLAN device.
void moveDevice(const std::string& from, const std::string& device, const std::string& to) {
    const int target = enter(to).fd;
    Namespace& ns = enter(from);
    char buffer[MNL_SOCKET_BUFFER_SIZE];
    nlmsghdr* message = requestIn(buffer, RTM_NEWLINK, 0);
    mnl_nlmsg_put_extra_header(message, sizeof(ifinfomsg));
    mnl_attr_put_strz(message, IFLA_IFNAME, device.c_str());
    mnl_attr_put_u32(message, IFLA_NET_NS_FD, static_cast<std::uint32_t>(target));
    if (!transact(ns.netlink, message)) {
        failed("move " + device);
    }
}

// A device's MTU, MAC, up flag (with `up`) and operational state (with `oper`) in one
// rtnetlink message.
void setLink(const std::string& nsName, const std::string& device, int mtu, const std::string& mac,
             bool up, bool oper) {
    Namespace& ns = enter(nsName);
    char buffer[MNL_SOCKET_BUFFER_SIZE];
    nlmsghdr* message = requestIn(buffer, RTM_NEWLINK, 0);
    auto* info = static_cast<ifinfomsg*>(mnl_nlmsg_put_extra_header(message, sizeof(ifinfomsg)));
    info->ifi_flags = up ? IFF_UP : 0;
    info->ifi_change = up ? IFF_UP : 0;
    mnl_attr_put_strz(message, IFLA_IFNAME, device.c_str());
    if (mtu > 0) {
        mnl_attr_put_u32(message, IFLA_MTU, static_cast<std::uint32_t>(mtu));
    }
    if (mac != "-") {
        unsigned bytes[6];
        std::sscanf(mac.c_str(), "%x:%x:%x:%x:%x:%x", &bytes[0], &bytes[1], &bytes[2], &bytes[3],
                    &bytes[4], &bytes[5]);
        unsigned char address[6];
        for (int i = 0; i < 6; ++i) {
            address[i] = static_cast<unsigned char>(bytes[i]);
        }
        mnl_attr_put(message, IFLA_ADDRESS, sizeof address, address);
    }
    if (oper) {
        mnl_attr_put_u8(message, IFLA_OPERSTATE, 6); // IF_OPER_UP
    }
    if (!transact(ns.netlink, message)) {
        failed("link " + device);
    }
}

void writeSysctl(const std::string& nsName, const std::string& path, const std::string& value) {
    enter(nsName);
    const int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    if (fd < 0 || write(fd, value.data(), value.size()) < 0) {
        failed(path);
    }
    close(fd);
}

// Runs an argv without a shell, its standard input from `input` when given; false, counted,
// when it does not exit 0.
bool spawned(std::vector<std::string> argv, const std::string& input = "") {
    std::vector<char*> pointers;
    for (std::string& word : argv) {
        pointers.push_back(word.data());
    }
    pointers.push_back(nullptr);
    const int in = input.empty() ? -1 : open(input.c_str(), O_RDONLY | O_CLOEXEC);
    const pid_t child = vfork();
    if (child == 0) {
        if (in >= 0) {
            dup2(in, 0);
        }
        execvp(pointers[0], pointers.data());
        _exit(127);
    }
    if (in >= 0) {
        close(in);
    }
    int status = 0;
    waitpid(child, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        errno = 0;
        return failed(argv[0]);
    }
    return true;
}

// A command line the restore prescribes (the chip's `fab`).
void runCommand(const std::string& line) {
    std::istringstream words(line);
    std::vector<std::string> argv;
    for (std::string word; words >> word;) {
        argv.push_back(word);
    }
    spawned(argv);
}

void runRules(const std::string& command, const std::string& file) {
    enter("default");
    const auto start = std::chrono::steady_clock::now();
    spawned({command, "-n"}, file);
    rulesMs +=
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2 && argc != 4) {
        std::cerr << "usage: floor PLAN [DUMP OUTPUT]\n";
        return 2;
    }
    std::ifstream plan(argv[1]);
    std::vector<std::string> lines;
    for (std::string line; std::getline(plan, line);) {
        lines.push_back(line);
    }
    const auto start = std::chrono::steady_clock::now();
    auto phaseStart = start;
    std::vector<double> phaseMs;
    const auto phaseEnds = [&] {
        const auto now = std::chrono::steady_clock::now();
        phaseMs.push_back(std::chrono::duration<double, std::milli>(now - phaseStart).count());
        phaseStart = now;
    };
    // A TAP device's queue stays open for its carrier: one descriptor a port.
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    namespaces["default"].fd = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
    for (const std::string& line : lines) {
        std::istringstream words(line);
        std::string op, a, b, c, d, e;
        words >> op >> a >> b >> c >> d >> e;
        if (op == "phase") {
            if (&line != &lines.front()) {
                phaseEnds();
            }
        } else if (op == "ns") {
            addNamespace(a);
        } else if (op == "tap") {
            addTap(a, b);
        } else if (op == "mtu") {
            setMtu(a, b, std::stoi(c));
        } else if (op == "mac") {
            setMac(a, b, c);
        } else if (op == "up") {
            setUp(a, b);
        } else if (op == "oper") {
            setOperUp(a, b);
        } else if (op == "addr") {
            addAddress(a, b, c);
        } else if (op == "sysctl") {
            writeSysctl(a, b, c);
        } else if (op == "prio") {
            addPrio(a, b);
        } else if (op == "vlan") {
            addVlan(a, b, c, std::stoi(d), e.empty() ? 0 : std::stoi(e));
        } else if (op == "move") {
            moveDevice(a, b, c);
        } else if (op == "link") {
            setLink(a, b, std::stoi(c), d, true, e == "oper");
        } else if (op == "set") {
            setLink(a, b, std::stoi(c), d, false, false);
        } else if (op == "rules") {
            runRules(a, b);
        } else if (op == "run") {
            runCommand(line.substr(4));
        }
    }
    phaseEnds();
    const double ms =
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
    std::printf("%.1f %.1f", ms, rulesMs);
    for (const double phase : phaseMs) {
        std::printf(" %.1f", phase);
    }
    std::printf("\n");
    if (argc == 4) {
        // A TAP device's root qdisc is attached when the kernel's link watch sees its carrier
        // come on, up to a second after it did: the state is read once that has run.
        sleep(2);
        setns(namespaces["default"].fd, CLONE_NEWNET);
        const std::string dump = std::string(argv[2]) + " > " + argv[3];
        if (std::system(dump.c_str()) != 0) {
            failed(dump);
        }
    }
    return failures == 0 ? 0 : 1;
}
