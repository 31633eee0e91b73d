#pragma once

#include "Chip.h"
#include "platform/ChipDevice.h"

#include <map>
#include <set>
#include <string>

namespace Kestrune::Sim {

// The chip behind the in-process chip-device seam, so the whole restore runs on any Linux box
// without its kernel serving the chip's nodes: opens of /dev/fabric and the bde node give
// descriptors of this object, and their requests go straight to the chip.
class ChipSimulator : public ChipDevice {
  public:
    using Family = Chip::Family;
    static constexpr unsigned cpuMtu = Chip::cpuMtu;
    static Family familyOf(const std::string& platformType) { return Chip::familyOf(platformType); }
    static std::string malformation(Family family, const std::string& command) {
        return Chip::malformation(family, command);
    }

    // See Chip: makes the fabric device and starts the chip log at logPath, buffered (see
    // Chip::LogWrites; doFlushLog before reading it while the simulator lives).
    explicit ChipSimulator(const std::string& logPath, Family family = Family::strata);
    ~ChipSimulator() override;
    ChipSimulator(const ChipSimulator&) = delete;
    ChipSimulator& operator=(const ChipSimulator&) = delete;

    int open(const char* path, int flags) override;
    int ioctl(int fd, unsigned long request, void* argument) override;
    int close(int fd) override;
    int mknod(const char* path, mode_t mode, dev_t device) override;

    const auto& lags() const { return chip_.lags(); }
    const auto& sandPorts() const { return chip_.sandPorts(); }
    // See Chip::faultNames. "fab" and "schan" reach the chip's tools, which then never answer.
    void refusedIs(std::set<std::string> names);
    void doFlushLog() { chip_.doFlushLog(); }

    // What a simulated switch's processes see: SIMULATION_VMID set (no modules to load, no
    // nodes to make), the chip's tools from toolsDir first on PATH, and where those tools keep
    // the chip log and the registers.
    static void environmentIs(const std::string& toolsDir, const std::string& chipLog,
                              const std::string& registers);

  private:
    enum class Node { fabric, bde };

    Chip chip_;
    std::map<int, Node> open_;
};

} // namespace Kestrune::Sim
