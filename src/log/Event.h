#pragma once

#include <string>

namespace Kestrune {

// One entry of the switch's event history.
struct Event {
    std::string persistence; // "persistent"
    std::string agent;       // "Kestrune"
    std::string group;       // the recording component's class name
    double time = 0;         // UTC seconds since the epoch
    std::string message;
    // Unique to this event across processes ("<pid>-<start>-<sequence>"): an event folded
    // into the history twice, from its journal and from memory, is stored once.
    std::string origin;
};

Event eventFactory(std::string persistence, std::string agent, std::string group, double time,
                   std::string message);

} // namespace Kestrune
