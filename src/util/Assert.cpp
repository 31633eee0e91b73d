#include "util/Assert.h"

#include "log/Log.h"
#include "util/RestoreGuards.h"
#include "util/Stop.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>

namespace Kestrune {

namespace {
AssertionHandler handler = nullptr;
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
    std::fprintf(stderr, "Kestrune: assertion failed: %s (%s:%d)\n", condition, file, line);
    if (std::strstr(file, "rapidjson/")) {
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
            Log::logEvent("Assertion", "assertion failed: " + std::string(condition) + " (" + file +
                                           ":" + std::to_string(line) + ")");
        }
        Log::doStorePending();
    } catch (const std::exception& e) {
        std::fprintf(stderr, "Kestrune: could not record the assertion: %s\n", e.what());
    }
    std::abort();
}

} // namespace Kestrune
