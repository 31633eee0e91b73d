#pragma once

#include <stdexcept>
#include <string>

namespace Kestrune {

// A request to stop the restore, made by a signal handler and honoured by the restore at its
// stop points: between phases, between interfaces, between commands. Only the flag and the
// running command's process group are touched from the handler.
class StopRequested : public std::runtime_error {
  public:
    explicit StopRequested(int signal);
    int signal() const { return signal_; }

  private:
    int signal_;
};

// Async-signal-safe: asks the restore to stop and ends the running command's process group.
void stopRequestedBy(int signal);
// The signal that asked for a stop, or 0.
int stopSignal();
// Throws StopRequested when a stop was asked.
void stopPoint();
// "SIGTERM", "SIGINT", or "signal <n>".
std::string signalName(int signal);

// The process group of the command the restore is waiting for (0 for none), so that a stop
// ends it and whatever it started.
void runningCommandIs(int processGroup);
// Async-signal-safe: kills the running command's process group, for a process about to end.
void doEndRunningCommand();

} // namespace Kestrune
