#pragma once

namespace Kestrune {

// What a process that drives a restore installs so that the restore's story survives
// whatever ends it. Each is process-wide and meant for the program's main, not for a
// library that shares its process with others.
class ProcessGuard {
  public:
    // An exception that nothing catches is traced, recorded as an event with its text and
    // stored before the process aborts.
    static void doRecordUncaughtExceptions();
    // SIGTERM and SIGINT stop the restore cleanly: the running command's process group is
    // killed, a final event saying so is in the journal at once, and the restore stops at
    // its next stop point (util/Stop.h), where the caller stores the events and reports.
    // A restore that reaches no stop point within graceSeconds is ended by SIGALRM; its
    // events are already on disk.
    static void doStopOnSignals(unsigned graceSeconds);
    // The final event of a restore that a signal stopped; the same event the handler wrote
    // to the journal, so the history keeps it once.
    static void doRecordStop(int signal);
};

} // namespace Kestrune
