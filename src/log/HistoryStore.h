#pragma once

#include "log/Event.h"
#include "log/EventLogQueue.h"

#include <memory>
#include <string>
#include <vector>

struct sqlite3;

namespace Kestrune {

// The persistent event history: an SQLite file with one row per event, written one
// transaction per batch so a power cut leaves either the whole batch or none of it.
// An empty path keeps no history: stored events are dropped.
class HistoryStore {
  public:
    using Ptr = std::shared_ptr<HistoryStore>;

    HistoryStore(EventLogQueue::Ptr eventLog, std::string path);
    ~HistoryStore();
    HistoryStore(const HistoryStore&) = delete;
    HistoryStore& operator=(const HistoryStore&) = delete;

    const std::string& path() const { return path_; }

    // Opens the history, creating its folder, file and table when this is the first run.
    // Traces a failure; the pending events then stay queued for the next doStore.
    bool doRestore();
    // Appends the queued events in one transaction and empties the queue on success.
    bool doStore();

    // Every stored event, oldest first. Throws std::runtime_error naming the file and the
    // reason when the history cannot be read.
    static std::vector<Event> historyOf(const std::string& path);

  private:
    EventLogQueue::Ptr eventLog_;
    std::string path_;
    sqlite3* db_ = nullptr;
};

HistoryStore::Ptr historyStoreFactory(EventLogQueue::Ptr eventLog, std::string path);

} // namespace Kestrune
