#include "util/Stop.h"

#include <csignal>
#include <cstring>

namespace Kestrune {

namespace {

volatile std::sig_atomic_t requestedBy = 0;
volatile std::sig_atomic_t runningGroup = 0;

} // namespace

StopRequested::StopRequested(int signal)
    : std::runtime_error("stopped by " + signalName(signal)), signal_(signal) {}

void stopRequestedBy(int signal) {
    requestedBy = signal;
    doEndRunningCommand();
}

void doEndRunningCommand() {
    if (const int group = runningGroup; group > 0) {
        kill(-group, SIGKILL);
    }
}

int stopSignal() {
    return requestedBy;
}

void stopPoint() {
    if (const int signal = requestedBy; signal != 0) {
        throw StopRequested(signal);
    }
}

std::string signalName(int signal) {
    switch (signal) {
    case SIGTERM:
        return "SIGTERM";
    case SIGINT:
        return "SIGINT";
    default:
        return "signal " + std::to_string(signal);
    }
}

void runningCommandIs(int processGroup) {
    runningGroup = processGroup;
}

} // namespace Kestrune
