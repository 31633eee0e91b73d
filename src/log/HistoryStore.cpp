#include "log/HistoryStore.h"

#include "util/Trace.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <sqlite3.h>
#include <stdexcept>
#include <system_error>

namespace Kestrune {

namespace {

constexpr const char* schema = "CREATE TABLE IF NOT EXISTS event ("
                               " id INTEGER PRIMARY KEY,"
                               " time REAL NOT NULL,"
                               " persistence TEXT NOT NULL,"
                               " agent TEXT NOT NULL,"
                               " message_group TEXT NOT NULL,"
                               " message TEXT NOT NULL)";

constexpr const char* insertEvent = "INSERT INTO event (time, persistence, agent, message_group,"
                                    " message) VALUES (?1, ?2, ?3, ?4, ?5)";

constexpr const char* selectEvents =
    "SELECT time, persistence, agent, message_group, message FROM event ORDER BY id";

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
    return sqlite3_bind_double(statement, 1, event.time) == SQLITE_OK &&
           bindText(statement, 2, event.persistence) && bindText(statement, 3, event.agent) &&
           bindText(statement, 4, event.group) && bindText(statement, 5, event.message) &&
           sqlite3_step(statement) == SQLITE_DONE;
}

std::string textColumn(sqlite3_stmt* statement, int column) {
    const auto* text = sqlite3_column_text(statement, column);
    return text ? std::string(reinterpret_cast<const char*>(text),
                              static_cast<std::size_t>(sqlite3_column_bytes(statement, column)))
                : std::string();
}

} // namespace

HistoryStore::HistoryStore(EventLogQueue::Ptr eventLog, std::string path)
    : eventLog_(std::move(eventLog)), path_(std::move(path)) {}

HistoryStore::~HistoryStore() {
    sqlite3_close(db_);
}

bool HistoryStore::doRestore() {
    if (db_ || path_.empty()) {
        return db_ != nullptr;
    }
    std::error_code error;
    auto folder = std::filesystem::path(path_).parent_path();
    if (!folder.empty()) {
        std::filesystem::create_directories(folder, error);
    }
    sqlite3* db = nullptr;
    int status =
        sqlite3_open_v2(path_.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
    if (status == SQLITE_OK) {
        sqlite3_busy_timeout(db, 2000);
        status = sqlite3_exec(db, schema, nullptr, nullptr, nullptr);
    }
    if (status != SQLITE_OK) {
        TRACE(0) << "HistoryStore cannot open event history " << path_ << ": "
                 << (db ? sqlite3_errmsg(db) : sqlite3_errstr(status));
        sqlite3_close(db);
        return false;
    }
    db_ = db;
    return true;
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
    if (!doRestore()) {
        return false;
    }
    bool stored = sqlite3_exec(db_, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr) == SQLITE_OK;
    if (stored) {
        Statement statement = prepare(db_, insertEvent);
        for (const Event& event : pending) {
            if (!statement || !insert(statement.get(), event)) {
                stored = false;
                break;
            }
        }
    }
    if (stored) {
        stored = sqlite3_exec(db_, "COMMIT", nullptr, nullptr, nullptr) == SQLITE_OK;
    }
    if (!stored) {
        TRACE(0) << "HistoryStore cannot store " << pending.size() << " events in " << path_ << ": "
                 << sqlite3_errmsg(db_);
        sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
        return false;
    }
    eventLog_->pendingDelAll();
    return true;
}

std::vector<Event> HistoryStore::historyOf(const std::string& path) {
    if (!std::filesystem::exists(path)) {
        throw std::runtime_error("cannot read event history " + path + ": " +
                                 std::strerror(ENOENT));
    }
    sqlite3* raw = nullptr;
    int status = sqlite3_open_v2(path.c_str(), &raw, SQLITE_OPEN_READONLY, nullptr);
    std::unique_ptr<sqlite3, decltype(&sqlite3_close)> db(raw, &sqlite3_close);
    Statement statement =
        status == SQLITE_OK ? prepare(raw, selectEvents) : Statement(nullptr, &sqlite3_finalize);
    if (!statement) {
        throw std::runtime_error("cannot read event history " + path + ": " +
                                 (raw ? sqlite3_errmsg(raw) : sqlite3_errstr(status)));
    }
    std::vector<Event> events;
    while ((status = sqlite3_step(statement.get())) == SQLITE_ROW) {
        events.push_back(
            eventFactory(textColumn(statement.get(), 1), textColumn(statement.get(), 2),
                         textColumn(statement.get(), 3), sqlite3_column_double(statement.get(), 0),
                         textColumn(statement.get(), 4)));
    }
    if (status != SQLITE_DONE) {
        throw std::runtime_error("cannot read event history " + path + ": " + sqlite3_errmsg(raw));
    }
    return events;
}

HistoryStore::Ptr historyStoreFactory(EventLogQueue::Ptr eventLog, std::string path) {
    return std::make_shared<HistoryStore>(std::move(eventLog), std::move(path));
}

} // namespace Kestrune
