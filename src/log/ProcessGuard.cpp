#include "log/ProcessGuard.h"

#include "log/EventJournal.h"
#include "log/Log.h"
#include "util/Stop.h"
#include "util/Trace.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <unistd.h>

namespace Kestrune {

namespace {

constexpr const char* group = "ProcessGuard";

unsigned grace = 0;

std::string stopText(int signal) {
    return "stopped by " + signalName(signal) + " before the restore finished";
}

Event stopEvent(int signal, double time) {
    Event event = eventFactory("persistent", "Kestrune", group, time, stopText(signal));
    event.origin = Log::originPrefix() + "-stop";
    return event;
}

// The journal records of the stop events, made before any signal can come: the handler may
// not allocate. The time is written in by the handler.
struct StopRecord {
    std::string before; // origin and a tab
    std::string after;  // a tab, the other fields and the newline
};
std::array<StopRecord, 2> stopRecords; // SIGTERM, SIGINT

StopRecord stopRecordOf(int signal) {
    const std::string record = journalRecordOf(stopEvent(signal, 0));
    const std::size_t tab = record.find('\t');
    const std::size_t secondTab = record.find('\t', tab + 1);
    return {record.substr(0, tab + 1), record.substr(secondTab) + "\n"};
}

// Async-signal-safe: "<seconds>.<microseconds>" of now into out; its length.
unsigned timeText(char* out) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    char digits[24];
    unsigned count = 0;
    for (auto seconds = static_cast<unsigned long long>(now.tv_sec); seconds > 0 || count == 0;
         seconds /= 10) {
        digits[count++] = static_cast<char>('0' + seconds % 10);
    }
    unsigned length = 0;
    while (count > 0) {
        out[length++] = digits[--count];
    }
    out[length++] = '.';
    for (long micros = now.tv_nsec / 1000, unit = 100000; unit > 0; unit /= 10) {
        out[length++] = static_cast<char>('0' + (micros / unit) % 10);
    }
    return length;
}

void append(char* buffer, unsigned& length, const std::string& text, unsigned capacity) {
    for (const char c : text) {
        if (length < capacity) {
            buffer[length++] = c;
        }
    }
}

extern "C" void onStopSignal(int signal) {
    const int savedErrno = errno;
    if (stopSignal() != 0) {
        // Asked twice: stop now. Every event is already in the journal.
        _exit(128 + signal);
    }
    stopRequestedBy(signal);
    const StopRecord& record = stopRecords[signal == SIGINT ? 1 : 0];
    char buffer[512];
    unsigned length = 0;
    append(buffer, length, record.before, sizeof buffer);
    length += timeText(buffer + length);
    append(buffer, length, record.after, sizeof buffer);
    EventJournal::appendFromSignal(buffer, length);
    if (grace > 0) {
        alarm(grace);
    }
    errno = savedErrno;
}

[[noreturn]] void onTerminate() {
    std::string text = "uncaught exception";
    if (const std::exception_ptr current = std::current_exception()) {
        try {
            std::rethrow_exception(current);
        } catch (const std::exception& e) {
            text += std::string(": ") + e.what();
        } catch (...) {
            text += " of a type that is not std::exception";
        }
    }
    std::fprintf(stderr, "Kestrune: %s\n", text.c_str());
    std::fflush(nullptr);
    doEndRunningCommand();
    try {
        TRACE(0) << text;
        Log::logEvent(group, text);
        Log::doStorePending();
    } catch (...) {
        std::fprintf(stderr, "Kestrune: could not record the uncaught exception\n");
    }
    std::abort();
}

} // namespace

void ProcessGuard::doRecordUncaughtExceptions() {
    std::set_terminate(onTerminate);
}

void ProcessGuard::doStopOnSignals(unsigned graceSeconds) {
    grace = graceSeconds;
    // The journal must be open before a signal can come: the handler writes to it.
    Log::doOpenHistory();
    stopRecords = {stopRecordOf(SIGTERM), stopRecordOf(SIGINT)};
    struct sigaction action {};
    action.sa_handler = onStopSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);
}

void ProcessGuard::doRecordStop(int signal) {
    TRACE(0) << stopText(signal);
    Log::logEventAs(stopEvent(signal, 0).origin, group, stopText(signal));
}

} // namespace Kestrune
