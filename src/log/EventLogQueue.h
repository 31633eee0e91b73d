#pragma once

#include "log/Event.h"

#include <memory>
#include <vector>

namespace Kestrune {

// Events recorded since the history was last stored, in the order they happened.
class EventLogQueue {
  public:
    using Ptr = std::shared_ptr<EventLogQueue>;

    void eventIs(Event event) { pending_.push_back(std::move(event)); }
    const std::vector<Event>& pending() const { return pending_; }
    void pendingDelAll() { pending_.clear(); }

  private:
    std::vector<Event> pending_;
};

EventLogQueue::Ptr eventLogQueueFactory();

} // namespace Kestrune
