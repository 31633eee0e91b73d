#pragma once

#include "log/EventJournal.h"
#include "log/EventLogQueue.h"
#include "log/HistoryStore.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace Kestrune {

// The process-wide event log: queues the restore's events and stores them in the history.
// Each event is in the process's journal the moment it is recorded (one write, so no end of
// the process loses it), and in the history at the next group commit: when an event comes
// more than groupCommitSeconds after the last store, when a caller stores (the restore does
// after each phase), and when the process exits or ends on an assertion.
class Log {
  public:
    using Ptr = std::shared_ptr<Log>;

    static constexpr const char* defaultHistoryPath = "/var/lib/kestrune/history.db";
    static constexpr double groupCommitSeconds = 0.1;

    // What became of this process's events. ok is false when an event may not have reached
    // the disk, or the history had to be replaced; waiting counts the events that wait in
    // the journal for a history locked by another writer.
    struct HistoryStatus {
        std::string path;
        bool ok = true;
        std::vector<std::string> problems;
        std::size_t waiting = 0;
    };

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
    // The same, with the origin given ("" for a new one): an event that may be in the
    // journal already.
    static void logEventAs(const std::string& origin, const std::string& messageGroup,
                           const std::string& message);
    // "<group>: <message>" of the last event this process recorded, "" before any.
    static const std::string& lastEvent();
    // Creates the single instance now, with its journal, rather than at the first event.
    static void doOpenHistory();
    // Stores the single instance's pending events now, if there is an instance.
    static void doStorePending();
    // Where the history lives. Events recorded before the change are stored in the old
    // file first. An empty path records no history.
    static void historyPathIs(std::string path);
    static const std::string& historyPath();
    static HistoryStatus historyStatus();
    // "<pid>-<start>": what every event of this process's origin begins with.
    static const std::string& originPrefix();

    // Told of every event as it is recorded, besides the history: for a caller that reports
    // on the restore it drives. An empty observer stops it.
    using Observer =
        std::function<void(const std::string& messageGroup, const std::string& message)>;
    static void observerIs(Observer observer);

    // While one exists, events are collected by it instead of reaching the history: for
    // work that only looks at what a restore would record, such as checking a store.
    class Capture {
      public:
        Capture();
        ~Capture();
        Capture(const Capture&) = delete;
        Capture& operator=(const Capture&) = delete;
        const std::vector<Event>& events() const { return events_; }

      private:
        friend class Log;
        std::vector<Event> events_;
        Capture* outer_;
    };

  private:
    static Ptr& instance();
    static Log* created();
    void eventIs(std::string origin, const std::string& messageGroup, const std::string& message);
    std::string nextOrigin();
    static Capture*& capture();
    static Observer& observer();

    EventLogQueue::Ptr eventLog_;
    HistoryStore::Ptr historyStore_;
    bool updated_ = false;
    bool initialized_ = false;
    EventJournal journal_;
    std::vector<std::string> journalProblems_;
    std::uint64_t sequence_ = 0;
    double lastStore_ = 0;
};

} // namespace Kestrune
