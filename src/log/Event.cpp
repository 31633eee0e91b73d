#include "log/Event.h"

namespace Kestrune {

Event eventFactory(std::string persistence, std::string agent, std::string group, double time,
                   std::string message) {
    return Event{
        std::move(persistence), std::move(agent), std::move(group), time, std::move(message), {}};
}

} // namespace Kestrune
