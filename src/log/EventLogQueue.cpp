#include "log/EventLogQueue.h"

namespace Kestrune {

EventLogQueue::Ptr eventLogQueueFactory() {
    return std::make_shared<EventLogQueue>();
}

} // namespace Kestrune
