#pragma once

#include "ChipPorts.h"

#include <array>
#include <cstdint>
#include <cstdio>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace Kestrune::Sim {

// The switch chip as its kernel driver presents it, whatever carries the requests to it (the
// in-process simulator or the character-device daemon). It takes the bytes the real driver
// would: fabric commands checked against the chip family's command table, fixed slots
// included (a malformed one is refused, as the driver would), and bde records read at their
// byte offsets. "ifadd" makes the CPU device; LAG, VLAN, FAP and port state is kept in tables.
// Every operation is one line of the chip log.
class Chip {
  public:
    static constexpr unsigned cpuMtu = ChipPorts::cpuMtu;
    // The most a fabric command or bde record can take: the driver's own bound.
    static constexpr std::size_t largestRequest = 4096;
    // The CPU devices a client other than root may have the chip make: each holds one of the
    // daemon's descriptors, and a user who can open the nodes must not use them all up.
    static constexpr unsigned devicesPerClient = 64;
    // The entries of each of the chip's tables (LAG members, VLANs of all ports, FAPs).
    static constexpr std::size_t largestTable = 65536;
    // The chip log is rotated to "<log>.1" when it reaches this size; a line longer than
    // largestLogLine is cut there.
    static constexpr long largestLog = 8L << 20;
    static constexpr std::size_t largestLogLine = 512;
    // The client a request comes from: its user id. Root is the restore.
    static constexpr unsigned rootClient = 0;

    enum class Family { strata, sand };
    // The family whose driver a platform type selects; Strata's for any unknown type.
    static Family familyOf(const std::string& platformType);
    // The family named "strata" or "sand"; std::invalid_argument for any other name.
    static Family familyNamed(const std::string& name);

    // Rehearses a chip in trouble; each name makes one thing fail: a fabric command's name
    // (refused after it is logged), "adddevice" and "interrupts" (the bde requests),
    // "fabric-mac" and "fabric-up" (the fabric device refuses a MAC or coming up), "port-mac"
    // and "port-up" (so do the CPU devices of "ifadd"), "port-mtu" (those take no frames larger
    // than the CPU frame size), "fabric-reset" (the chip takes the fabric device down at its
    // first "ifadd"), "port-reset" (it takes a port down, for good, at its "internalvlan");
    // "bde-reopen" (the bde node takes one open only; the character-device daemon checks it);
    // "fab" and "schan" (the chip's tool of that name never answers, until it is killed).
    static const std::set<std::string>& faultNames();

    // When the chip log's lines reach the file. The chip's tools append to the same file, so
    // a chip in a process of its own writes each line at once; a chip inside the restore's
    // process buffers them: the restore flushes its streams before it starts a tool, and
    // exit and its assertions flush them too.
    enum class LogWrites { eachLine, buffered };

    // Makes the "fabric" device, as loading the DMA module does, and starts the chip log at
    // logPath ("" keeps no log); std::runtime_error when that file cannot be written.
    Chip(const std::string& logPath, Family family, std::set<std::string> refused = {},
         LogWrites writes = LogWrites::eachLine);
    ~Chip();
    Chip(const Chip&) = delete;
    Chip& operator=(const Chip&) = delete;

    // One request as a character device receives it: `size` bytes of the caller's memory for
    // request `number` on the fabric node (whose number is the command's length plus one) or
    // the bde node. Sets `wanted` to the bytes the request needs; when `size` is short of that
    // it returns 0 and the caller asks for more. Else 0, or -1 with errno, as the chip answers.
    // Whatever the bytes, nothing past `size` is read.
    int deviceRequest(bool bde, unsigned long number, const unsigned char* bytes, std::size_t size,
                      std::size_t* wanted, unsigned client);
    // One command of the fabric channel: 0, or -1 with errno.
    int fabricCommand(const std::string& command, unsigned client = rootClient);
    // One bde request with its `size` bytes of record: 0, or -1 with errno (EINVAL, with a
    // line in the chip log, when the record is shorter than it says it is).
    int bdeRecord(unsigned long request, const unsigned char* record, std::size_t size);
    // The bytes of a bde request's record, knowing its first `known` bytes (the count of the
    // enable-interrupts record says how long it is); 0 for a request the driver does not know.
    static std::size_t recordSize(unsigned long request, const unsigned char* known,
                                  std::size_t knownSize);
    void log(const std::string& line);
    // Writes out the log's buffered lines.
    void doFlushLog();
    void refusedIs(std::set<std::string> names) { refused_ = std::move(names); }
    bool refuses(const std::string& name) const { return refused_.count(name) != 0; }

    // Checks one fabric command against the family's table; the reason when it is malformed,
    // else "".
    static std::string malformation(Family family, const std::string& command);

    struct LagMember {
        int modId = 0;
        int port = 0;
        bool configured = false;
        bool added = false;
        int state = 0;
    };
    // LAG id -> its members by (modId, port).
    const std::map<int, std::map<std::pair<int, int>, LagMember>>& lags() const { return lags_; }
    struct SandPort {
        int systemPort = 0;
        int trafficClass = 0;
        std::string fap;
        int dot1qTunnel = 0;
        int nativeVlan = 0;   // 0 until "native_vlan"
        int internalVlan = 0; // 0 unless routed
    };
    // Kernel device -> what the Sand chip holds of its port.
    const std::map<std::string, SandPort>& sandPorts() const { return sandPorts_; }

  private:
    // A command's words, split at blanks.
    static std::vector<std::string> wordsOf(const std::string& command);
    // One command of the family, as sent and as its words.
    int strataCommand(const std::string& command, const std::vector<std::string>& words,
                      unsigned client);
    int sandCommand(const std::string& command, const std::vector<std::string>& words,
                    unsigned client);
    // The CPU device `name`, made by `command` for the client; the command, and the client
    // when it is not root, are the chip's record of it.
    int newCpuDevice(const std::string& name, const std::string& command, unsigned client);
    // Refuses, with a line in the chip log, when a table is full; 0 when it has room.
    int tableRoom(std::size_t entries, const char* table);
    // Moves the log to "<log>.1" unless what it holds and `incoming` bytes still fit.
    void doRotateLog(long incoming);
    // The kind of device the chip makes for "fabric" or a "port", by what it refuses.
    ChipPorts::Kind kindFor(const std::string& device) const;
    // What a chip in trouble does once a command has taken.
    void afterCommand(const std::vector<std::string>& words);

    struct Fap {
        std::string pciName;
        std::vector<int> params; // from "devparams"
        bool up = false;
    };

    Family family_;
    std::set<std::string> refused_;
    LogWrites writes_;
    std::string logPath_;
    std::FILE* log_ = nullptr;
    long logBytes_ = 0;
    std::map<unsigned, unsigned> devicesOf_; // client -> the CPU devices it had the chip make
    ChipPorts ports_;
    bool fabricReset_ = false;
    std::map<int, std::map<std::pair<int, int>, LagMember>> lags_;
    std::size_t lagMembers_ = 0;
    std::map<std::string, std::map<int, int>> vlans_;
    std::size_t vlanEntries_ = 0; // over every device
    std::optional<std::array<int, 3>> driverParams_;
    std::map<std::string, Fap> faps_;
    std::map<std::string, SandPort> sandPorts_;
};

} // namespace Kestrune::Sim
