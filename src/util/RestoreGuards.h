#pragma once

#include "util/Trace.h"

namespace Kestrune {

// What the restore may do beyond its fixed sequence, for safety or speed. A start-up process
// that sets nothing gets the sequence exactly: the same traces, events, command lines, return
// values and assertions, in the same order. Each guard below came from a fault seen on a real
// box; a caller turns on those it wants (the `kestrune` command line turns on all of them).
//
// Some safety is always on because no outcome can tell it apart: the soft descriptor limit is
// raised silently to what the namespaces and devices need when the hard limit allows it, the
// module option file is written without following a link, a descriptor the restore opens is
// not inherited by the commands it runs, and names copied into kernel structures are bounded
// and NUL-terminated.
struct RestoreGuards {
    // Every command (modprobe, fab, schan, tc, the filter-rule tools) is killed with its
    // process group once it has run this long; the kill is traced and recorded (`Command`).
    // Negative: a command runs as long as it takes, and its own exit status counts.
    int commandDeadlineMs = -1;
    // SIGTERM and SIGINT stop the restore at its next stop point, this many seconds at most
    // (ProcessGuard::doStopOnSignals); 0 leaves the caller's signal handling alone.
    unsigned stopGraceSeconds = 0;
    // Raises the hard descriptor limit too, traces the raise, and ends the restore early with
    // a recorded message saying how many descriptors it needs when it cannot have them.
    bool descriptorLimit = false;
    // An interface whose kernel name could not be a device name (over 15 bytes, a blank, a
    // "/", ":" or "%") fails before the name reaches a device, a chip command or a command line.
    bool kernelNames = false;
    // The chip's nodes (/dev/fabric, the bde device) are opened without following a link.
    bool chipNodesNoFollow = false;
    // The store must be a regular file of at most 64 MiB nested at most 64 deep; anything else
    // is refused without blocking (a FIFO) and said in the trace and the events, as is where a
    // store that is not JSON goes wrong, before the assertion that a corrupt store ends on.
    bool storeBounds = false;
    // A VLAN id outside 1 to 4094 (an SVI's number, a subinterface's encapsulation) fails its
    // device, and a prefix length past the family's (32, 128) fails its address, instead of
    // being cut to the kernel field's width: 65537 would make VLAN 1, /256 a /0. A prefix
    // length that is no number ("/abc") fails its address too, where the sequence lets the
    // conversion's error out of ipAddrAdd and ends the process; and a store integer from 2^31
    // to 2^32-1 is read as the unsigned value it is, where the sequence's integer read ends the
    // process on it, so that the range checks above can say what is wrong with it.
    bool valueRanges = false;
    // `exec` (the "schan" register commands) starts its command without a shell: the line is
    // split on blanks and the program found on PATH. The sequence starts it through /bin/sh.
    bool noShell = false;
    // Control bytes in a trace line's message are written escaped (\n, \x1b), so that a name
    // from the store cannot forge a trace line or drive a terminal; the sequence writes the
    // message as it is.
    bool traceEscaping = false;
    // Trace lines and events that the sequence does not have: a command that cannot start or
    // that a signal ended, a namespace that cannot be entered, each VRF device made, the
    // events recorded (level 9), a history that cannot be written, a link refused where a
    // namespace is mounted, an `Assertion` event for the assertion a restore ends on, and
    // after a JSON type assertion a line that says the store holds a value of the wrong type.
    bool extraReports = false;

    // All of the above, with the command line's deadline and stop grace.
    static RestoreGuards all();
};

// Takes effect at once for the whole process; the stop on signals is installed here.
void restoreGuardsIs(const RestoreGuards& guards);
const RestoreGuards& restoreGuards();

} // namespace Kestrune

// A trace line the restore's sequence does not have: written only when the caller turned on
// RestoreGuards::extraReports (and the level).
#define TRACE_EXTRA(level)                                                                         \
    if (!::Kestrune::restoreGuards().extraReports || !::Kestrune::Trace::enabled(level)) {         \
    } else                                                                                         \
        ::Kestrune::TraceLine(level)
