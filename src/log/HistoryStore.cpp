#include "log/HistoryStore.h"

#include "log/EventJournal.h"
#include "util/OwnedFile.h"
#include "util/RestoreGuards.h"
#include "util/Trace.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <set>
#include <sqlite3.h>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

namespace Kestrune {

namespace {

constexpr const char* schema = "CREATE TABLE IF NOT EXISTS event ("
                               " id INTEGER PRIMARY KEY,"
                               " time REAL NOT NULL,"
                               " persistence TEXT NOT NULL,"
                               " agent TEXT NOT NULL,"
                               " message_group TEXT NOT NULL,"
                               " message TEXT NOT NULL,"
                               " origin TEXT)";

// Histories written before events carried their origin get the column on first open.
constexpr const char* originIndex =
    "CREATE UNIQUE INDEX IF NOT EXISTS event_origin ON event(origin)";

constexpr const char* insertEvent =
    "INSERT OR IGNORE INTO event (time, persistence, agent, message_group, message, origin)"
    " VALUES (?1, ?2, ?3, ?4, ?5, ?6)";

constexpr const char* selectEvents =
    "SELECT time, persistence, agent, message_group, message, origin FROM event ORDER BY id";

// A history is a file anyone may hand to `events`: its "event" must be a table, not a view
// that never ends or a query that sorts gigabytes into temporary files.
constexpr const char* eventIsTable =
    "SELECT 1 FROM sqlite_master WHERE type = 'table' AND name = 'event'";

// How long one transaction of the restore, or one read of `events`, may take before it is cut
// off; a trigger that never ends must not hold the restore's events.
constexpr double storeSeconds = 5;
constexpr double readSeconds = 30;

constexpr mode_t folderMode = 0755;

using Statement = std::unique_ptr<sqlite3_stmt, decltype(&sqlite3_finalize)>;

Statement prepare(sqlite3* db, const char* sql) {
    sqlite3_stmt* statement = nullptr;
    sqlite3_prepare_v2(db, sql, -1, &statement, nullptr);
    return Statement(statement, &sqlite3_finalize);
}

bool bindText(sqlite3_stmt* statement, int index, const std::string& text) {
    return sqlite3_bind_text(statement, index, text.data(), static_cast<int>(text.size()),
                             SQLITE_STATIC) == SQLITE_OK;
}

bool insert(sqlite3_stmt* statement, const Event& event) {
    sqlite3_reset(statement);
    const bool bound = sqlite3_bind_double(statement, 1, event.time) == SQLITE_OK &&
                       bindText(statement, 2, event.persistence) &&
                       bindText(statement, 3, event.agent) && bindText(statement, 4, event.group) &&
                       bindText(statement, 5, event.message) &&
                       (event.origin.empty() ? sqlite3_bind_null(statement, 6) == SQLITE_OK
                                             : bindText(statement, 6, event.origin));
    return bound && sqlite3_step(statement) == SQLITE_DONE;
}

std::string textColumn(sqlite3_stmt* statement, int column) {
    const auto* text = sqlite3_column_text(statement, column);
    return text ? std::string(reinterpret_cast<const char*>(text),
                              static_cast<std::size_t>(sqlite3_column_bytes(statement, column)))
                : std::string();
}

bool hasOriginColumn(sqlite3* db) {
    Statement columns = prepare(db, "PRAGMA table_info(event)");
    while (columns && sqlite3_step(columns.get()) == SQLITE_ROW) {
        if (textColumn(columns.get(), 1) == "origin") {
            return true;
        }
    }
    return false;
}

double monotonicSeconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

// SQLite's progress handler: a non-zero answer interrupts the statement running.
int pastDeadline(void* deadline) {
    return monotonicSeconds() > *static_cast<double*>(deadline) ? 1 : 0;
}

// The history and its -wal and -shm files must be regular files of this process's user that
// nobody else can open: SQLite would wait forever on a FIFO, and a shared lock another user
// holds on -shm would keep every event in the journal. A file left readable by all (as older
// versions made it) is made private. "" or what is wrong.
std::string historyFileProblem(const std::string& path) {
    struct stat status {};
    std::string problem;
    const int fd = openOwned(path, O_RDONLY, problem, status);
    if (fd < 0) {
        return errno == ENOENT ? "" : path + ": " + problem;
    }
    if ((status.st_mode & 077) != 0 && fchmod(fd, status.st_mode & 0700) != 0) {
        problem = path + ": it cannot be made private: " + std::strerror(errno);
    }
    ::close(fd);
    return problem;
}

// Makes each missing folder of the path with an explicit mode. The history's own folder must
// be a real folder: a link planted there would put root's files wherever it points. "" or
// the reason it cannot.
std::string folderMade(const std::string& path) {
    std::string folder;
    for (std::size_t slash = path.find('/', 1); slash != std::string::npos;
         slash = path.find('/', slash + 1)) {
        folder = path.substr(0, slash);
        const mode_t mask = umask(0);
        const int made = mkdir(folder.c_str(), folderMode);
        umask(mask);
        if (made != 0 && errno != EEXIST) {
            return "cannot make " + folder + ": " + std::strerror(errno);
        }
    }
    struct stat status {};
    if (!folder.empty() && (lstat(folder.c_str(), &status) != 0 || !S_ISDIR(status.st_mode))) {
        return folder + " is not a folder (a link is not followed)";
    }
    return "";
}

} // namespace

HistoryStore::HistoryStore(EventLogQueue::Ptr eventLog, std::string path)
    : eventLog_(std::move(eventLog)), path_(std::move(path)) {}

HistoryStore::~HistoryStore() {
    sqlite3_close(db_);
}

void HistoryStore::problemIs(std::string problem) {
    TRACE_EXTRA(0) << "HistoryStore " << problem;
    problems_.push_back(std::move(problem));
}

bool HistoryStore::doOpen() {
    if (const std::string folderProblem = folderMade(path_); !folderProblem.empty()) {
        problemIs("cannot open event history " + path_ + ": " + folderProblem);
        return false;
    }
    for (const char* suffix : {"", "-wal", "-shm"}) {
        if (const std::string problem = historyFileProblem(path_ + suffix); !problem.empty()) {
            problemIs("will not open event history " + path_ + ": " + problem);
            return false;
        }
    }
    sqlite3* db = nullptr;
    const mode_t mask = umask(S_IRWXG | S_IRWXO);
    int status =
        sqlite3_open_v2(path_.c_str(), &db,
                        SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOFOLLOW, nullptr);
    if (status == SQLITE_OK) {
        // Another writer is never waited for: the events wait in the journal instead.
        sqlite3_busy_timeout(db, 0);
        status = sqlite3_exec(db, "PRAGMA journal_mode=WAL; PRAGMA synchronous=FULL", nullptr,
                              nullptr, nullptr);
    }
    if (status == SQLITE_OK) {
        status = sqlite3_exec(db, schema, nullptr, nullptr, nullptr);
    }
    if (status == SQLITE_OK && !hasOriginColumn(db)) {
        status =
            sqlite3_exec(db, "ALTER TABLE event ADD COLUMN origin TEXT", nullptr, nullptr, nullptr);
    }
    if (status == SQLITE_OK) {
        status = sqlite3_exec(db, originIndex, nullptr, nullptr, nullptr);
    }
    umask(mask);
    if (status == SQLITE_BUSY || status == SQLITE_LOCKED) {
        // Another writer has it (a second run sharing the history): as at a commit, the
        // events wait in the journal and the next store tries again.
        sqlite3_close(db);
        locked_ = true;
        TRACE_EXTRA(0) << "HistoryStore " << path_ << " is locked by another writer at open; "
                       << eventLog_->pending().size() << " events wait in the journal";
        return false;
    }
    if (status == SQLITE_NOTADB || status == SQLITE_CORRUPT) {
        sqlite3_close(db);
        // Kept for whoever wants to read what is left of it; the restore needs a history now.
        const std::string aside = path_ + ".corrupt-" + std::to_string(std::time(nullptr));
        if (std::rename(path_.c_str(), aside.c_str()) != 0) {
            problemIs("event history " + path_ +
                      " is not a history and cannot be moved aside: " + std::strerror(errno));
            return false;
        }
        problemIs("event history " + path_ + " was not a history; moved aside to " + aside);
        return doOpen();
    }
    if (status != SQLITE_OK) {
        problemIs("cannot open event history " + path_ + ": " +
                  (db ? sqlite3_errmsg(db) : sqlite3_errstr(status)));
        sqlite3_close(db);
        return false;
    }
    db_ = db;
    locked_ = false;
    return true;
}

bool HistoryStore::doRestore() {
    if (db_ || path_.empty()) {
        return db_ != nullptr;
    }
    if (!doOpen()) {
        return false;
    }
    doFoldOrphans();
    return true;
}

void HistoryStore::doFoldOrphans() {
    std::vector<std::string> leftAlone;
    const std::vector<std::string> orphans = EventJournal::orphansOf(path_, &leftAlone);
    for (std::string& problem : leftAlone) {
        problemIs(std::move(problem));
    }
    for (const std::string& journal : orphans) {
        if (doInsert(EventJournal::eventsOf(journal))) {
            ::unlink(journal.c_str());
        }
    }
}

bool HistoryStore::doInsert(const std::vector<Event>& events) {
    if (events.empty()) {
        return true;
    }
    if (cutOff_) {
        return false;
    }
    const int begun = sqlite3_exec(db_, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr);
    locked_ = begun == SQLITE_BUSY || begun == SQLITE_LOCKED;
    if (locked_) {
        TRACE_EXTRA(0) << "HistoryStore " << path_ << " is locked by another writer; "
                       << events.size() << " events wait in the journal";
        return false;
    }
    bool stored = begun == SQLITE_OK;
    double deadline = monotonicSeconds() + storeSeconds;
    sqlite3_progress_handler(db_, 1000, pastDeadline, &deadline);
    if (stored) {
        Statement statement = prepare(db_, insertEvent);
        for (const Event& event : events) {
            if (!statement || !insert(statement.get(), event)) {
                stored = false;
                break;
            }
        }
    }
    if (stored) {
        stored = sqlite3_exec(db_, "COMMIT", nullptr, nullptr, nullptr) == SQLITE_OK;
    }
    cutOff_ = !stored && sqlite3_errcode(db_) == SQLITE_INTERRUPT;
    sqlite3_progress_handler(db_, 0, nullptr, nullptr);
    if (!stored) {
        problemIs("cannot store " + std::to_string(events.size()) + " events in " + path_ + ": " +
                  (cutOff_ ? "cut off after " + std::to_string(static_cast<int>(storeSeconds)) +
                                 " s; they wait in the journal"
                           : std::string(sqlite3_errmsg(db_))));
        sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
    }
    return stored;
}

bool HistoryStore::doStore() {
    const auto& pending = eventLog_->pending();
    if (pending.empty()) {
        return true;
    }
    if (path_.empty()) {
        eventLog_->pendingDelAll();
        return true;
    }
    if (!doRestore() || !doInsert(pending)) {
        return false;
    }
    eventLog_->pendingDelAll();
    return true;
}

std::vector<Event> HistoryStore::historyOf(const std::string& path,
                                           std::vector<std::string>* leftAlone) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) {
        throw std::runtime_error("cannot read event history " + path + ": " + std::strerror(errno));
    }
    if (!S_ISREG(status.st_mode)) {
        throw std::runtime_error("cannot read event history " + path + ": not a regular file");
    }
    sqlite3* raw = nullptr;
    int opened = sqlite3_open_v2(path.c_str(), &raw, SQLITE_OPEN_READONLY, nullptr);
    std::unique_ptr<sqlite3, decltype(&sqlite3_close)> db(raw, &sqlite3_close);
    double deadline = monotonicSeconds() + readSeconds;
    if (opened == SQLITE_OK) {
        sqlite3_progress_handler(raw, 1000, pastDeadline, &deadline);
        Statement table = prepare(raw, eventIsTable);
        if (table && sqlite3_step(table.get()) == SQLITE_DONE) {
            throw std::runtime_error("cannot read event history " + path +
                                     ": it has no table named event");
        }
    }
    Statement statement =
        opened == SQLITE_OK ? prepare(raw, selectEvents) : Statement(nullptr, &sqlite3_finalize);
    if (!statement) {
        throw std::runtime_error("cannot read event history " + path + ": " +
                                 (raw ? sqlite3_errmsg(raw) : sqlite3_errstr(opened)));
    }
    std::vector<Event> events;
    std::set<std::string> origins;
    while ((opened = sqlite3_step(statement.get())) == SQLITE_ROW) {
        events.push_back(
            eventFactory(textColumn(statement.get(), 1), textColumn(statement.get(), 2),
                         textColumn(statement.get(), 3), sqlite3_column_double(statement.get(), 0),
                         textColumn(statement.get(), 4)));
        events.back().origin = textColumn(statement.get(), 5);
        origins.insert(events.back().origin);
    }
    if (opened == SQLITE_INTERRUPT) {
        throw std::runtime_error("cannot read event history " + path + ": cut off after " +
                                 std::to_string(static_cast<int>(readSeconds)) + " s");
    }
    if (opened != SQLITE_DONE) {
        throw std::runtime_error("cannot read event history " + path + ": " + sqlite3_errmsg(raw));
    }
    // Events a process recorded but had not stored yet, or could not: it is still running,
    // was killed, or found the history locked.
    for (const std::string& journal : EventJournal::journalsOf(path, leftAlone)) {
        for (Event& event : EventJournal::eventsOf(journal)) {
            if (origins.insert(event.origin).second) {
                events.push_back(std::move(event));
            }
        }
    }
    return events;
}

HistoryStore::Ptr historyStoreFactory(EventLogQueue::Ptr eventLog, std::string path) {
    return std::make_shared<HistoryStore>(std::move(eventLog), std::move(path));
}

} // namespace Kestrune
