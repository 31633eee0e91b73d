#pragma once

#include "model/ChipFamily.h"

#include <map>
#include <string>

namespace Kestrune::Sim {

// The CPU net devices a chip's kernel driver makes, in the calling thread's namespace, with
// the chip's jumbo frame size. They are TAP devices whose queues this object holds, so they
// keep carrier for as long as the chip lives. Faulty kinds rehearse a driver in trouble.
class ChipPorts {
  public:
    // The CPU devices' frame size: jumbo, as the chip's CPU ports take.
    static constexpr unsigned cpuMtu = chipDeviceMtu;

    enum class Kind {
        ethernet,
        noMac, // a point-to-point device: setting a MAC address is refused
        noUp,  // a VLAN device over a lower device that is down: coming up is refused
        jumbo, // a VLAN device over a lower device of the CPU frame size: no larger MTU
    };

    ChipPorts();
    ~ChipPorts();
    ChipPorts(const ChipPorts&) = delete;
    ChipPorts& operator=(const ChipPorts&) = delete;

    // 0, or -1 with errno (EEXIST when the chip made that device already). The device's
    // alias is the chip's record of it: the command that made it.
    int made(const std::string& name, Kind kind, const std::string& record = {});
    bool has(const std::string& name) const { return queues_.count(name) != 0; }
    // Takes the device down, as a chip resetting its port does: the device itself, or for a
    // VLAN kind its lower device, so that the device cannot come up again.
    bool reset(const std::string& name);

  private:
    int queue(const std::string& name, bool ethernet);

    int socket_ = -1;
    int netlink_ = -1;
    std::map<std::string, int> queues_;         // device (or its hidden lower device) -> its queue
    std::map<std::string, std::string> lowers_; // a VLAN kind's device -> its lower device
};

} // namespace Kestrune::Sim
