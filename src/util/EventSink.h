#pragma once

#include <string>

namespace Kestrune {

// How the utilities reach the event history, which sits above them: a command killed past its
// deadline, a link refused where a namespace is mounted and the assertion a restore ends on
// are recorded through it, and the stop on signals that a guard asks for is installed through
// it. The event log installs it when it is linked, which every restore is (the driver records
// through it); a program without it records nothing and installs no stop.
struct EventSink {
    void (*record)(const std::string& group, const std::string& message) = nullptr;
    // The last event recorded, "" for none.
    const std::string& (*lastEvent)() = nullptr;
    // Writes the events not yet on disk.
    void (*storePending)() = nullptr;
    void (*stopOnSignals)(unsigned graceSeconds) = nullptr;
};

void eventSinkIs(const EventSink& sink) noexcept;
const EventSink& eventSink();

// Records through the sink; nothing when none is installed.
void recordEvent(const std::string& group, const std::string& message);

} // namespace Kestrune
