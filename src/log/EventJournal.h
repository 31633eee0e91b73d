#pragma once

#include "log/Event.h"

#include <string>
#include <vector>

namespace Kestrune {

// The write-ahead side of the event history: each event is appended to a journal file of
// its process with one write the moment it is recorded, so it is on disk whatever ends the
// process next (a signal, an abort, SIGKILL). The SQLite history folds journals in: its own
// process's at each store, a dead process's at the next open. A journal is
// "<history>.pending-<pid>-<start time>"; its process holds an exclusive lock on it for life, so a
// journal that can be locked belongs to a process that is gone.
class EventJournal {
  public:
    EventJournal() = default;
    ~EventJournal();
    EventJournal(const EventJournal&) = delete;
    EventJournal& operator=(const EventJournal&) = delete;

    // Creates this process's journal beside the history (not following links, mode 0600);
    // processTag tells it from other processes'. False, with the reason in error(), when it
    // cannot.
    bool doOpen(const std::string& historyPath, const std::string& processTag);
    bool isOpen() const { return fd_ >= 0; }
    const std::string& path() const { return path_; }
    const std::string& error() const { return error_; }

    // Appends one event in one write. False, with the reason in error(), when the event did
    // not reach the file whole.
    bool doAppend(const Event& event);
    // Empties the journal once its events are in the history.
    void doClear();
    // Removes the journal: every event is in the history.
    void doRemove();

    // The events of a journal file, oldest first; a record cut short by a crash is left out.
    // Nothing from a journal that is not to be trusted (see journalsOf).
    static std::vector<Event> eventsOf(const std::string& journalPath);
    // The journals beside a history whose processes are gone (their locks can be taken).
    static std::vector<std::string> orphansOf(const std::string& historyPath,
                                              std::vector<std::string>* leftAlone = nullptr);
    // Every journal beside a history, its process alive or not. Only regular files of this
    // process's user with mode 0600 are journals; why each other name is left alone goes to
    // leftAlone.
    static std::vector<std::string> journalsOf(const std::string& historyPath,
                                               std::vector<std::string>* leftAlone = nullptr);

    // Async-signal-safe: appends a prepared record to the open journal of this process.
    static void appendFromSignal(const char* record, unsigned size);

  private:
    int fd_ = -1;
    std::string path_;
    std::string error_;
};

// One journal record, without its trailing newline: origin, time, persistence, agent, group
// and message separated by tabs, with backslash, tab and newline escaped.
std::string journalRecordOf(const Event& event);

} // namespace Kestrune
