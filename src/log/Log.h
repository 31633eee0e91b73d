#pragma once

#include "log/EventLogQueue.h"
#include "log/HistoryStore.h"

#include <memory>
#include <string>

namespace Kestrune {

// The process-wide event log: queues the restore's events and stores them in the history,
// at the latest when the process exits.
class Log {
  public:
    using Ptr = std::shared_ptr<Log>;

    static constexpr const char* defaultHistoryPath = "/var/lib/kestrune/history.db";

    Log();
    ~Log();
    Log(const Log&) = delete;
    Log& operator=(const Log&) = delete;

    void handleInitialized();
    void eventIs(const std::string& messageGroup, const std::string& message);
    void doStore();

    EventLogQueue::Ptr eventLog() const { return eventLog_; }
    HistoryStore::Ptr historyStore() const { return historyStore_; }
    bool updated() const { return updated_; }
    void updatedIs(bool updated) { updated_ = updated; }
    bool initialized() const { return initialized_; }
    void initializedIs(bool initialized) { initialized_ = initialized; }

    // Records one event in the single instance, creating it on first use.
    static void logEvent(const std::string& messageGroup, const std::string& message);
    // Stores the single instance's pending events now, if there is an instance.
    static void doStorePending();
    // Where the history lives. Events recorded before the change are stored in the old
    // file first. An empty path records no history.
    static void historyPathIs(std::string path);
    static const std::string& historyPath();

  private:
    static Ptr& instance();

    EventLogQueue::Ptr eventLog_;
    HistoryStore::Ptr historyStore_;
    bool updated_ = false;
    bool initialized_ = false;
};

} // namespace Kestrune
