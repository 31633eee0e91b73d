#include "util/EventSink.h"

namespace Kestrune {
namespace {

EventSink& current() {
    static EventSink sink;
    return sink;
}

} // namespace

void eventSinkIs(const EventSink& sink) noexcept {
    current() = sink;
}

const EventSink& eventSink() {
    return current();
}

void recordEvent(const std::string& group, const std::string& message) {
    if (current().record != nullptr) {
        current().record(group, message);
    }
}

} // namespace Kestrune
