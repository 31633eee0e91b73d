#include "util/RestoreGuards.h"

#include "util/EventSink.h"

namespace Kestrune {
namespace {

RestoreGuards& current() {
    static RestoreGuards guards;
    return guards;
}

} // namespace

RestoreGuards RestoreGuards::all() {
    RestoreGuards guards;
    guards.commandDeadlineMs = 30000;
    // Long enough for the restore to reach its next stop point and store its events.
    guards.stopGraceSeconds = 5;
    guards.descriptorLimit = true;
    guards.kernelNames = true;
    guards.chipNodesNoFollow = true;
    guards.storeBounds = true;
    guards.valueRanges = true;
    guards.extraReports = true;
    guards.noShell = true;
    guards.traceEscaping = true;
    return guards;
}

void restoreGuardsIs(const RestoreGuards& guards) {
    current() = guards;
    if (guards.stopGraceSeconds > 0 && eventSink().stopOnSignals != nullptr) {
        eventSink().stopOnSignals(guards.stopGraceSeconds);
    }
}

const RestoreGuards& restoreGuards() {
    return current();
}

} // namespace Kestrune
