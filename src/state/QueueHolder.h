#pragma once

#include "driver/Driver.h"

#include <string>
#include <vector>

namespace Kestrune {

// The TAP devices a restore makes in the VRF namespaces (their routed ports) have carrier only
// while a queue of theirs is open, and the process that made them ends. So a start-up process
// hands their queues to a small process of the library's, the queue holder (named
// "kestrune-hold", its own session, nothing else open, its pid in pidFile), which holds them
// until it is told to end. The devices the chip's driver makes are the driver's: it holds those.
//
//     driver->doCreateKernelInterfaces();
//     Kestrune::QueueHolder::doHandOff(*driver); // then the start-up process may exit
//
// `kill $(cat /run/kestrune/queues.pid)` takes the VRF ports down; the next hand-off, or
// doEndPrevious, ends the holder before its own.
class QueueHolder {
  public:
    static constexpr const char* pidFile = "/run/kestrune/queues.pid";

    // Hands the queues of the VRF devices the driver made to a new holder, ending the one a
    // previous restore left. False, traced at level 0 and recorded (group "QueueHolder"),
    // when it cannot. Call it after doCreateKernelInterfaces, before the driver is released.
    static bool doHandOff(const Driver& driver);
    // Ends the holder a previous restore left, if any, and returns once it is gone (its devices
    // then have no carrier until a restore takes them over: a restore that resumes on the same
    // boot calls this first). False, with the reason in `problem`, when one will not end.
    static bool doEndPrevious(std::string& problem);
    // The queues of the TAP devices the driver made in the VRFs (none before it made any).
    static const std::vector<int>& vrfQueuesOf(const Driver& driver);
    // Starts a holder of these queues; false, with the reason in `problem`, when it cannot.
    static bool doHold(const std::vector<int>& queues, std::string& problem);
};

} // namespace Kestrune
