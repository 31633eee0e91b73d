// Times the restore's kernel operations against the tools an implementation could have run
// instead, in one private network namespace (the host is never touched).
//
//   kernel-bench [DEVICES]
//
// Per operation: MAC, MTU, up, one IPv4 and one IPv6 address, each applied to every one of
// DEVICES veth devices through the restore's functions, and the same changes on another set
// of devices through one `ip -batch` run (its process start included, divided by DEVICES),
// and through one `ip` process per change. Then runCommand's posix_spawn against popen for a
// command that does nothing. Needs root.
#include "log/Log.h"
#include "util/Command.h"
#include "util/Trace.h"
#include "util/Utils.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <sched.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;

double microseconds(Clock::duration elapsed) {
    return std::chrono::duration<double, std::micro>(elapsed).count();
}

double timeUs(const std::function<void()>& work) {
    const auto start = Clock::now();
    work();
    return microseconds(Clock::now() - start);
}

std::string device(const char* set, int index) {
    return set + std::to_string(index);
}

std::string mac(int index) {
    char text[18];
    std::snprintf(text, sizeof text, "02:00:00:00:%02x:%02x", (index >> 8) & 0xff, index & 0xff);
    return text;
}

std::string ipv4(int index) {
    return "10." + std::to_string(index >> 8) + "." + std::to_string(index & 0xff) + ".1/24";
}

std::string ipv6(int index) {
    return "2001:db8:" + std::to_string(index) + "::1/64";
}

// The `ip` command (after "ip") that makes the same change as the restore's operation.
using IpLine = std::function<std::string(int)>;

struct Operation {
    const char* name;
    std::function<bool(int index, const std::string& device)> restore;
    IpLine ip;
};

bool runBatch(const std::string& path, int devices, const char* set, const IpLine& line) {
    std::ofstream batch(path);
    for (int i = 0; i < devices; ++i) {
        batch << line(i) << " dev " << device(set, i) << "\n";
    }
    batch.close();
    return runCommand("ip -batch " + path) == 0;
}

} // namespace

int main(int argc, char** argv) {
    const int devices = argc > 1 ? std::atoi(argv[1]) : 256;
    if (unshare(CLONE_NEWNET) != 0) {
        std::perror("kernel-bench needs root to make a private network namespace");
        return 1;
    }
    Kestrune::Log::historyPathIs("");
    Kestrune::Trace::levelsIs(1U);
    Kestrune::Trace::sinkIs([](std::string_view) {});
    const std::string batch = "/tmp/kernel-bench-" + std::to_string(getpid());

    // Three sets of devices: the restore's, `ip -batch`'s and one `ip` per change.
    for (const char* set : {"kr", "kb", "kp"}) {
        std::ofstream setup(batch);
        for (int i = 0; i < devices; ++i) {
            setup << "link add " << device(set, i) << " type veth peer name " << set << "p" << i
                  << "\n";
        }
        setup.close();
        if (runCommand("ip -batch " + batch) != 0) {
            std::fprintf(stderr, "kernel-bench: cannot make the devices\n");
            return 1;
        }
    }
    const int sock = socket(AF_INET, SOCK_DGRAM, 0);
    const int netlink = socket(AF_NETLINK, SOCK_DGRAM, 0);
    const Operation operations[] = {
        {"MAC",
         [&](int i, const std::string& d) {
             return setMacAddress(d.c_str(), mac(i).c_str(), sock);
         },
         [](int i) { return "link set address " + mac(i); }},
        {"MTU", [&](int, const std::string& d) { return setMtu(d.c_str(), 9214, sock); },
         [](int) { return std::string("link set mtu 9214"); }},
        {"up", [&](int, const std::string& d) { return setDevUp(d.c_str(), sock); },
         [](int) { return std::string("link set up"); }},
        {"IPv4 address",
         [&](int i, const std::string& d) { return ipAddrAdd(netlink, d, ipv4(i), false); },
         [](int i) { return "addr add " + ipv4(i); }},
        {"IPv6 address",
         [&](int i, const std::string& d) { return ip6AddrAdd(netlink, d, ipv6(i)); },
         [](int i) { return "addr add " + ipv6(i); }},
    };
    const int spawned = std::min(devices, 32);
    std::printf("%d devices; microseconds per operation\n", devices);
    std::printf("%-14s %12s %12s %12s\n", "operation", "restore", "ip -batch", "ip per op");
    for (const Operation& operation : operations) {
        bool ok = true;
        const double restore = timeUs([&] {
            for (int i = 0; i < devices; ++i) {
                ok = operation.restore(i, device("kr", i)) && ok;
            }
        });
        const double batched =
            timeUs([&] { ok = runBatch(batch, devices, "kb", operation.ip) && ok; });
        const double perProcess = timeUs([&] {
            for (int i = 0; i < spawned; ++i) {
                ok = runCommand("ip " + operation.ip(i) + " dev " + device("kp", i)) == 0 && ok;
            }
        });
        std::printf("%-14s %12.2f %12.2f %12.1f%s\n", operation.name, restore / devices,
                    batched / devices, perProcess / spawned, ok ? "" : "  (some failed)");
    }
    std::remove(batch.c_str());

    const int runs = 200;
    const double spawn = timeUs([&] {
        for (int i = 0; i < runs; ++i) {
            runCommand("true");
        }
    });
    const double popened = timeUs([&] {
        for (int i = 0; i < runs; ++i) {
            pclose(popen("true", "r"));
        }
    });
    std::printf("\nrunCommand \"true\": posix_spawn %.1f us, popen %.1f us (mean of %d)\n",
                spawn / runs, popened / runs, runs);
    close(sock);
    close(netlink);
    return 0;
}
