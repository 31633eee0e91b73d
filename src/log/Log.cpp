#include "log/Log.h"

#include "log/ProcessGuard.h"
#include "util/EventSink.h"
#include "util/RestoreGuards.h"
#include "util/Trace.h"

#include <chrono>
#include <ctime>
#include <new>
#include <unistd.h>

namespace Kestrune {

namespace {

// The utilities below the log record through it: installed as the program starts, as this
// file is linked into every program that records.
const bool sinkInstalled = []() noexcept {
    EventSink sink;
    sink.record = &Log::logEvent;
    sink.lastEvent = &Log::lastEvent;
    sink.storePending = &Log::doStorePending;
    sink.stopOnSignals = &ProcessGuard::doStopOnSignals;
    eventSinkIs(sink);
    return true;
}();

std::string& configuredHistoryPath() {
    static auto* path = new std::string(Log::defaultHistoryPath);
    return *path;
}

std::string& lastEventText() {
    static auto* text = new std::string();
    return *text;
}

double utcNow() {
    using namespace std::chrono;
    return duration<double>(system_clock::now().time_since_epoch()).count();
}

// A lost event is worth one trace line, not one per event.
void journalProblemIs(std::vector<std::string>& problems, const std::string& problem) {
    if (problems.empty() || problems.back() != problem) {
        TRACE_EXTRA(0) << "logEvent " << problem;
        problems.push_back(problem);
    }
}

} // namespace

Log::Log() {
    handleInitialized();
}

Log::~Log() {
    doStore();
    if (eventLog_ && eventLog_->pending().empty()) {
        journal_.doRemove();
    }
}

void Log::handleInitialized() {
    eventLog_ = eventLogQueueFactory();
    historyStore_ = historyStoreFactory(eventLog_, historyPath());
    if (!historyPath().empty() && !journal_.doOpen(historyPath(), originPrefix())) {
        journalProblemIs(journalProblems_, journal_.error());
    }
    historyStore_->doRestore();
    lastStore_ = utcNow();
    initialized_ = true;
}

void Log::eventIs(const std::string& messageGroup, const std::string& message) {
    eventIs(nextOrigin(), messageGroup, message);
}

std::string Log::nextOrigin() {
    return originPrefix() + "-" + std::to_string(++sequence_);
}

void Log::eventIs(std::string origin, const std::string& messageGroup, const std::string& message) {
    const double now = utcNow();
    Event event = eventFactory("persistent", "Kestrune", messageGroup, now, message);
    event.origin = std::move(origin);
    TRACE_EXTRA(9) << "logEvent " << messageGroup << ": " << message;
    if (journal_.isOpen() && !journal_.doAppend(event)) {
        journalProblemIs(journalProblems_, journal_.error());
    }
    eventLog_->eventIs(std::move(event));
    updated_ = true;
    if (now - lastStore_ >= groupCommitSeconds) {
        doStore();
    }
}

void Log::doStore() {
    lastStore_ = utcNow();
    if (!updated_) {
        return;
    }
    if (historyStore_->doStore()) {
        journal_.doClear();
        updated_ = false;
    }
}

Log::Ptr& Log::instance() {
    static Ptr log;
    return log;
}

Log::Capture*& Log::capture() {
    static Capture* current = nullptr;
    return current;
}

Log::Capture::Capture() : outer_(capture()) {
    capture() = this;
}

Log::Capture::~Capture() {
    capture() = outer_;
}

Log::Observer& Log::observer() {
    static Observer current;
    return current;
}

void Log::observerIs(Observer observer) {
    Log::observer() = std::move(observer);
}

Log* Log::created() {
    Ptr& log = instance();
    if (!log) {
        try {
            log = std::make_shared<Log>();
        } catch (const std::bad_alloc&) {
            log.reset();
        }
    }
    if (!log) {
        TRACE(0) << "logEvent"
                 << " could not allocate instance. Not storing events";
    }
    return log.get();
}

void Log::logEvent(const std::string& messageGroup, const std::string& message) {
    logEventAs("", messageGroup, message);
}

const std::string& Log::lastEvent() {
    return lastEventText();
}

void Log::logEventAs(const std::string& origin, const std::string& messageGroup,
                     const std::string& message) {
    lastEventText() = messageGroup + ": " + message;
    if (const Observer& told = observer()) {
        told(messageGroup, message);
    }
    if (Capture* current = capture()) {
        current->events_.push_back(
            eventFactory("persistent", "Kestrune", messageGroup, utcNow(), message));
        return;
    }
    if (Log* log = created()) {
        log->eventIs(origin.empty() ? log->nextOrigin() : origin, messageGroup, message);
    }
}

void Log::doOpenHistory() {
    created();
}

void Log::doStorePending() {
    if (Ptr& log = instance()) {
        log->doStore();
    }
}

void Log::historyPathIs(std::string path) {
    configuredHistoryPath() = std::move(path);
}

const std::string& Log::historyPath() {
    return configuredHistoryPath();
}

Log::HistoryStatus Log::historyStatus() {
    HistoryStatus status;
    status.path = historyPath();
    const Ptr& log = instance();
    if (!log) {
        return status;
    }
    status.problems = log->journalProblems_;
    const auto& storeProblems = log->historyStore_->problems();
    status.problems.insert(status.problems.end(), storeProblems.begin(), storeProblems.end());
    status.ok = status.problems.empty();
    if (log->historyStore_->locked()) {
        status.waiting = log->eventLog_->pending().size();
    }
    return status;
}

const std::string& Log::originPrefix() {
    static const std::string prefix = [] {
        timespec now{};
        clock_gettime(CLOCK_REALTIME, &now);
        return std::to_string(getpid()) + "-" + std::to_string(now.tv_sec) + "." +
               std::to_string(now.tv_nsec);
    }();
    return prefix;
}

} // namespace Kestrune
