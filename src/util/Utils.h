#pragma once

// The kernel network utilities the drivers use to touch the kernel. They keep no state; a
// descriptor argument is a socket or netlink socket the caller opened in the right network
// namespace, and they never open or close it. Global, as the restore's callers expect.

#include <netinet/ether.h>
#include <string>
#include <string_view>

void procSysFileWrite(const char* path, int value);
void sysIpv6Disable(const char* deviceName, int value);
void sysIpv6Forwarding(const char* deviceName, int value);
void sysGlobalIpv6Forwarding(int value);

// Runs a command line (split on blanks, no shell) and returns all it wrote to standard output.
std::string exec(const char* command);

// Chip register access through the "schan" tool. "block" and "index" are the two numbers the
// tool takes after the chip's PCI address.
bool schanReadReg(int bus, int block, int index, unsigned reg, unsigned* high, unsigned* low,
                  bool is32);
bool schanWriteReg(int bus, int block, int index, unsigned reg, unsigned high, unsigned low,
                   bool is32);
bool schanReadReg32(int bus, int block, int index, unsigned reg, unsigned* low);
bool schanReadReg64(int bus, int block, int index, unsigned reg, unsigned* high, unsigned* low);
bool schanWriteReg32(int bus, int block, int index, unsigned reg, unsigned low);
bool schanWriteReg64(int bus, int block, int index, unsigned reg, unsigned high, unsigned low);

bool setMacAddress(const char* deviceName, const char* mac, int socketFd);
// An Ethernet address as the kernel prints it: "02:1c:73:5e:00:01".
std::string macText(const ether_addr& mac);
// The six bytes setMacAddress gives the kernel for a MAC text: two hex digits at each third
// byte, a digit that is not hex ending its byte early (so a text that is no MAC gives zeros).
ether_addr macBytesOf(std::string_view text);
// Whether the kernel gives an Ethernet device that address: not zero and not multicast.
bool isUnicastMac(const ether_addr& mac);
bool setDevUp(const char* deviceName, int socketFd);
bool setMtu(const char* deviceName, unsigned mtu, int socketFd);

bool ipAddrAdd(int netlinkFd, const std::string& deviceName, const std::string& address,
               bool secondary);
bool ip6AddrAdd(int netlinkFd, const std::string& deviceName, const std::string& address);
// How an address the device has already is met: refused, as the calls above do, or replaced
// (for a restore that finishes one interrupted).
enum class AddressThere { refused, replaced };
bool ipAddrAdd(int netlinkFd, const std::string& deviceName, const std::string& address,
               bool secondary, AddressThere there);
bool ip6AddrAdd(int netlinkFd, const std::string& deviceName, const std::string& address,
                AddressThere there);
// Non-zero when the device's operational state is now up.
int setDeviceOperStatusUp(int netlinkFd, const std::string& deviceName);

// "Ethernet1.100" -> "Ethernet1". A name without "." ends the process.
std::string parentIntfOfSubIntf(const std::string& subIntfName);
// "10.1.2.3/24" -> "10.1.2.3" and 24. Throws std::invalid_argument / std::out_of_range (from
// std::stoi) when the prefix length is not a number.
void getAddrAndPrefix(const std::string& text, std::string& address, int& prefixLength);
// Why an address text of the family (AF_INET, AF_INET6) cannot be added, "" when it can: then
// `parsed` (in_addr or in6_addr) and prefixLength hold it. Throws only when asked to let
// getAddrAndPrefix's conversion error out, as the restore's sequence does.
std::string addressProblem(const std::string& address, int family, void* parsed, int& prefixLength,
                           bool conversionErrorsOut = false);
