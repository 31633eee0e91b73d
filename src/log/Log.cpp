#include "log/Log.h"

#include "util/Trace.h"

#include <chrono>
#include <new>

namespace Kestrune {

namespace {

std::string& configuredHistoryPath() {
    static auto* path = new std::string(Log::defaultHistoryPath);
    return *path;
}

double utcNow() {
    using namespace std::chrono;
    return duration<double>(system_clock::now().time_since_epoch()).count();
}

} // namespace

Log::Log() {
    handleInitialized();
}

Log::~Log() {
    doStore();
}

void Log::handleInitialized() {
    eventLog_ = eventLogQueueFactory();
    historyStore_ = historyStoreFactory(eventLog_, historyPath());
    historyStore_->doRestore();
    initialized_ = true;
}

void Log::eventIs(const std::string& messageGroup, const std::string& message) {
    eventLog_->eventIs(eventFactory("persistent", "Kestrune", messageGroup, utcNow(), message));
    updated_ = true;
}

void Log::doStore() {
    if (!updated_) {
        return;
    }
    historyStore_->doStore();
    updated_ = false;
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

void Log::logEvent(const std::string& messageGroup, const std::string& message) {
    if (const Observer& told = observer()) {
        told(messageGroup, message);
    }
    if (Capture* current = capture()) {
        current->events_.push_back(
            eventFactory("persistent", "Kestrune", messageGroup, utcNow(), message));
        return;
    }
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
        return;
    }
    log->eventIs(messageGroup, message);
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

} // namespace Kestrune
