#pragma once

#include "platform/ChipDevice.h"
#include "util/EthIoctlUtil.h"

#include <array>
#include <cstdio>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace Kestrune::Sim {

// Plays the switch chip's kernel driver behind the chip-device seam, so the whole restore runs
// on any Linux box. It takes the bytes the real driver would: fabric commands whose request
// number is their length plus one, checked against the chip family's command table (a
// malformed one fails the ioctl, as the driver would), and bde records read at their byte
// offsets. "ifadd" makes the CPU device as a TAP in the thread's namespace; LAG, VLAN, FAP
// and port state is kept in tables. Every operation is one line of the chip log.
class ChipSimulator : public ChipDevice {
  public:
    // The CPU devices' frame size: jumbo, as the chip's CPU ports take.
    static constexpr unsigned cpuMtu = 9216;

    enum class Family { strata, sand };
    // The family whose driver a platform type selects; Strata's for any unknown type.
    static Family familyOf(const std::string& platformType);

    // Makes the "fabric" device, as loading the DMA module does, and starts the chip log at
    // logPath ("" keeps no log); std::runtime_error when that file cannot be written.
    explicit ChipSimulator(const std::string& logPath, Family family = Family::strata);
    ~ChipSimulator() override;
    ChipSimulator(const ChipSimulator&) = delete;
    ChipSimulator& operator=(const ChipSimulator&) = delete;

    int open(const char* path, int flags) override;
    int ioctl(int fd, unsigned long request, void* argument) override;
    int close(int fd) override;
    int mknod(const char* path, mode_t mode, dev_t device) override;

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

    // Rehearses a chip that fails: every later command with one of these names is refused
    // (after it is logged), as a chip in trouble would.
    void refusedIs(std::set<std::string> commandNames) { refused_ = std::move(commandNames); }

    // What a simulated switch's processes see: SIMULATION_VMID set (no modules to load, no
    // nodes to make), the chip's tools from toolsDir first on PATH, and where those tools keep
    // the chip log and the registers.
    static void environmentIs(const std::string& toolsDir, const std::string& chipLog,
                              const std::string& registers);

    // Checks one fabric command against the family's table; the reason when it is malformed,
    // else "".
    static std::string malformation(Family family, const std::string& command);

  private:
    enum class Node { fabric, bde };
    int fabricCommand(const std::string& command);
    int strataCommand(const std::vector<std::string>& words);
    int sandCommand(const std::vector<std::string>& words);
    // 0, or -1 with errno when the device exists or cannot be made.
    int newCpuDevice(const std::string& name);
    // A CPU device of the chip, in the thread's namespace, with the chip's frame size.
    bool cpuDeviceIs(const std::string& name);
    int bdeRecord(unsigned long request, const unsigned char* record);
    void log(const std::string& line);

    struct Fap {
        std::string pciName;
        std::vector<int> params; // from "devparams"
        bool up = false;
    };

    Family family_;
    std::set<std::string> refused_;
    std::FILE* log_ = nullptr;
    int socket_ = -1; // for the devices' MTU
    std::map<int, Node> open_;
    EthIoctlUtil taps_;
    std::set<std::string> devices_;
    std::map<int, std::map<std::pair<int, int>, LagMember>> lags_;
    std::map<std::string, std::map<int, int>> vlans_;
    std::optional<std::array<int, 3>> driverParams_;
    std::map<std::string, Fap> faps_;
    std::map<std::string, SandPort> sandPorts_;
};

} // namespace Kestrune::Sim
