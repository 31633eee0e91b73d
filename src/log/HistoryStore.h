#pragma once

#include "log/Event.h"
#include "log/EventLogQueue.h"

#include <memory>
#include <string>
#include <vector>

struct sqlite3;

namespace Kestrune {

// The persistent event history: an SQLite file (write-ahead log, so readers never block the
// restore) with one row per event, written one transaction per batch so a power cut leaves
// either the whole batch or none of it. The events of a process that died before storing
// them wait in its journal (EventJournal) and are folded in when the history is next opened.
// An empty path keeps no history: stored events are dropped.
class HistoryStore {
  public:
    using Ptr = std::shared_ptr<HistoryStore>;

    HistoryStore(EventLogQueue::Ptr eventLog, std::string path);
    ~HistoryStore();
    HistoryStore(const HistoryStore&) = delete;
    HistoryStore& operator=(const HistoryStore&) = delete;

    const std::string& path() const { return path_; }

    // Opens the history, creating its folder (0755), file (0600) and table when this is the
    // first run, without following links; a file that is not a history is moved aside and a
    // new one started. Folds in the journals of processes that are gone. Traces a failure;
    // the pending events then stay queued for the next doStore.
    bool doRestore();
    // Appends the queued events in one transaction and empties the queue on success. A
    // history locked by another writer is not waited for: the events stay queued.
    bool doStore();

    // What went wrong with the history, in the order it happened ("" when nothing did).
    const std::vector<std::string>& problems() const { return problems_; }
    // True when the last doStore found the history locked by another writer.
    bool locked() const { return locked_; }

    // Every stored event, oldest first, with the events still waiting in journals (why a
    // journal was left alone goes to leftAlone). Reads only a table named "event", for at
    // most 30 s. Throws std::runtime_error naming the file and the reason when the history
    // cannot be read.
    static std::vector<Event> historyOf(const std::string& path,
                                        std::vector<std::string>* leftAlone = nullptr);

  private:
    bool doOpen();
    void doFoldOrphans();
    bool doInsert(const std::vector<Event>& events);
    void problemIs(std::string problem);

    EventLogQueue::Ptr eventLog_;
    std::string path_;
    sqlite3* db_ = nullptr;
    std::vector<std::string> problems_;
    bool locked_ = false;
    // A commit was cut off: whatever holds the history up would hold every later one too, so
    // this process's events stay in its journal for the next process to fold in.
    bool cutOff_ = false;
};

HistoryStore::Ptr historyStoreFactory(EventLogQueue::Ptr eventLog, std::string path);

} // namespace Kestrune
