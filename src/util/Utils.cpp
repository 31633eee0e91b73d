#include "util/Utils.h"

#include "util/Assert.h"
#include "util/Format.h"
#include "util/Netlink.h"
#include "util/RestoreGuards.h"
#include "util/Trace.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <stdexcept>
#include <string_view>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

// A request naming the device, cut to the kernel's name field and always terminated.
ifreq requestFor(const char* deviceName) {
    ifreq request{};
    std::strncpy(request.ifr_name, deviceName, IFNAMSIZ - 1);
    return request;
}

// Two hexadecimal digits at most, so a malformed MAC text never reads past its end.
unsigned char hexByteAt(std::string_view text, std::size_t offset) {
    unsigned value = 0;
    for (std::size_t i = offset; i < text.size() && i < offset + 2; ++i) {
        const char digit = text[i];
        unsigned nibble = 0;
        if (digit >= '0' && digit <= '9') {
            nibble = static_cast<unsigned>(digit - '0');
        } else if (digit >= 'a' && digit <= 'f') {
            nibble = static_cast<unsigned>(digit - 'a' + 10);
        } else if (digit >= 'A' && digit <= 'F') {
            nibble = static_cast<unsigned>(digit - 'A' + 10);
        } else {
            break;
        }
        value = value * 16 + nibble;
    }
    return static_cast<unsigned char>(value);
}

} // namespace

void procSysFileWrite(const char* path, int value) {
    // A descriptor, not a stream: a stream would cost a buffer and a stat per write, and the
    // restore writes one of these per layer-3 interface.
    const int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    const bool fp = fd >= 0;
    KESTRUNE_ASSERT(fp);
    char text[16];
    const int length = std::snprintf(text, sizeof text, "%d", value);
    [[maybe_unused]] const ssize_t written = write(fd, text, static_cast<std::size_t>(length));
    close(fd);
}

void sysIpv6Disable(const char* deviceName, int value) {
    char path[256];
    std::snprintf(path, sizeof path, "/proc/sys/net/ipv6/conf/%s/disable_ipv6", deviceName);
    procSysFileWrite(path, value);
}

void sysIpv6Forwarding(const char* deviceName, int value) {
    char path[256];
    std::snprintf(path, sizeof path, "/proc/sys/net/ipv6/conf/%s/forwarding", deviceName);
    procSysFileWrite(path, value);
}

void sysGlobalIpv6Forwarding(int value) {
    procSysFileWrite("/proc/sys/net/ipv6/conf/all/forwarding", value);
}

std::string macText(const ether_addr& mac) {
    char text[18];
    std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", mac.ether_addr_octet[0],
                  mac.ether_addr_octet[1], mac.ether_addr_octet[2], mac.ether_addr_octet[3],
                  mac.ether_addr_octet[4], mac.ether_addr_octet[5]);
    return text;
}

ether_addr macBytesOf(std::string_view text) {
    ether_addr mac{};
    for (std::size_t i = 0; i < 6; ++i) {
        mac.ether_addr_octet[i] = hexByteAt(text, i * 3);
    }
    return mac;
}

bool isUnicastMac(const ether_addr& mac) {
    bool zero = true;
    for (const unsigned char byte : mac.ether_addr_octet) {
        zero = zero && byte == 0;
    }
    return !zero && (mac.ether_addr_octet[0] & 1) == 0;
}

bool setMacAddress(const char* deviceName, const char* mac, int socketFd) {
    TRACE(3) << "setMacAddress"
             << " " << deviceName << " " << mac;
    ifreq request = requestFor(deviceName);
    request.ifr_hwaddr.sa_family = ARPHRD_ETHER;
    const ether_addr bytes = macBytesOf(mac);
    std::memcpy(request.ifr_hwaddr.sa_data, bytes.ether_addr_octet, sizeof bytes.ether_addr_octet);
    if (ioctl(socketFd, SIOCSIFHWADDR, &request) < 0) {
        TRACE(0) << "SIOCSIFHWADDR error " << std::strerror(errno) << "\n";
        return false;
    }
    return true;
}

bool setDevUp(const char* deviceName, int socketFd) {
    TRACE(3) << "setDevUp"
             << " " << deviceName;
    ifreq request = requestFor(deviceName);
    if (ioctl(socketFd, SIOCGIFFLAGS, &request) < 0) {
        TRACE(0) << " SIOCGIFFLAGS error " << std::strerror(errno);
        return false;
    }
    request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP);
    if (ioctl(socketFd, SIOCSIFFLAGS, &request) < 0) {
        TRACE(0) << " SIOCGIFFLAGS error " << std::strerror(errno);
        return false;
    }
    return true;
}

bool setMtu(const char* deviceName, unsigned mtu, int socketFd) {
    TRACE(3) << "setMtu"
             << " " << deviceName << " MTU=" << mtu;
    ifreq request = requestFor(deviceName);
    request.ifr_mtu = static_cast<int>(mtu);
    if (ioctl(socketFd, SIOCSIFMTU, &request) < 0) {
        TRACE(0) << " SIOCSIFMTU error " << std::strerror(errno);
        return false;
    }
    return true;
}

std::string addressProblem(const std::string& address, int family, void* parsed, int& prefixLength,
                           bool conversionErrorsOut) {
    std::string text;
    try {
        getAddrAndPrefix(address, text, prefixLength);
    } catch (const std::logic_error& e) { // invalid_argument, out_of_range
        if (conversionErrorsOut) {
            throw;
        }
        // One odd address in a store costs that address, not the restore.
        return "prefix length of " + address + " is not a number (" + e.what() + ")";
    }
    if (inet_pton(family, text.c_str(), parsed) != 1) {
        return std::string("not an ") + (family == AF_INET ? "IPv4" : "IPv6") + " address: " + text;
    }
    const int longest = family == AF_INET ? 32 : 128;
    if (Kestrune::restoreGuards().valueRanges && (prefixLength < 0 || prefixLength > longest)) {
        return "prefix length of " + address + " is outside 0 to " + std::to_string(longest);
    }
    return {};
}

void getAddrAndPrefix(const std::string& text, std::string& address, int& prefixLength) {
    const std::size_t slash = text.find('/');
    prefixLength = std::stoi(slash == std::string::npos ? text : text.substr(slash + 1));
    address = text.substr(0, slash);
}

namespace {

// The index of the device in the thread's namespace; prints the restore's "not found" text.
// It is asked of the netlink socket the address goes through (the caller's socket of that
// namespace), which answers interface ioctls for its namespace: no socket made per address.
unsigned indexOrReport(int netlinkFd, const std::string& deviceName) {
    ifreq request = requestFor(deviceName.c_str());
    unsigned index = 0;
    if (ioctl(netlinkFd, SIOCGIFINDEX, &request) == 0) {
        index = static_cast<unsigned>(request.ifr_ifindex);
    } else if (errno != ENODEV) {
        index = if_nametoindex(deviceName.c_str());
    }
    if (index == 0) {
        std::printf("Not Found at index\n ");
    }
    return index;
}

// The device's index, with the address parsed into `parsed` and its prefix length; 0 when the
// device is missing or the text is not an address of the family.
unsigned addressToAdd(int netlinkFd, const char* operation, int family,
                      const std::string& deviceName, const std::string& address, void* parsed,
                      int& prefixLength) {
    const unsigned index = indexOrReport(netlinkFd, deviceName);
    if (index == 0) {
        return 0;
    }
    // The sequence lets a prefix length that is no number end the restore: the conversion's
    // error leaves ipAddrAdd for its caller, and nothing catches it.
    if (const std::string problem = addressProblem(address, family, parsed, prefixLength,
                                                   !Kestrune::restoreGuards().valueRanges);
        !problem.empty()) {
        TRACE_EXTRA(0) << operation << " " << deviceName << " " << problem;
        return 0;
    }
    return index;
}

} // namespace

bool ipAddrAdd(int netlinkFd, const std::string& deviceName, const std::string& address,
               bool secondary) {
    return ipAddrAdd(netlinkFd, deviceName, address, secondary, AddressThere::refused);
}

bool ipAddrAdd(int netlinkFd, const std::string& deviceName, const std::string& address,
               bool secondary, AddressThere there) {
    TRACE(3) << "ipAddrAdd"
             << " " << deviceName << " " << address;
    in_addr parsed{};
    int prefixLength = 0;
    const unsigned index =
        addressToAdd(netlinkFd, "ipAddrAdd", AF_INET, deviceName, address, &parsed, prefixLength);
    return index != 0 &&
           netlinkIpv4AddrAdd(netlinkFd, static_cast<int>(index), &parsed, nullptr, prefixLength,
                              secondary, there == AddressThere::replaced) != 0;
}

bool ip6AddrAdd(int netlinkFd, const std::string& deviceName, const std::string& address) {
    return ip6AddrAdd(netlinkFd, deviceName, address, AddressThere::refused);
}

bool ip6AddrAdd(int netlinkFd, const std::string& deviceName, const std::string& address,
                AddressThere there) {
    TRACE(3) << "ip6AddrAdd"
             << " " << deviceName << " " << address;
    in6_addr parsed{};
    int prefixLength = 0;
    const unsigned index =
        addressToAdd(netlinkFd, "ip6AddrAdd", AF_INET6, deviceName, address, &parsed, prefixLength);
    return index != 0 && netlinkIpv6AddrAdd(netlinkFd, static_cast<int>(index), &parsed,
                                            prefixLength, there == AddressThere::replaced) != 0;
}

int setDeviceOperStatusUp(int netlinkFd, const std::string& deviceName) {
    return linkOperStateSet(netlinkFd, deviceName.c_str(), 111, 6 /* IF_OPER_UP */);
}

std::string parentIntfOfSubIntf(const std::string& subIntfName) {
    const std::size_t dot = subIntfName.find('.');
    KESTRUNE_ASSERT(dot != std::string::npos);
    return subIntfName.substr(0, dot);
}

bool schanReadReg(int bus, int block, int index, unsigned reg, unsigned* high, unsigned* low,
                  bool is32) {
    const std::string address = Kestrune::formatted("%d:00.0", bus);
    const std::string output =
        exec(Kestrune::formatted("schan %s readreg %d %d %u", address.c_str(), block, index, reg)
                 .c_str());
    if (output.empty()) {
        return false;
    }
    if (is32) {
        return std::sscanf(output.c_str(), "%x", low) == 1;
    }
    return std::sscanf(output.c_str(), "%x %x", high, low) == 2;
}

bool schanWriteReg(int bus, int block, int index, unsigned reg, unsigned high, unsigned low,
                   bool is32) {
    const std::string address = Kestrune::formatted("%d:00.0", bus);
    const std::string command =
        is32 ? Kestrune::formatted("schan %s writereg %d %d %u %u", address.c_str(), block, index,
                                   reg, low)
             : Kestrune::formatted("schan %s writereg %d %d %u %u %u", address.c_str(), block,
                                   index, reg, high, low);
    return exec(command.c_str()).empty();
}

bool schanReadReg32(int bus, int block, int index, unsigned reg, unsigned* low) {
    return schanReadReg(bus, block, index, reg, nullptr, low, true);
}

bool schanReadReg64(int bus, int block, int index, unsigned reg, unsigned* high, unsigned* low) {
    return schanReadReg(bus, block, index, reg, high, low, false);
}

bool schanWriteReg32(int bus, int block, int index, unsigned reg, unsigned low) {
    return schanWriteReg(bus, block, index, reg, 0, low, true);
}

bool schanWriteReg64(int bus, int block, int index, unsigned reg, unsigned high, unsigned low) {
    return schanWriteReg(bus, block, index, reg, high, low, false);
}
