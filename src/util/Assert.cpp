#include "util/Assert.h"

#include "util/EventSink.h"
#include "util/RestoreGuards.h"
#include "util/Stop.h"
#include "util/Trace.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace Kestrune {

namespace {
AssertionHandler handler = nullptr;
}

bool stderrIsJournal() {
    const char* stream = std::getenv("JOURNAL_STREAM");
    struct stat status {};
    unsigned long long device = 0;
    unsigned long long inode = 0;
    return stream != nullptr && std::sscanf(stream, "%llu:%llu", &device, &inode) == 2 &&
           fstat(STDERR_FILENO, &status) == 0 && status.st_dev == device && status.st_ino == inode;
}

void assertionHandlerIs(AssertionHandler newHandler) {
    handler = newHandler;
}

AssertionHandler assertionHandler() {
    return handler;
}

void throwAssertionFailure(const char* condition, const char*, int) {
    throw AssertionFailure(condition);
}

void assertionFailed(const char* condition, const char* file, int line) {
    if (handler) {
        handler(condition, file, line);
    }
    if (const int signal = stopSignal(); signal != 0) {
        // The stop ended the command this step waited for; what failed is the stop's doing,
        // so the restore ends as stopped, with its report and stop event.
        throw StopRequested(signal);
    }
    // A line the sink holds back goes out before the process ends.
    Trace::flush();
    // Under a service manager the lines are the journal's most severe of the restore.
    const char* critical = stderrIsJournal() ? "<2>" : "";
    std::fprintf(stderr, "%sKestrune: assertion failed: %s (%s:%d)\n", critical, condition, file,
                 line);
    const EventSink& sink = eventSink();
    if (restoreGuards().extraReports && sink.lastEvent != nullptr && !sink.lastEvent().empty()) {
        std::fprintf(stderr, "%sKestrune: the restore ended after its last failure: %s\n", critical,
                     sink.lastEvent().c_str());
    }
    if (restoreGuards().extraReports && std::strstr(file, "rapidjson/")) {
        // The JSON library's own type checks fail only on a store of the wrong shape.
        std::fprintf(stderr, "Kestrune: the persistent store holds a value of the wrong JSON "
                             "type; `kestrune check` on the store shows where\n");
    }
    // Every stream's buffered lines (standard output, a simulated chip's log) survive the abort.
    std::fflush(nullptr);
    // A command the restore started must not outlive it.
    doEndRunningCommand();
    try {
        if (restoreGuards().extraReports) {
            recordEvent("Assertion", "assertion failed: " + std::string(condition) + " (" + file +
                                         ":" + std::to_string(line) + ")");
        }
        if (sink.storePending != nullptr) {
            sink.storePending();
        }
    } catch (const std::exception& e) {
        std::fprintf(stderr, "Kestrune: could not record the assertion: %s\n", e.what());
    }
    std::abort();
}

} // namespace Kestrune
