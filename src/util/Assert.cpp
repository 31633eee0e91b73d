#include "util/Assert.h"

#include "log/Log.h"

#include <cstdio>
#include <cstdlib>
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
    std::fflush(stderr);
    try {
        Log::logEvent("Assertion", "assertion failed: " + std::string(condition) + " (" + file +
                                       ":" + std::to_string(line) + ")");
        Log::doStorePending();
    } catch (const std::exception& e) {
        std::fprintf(stderr, "Kestrune: could not record the assertion: %s\n", e.what());
    }
    std::abort();
}

} // namespace Kestrune
