#include "collector/collector_store.h"

#include <sqlite3.h>

#include <utility>

namespace telvo::tool {
namespace {

constexpr const char* kSchema = R"sql(
CREATE TABLE IF NOT EXISTS sessions (
  id TEXT PRIMARY KEY,
  received_ms INTEGER NOT NULL,
  service_ms INTEGER NOT NULL,
  throttled INTEGER NOT NULL,
  property TEXT, application TEXT, application_version TEXT, platform TEXT,
  device_type TEXT, device_version TEXT, client_device_id TEXT, device_model TEXT,
  uuid_token TEXT, cookie TEXT,
  hello_json TEXT NOT NULL
);
CREATE TABLE IF NOT EXISTS events (
  id INTEGER PRIMARY KEY AUTOINCREMENT,
  session_id TEXT NOT NULL,
  type TEXT NOT NULL,
  data_json TEXT NOT NULL,
  event_ms INTEGER,
  received_ms INTEGER NOT NULL
);
CREATE INDEX IF NOT EXISTS events_by_received ON events (received_ms);
CREATE TABLE IF NOT EXISTS errors (
  id INTEGER PRIMARY KEY AUTOINCREMENT,
  session_id TEXT NOT NULL,
  application TEXT,
  error_code_json TEXT NOT NULL,
  error_ms INTEGER,
  data_json TEXT NOT NULL,
  received_ms INTEGER NOT NULL
);
CREATE TABLE IF NOT EXISTS problems (
  id INTEGER PRIMARY KEY AUTOINCREMENT,
  received_ms INTEGER NOT NULL,
  method TEXT NOT NULL,
  path TEXT NOT NULL,
  description TEXT NOT NULL
);
)sql";

// Owns a statement prepared for one listing call.
class Statement {
 public:
  Statement(sqlite3* db, const char* sql) { sqlite3_prepare_v2(db, sql, -1, &stmt_, nullptr); }
  ~Statement() { sqlite3_finalize(stmt_); }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;
  sqlite3_stmt* get() const { return stmt_; }

 private:
  sqlite3_stmt* stmt_ = nullptr;
};

void bindText(sqlite3_stmt* stmt, int index, const std::string& value) {
  sqlite3_bind_text(stmt, index, value.data(), static_cast<int>(value.size()), SQLITE_TRANSIENT);
}

void bindText(sqlite3_stmt* stmt, int index, const std::optional<std::string>& value) {
  if (value) {
    bindText(stmt, index, *value);
  } else {
    sqlite3_bind_null(stmt, index);
  }
}

void bindInt(sqlite3_stmt* stmt, int index, const std::optional<std::int64_t>& value) {
  if (value) {
    sqlite3_bind_int64(stmt, index, *value);
  } else {
    sqlite3_bind_null(stmt, index);
  }
}

std::string columnText(sqlite3_stmt* stmt, int index) {
  const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(stmt, index));
  return text ? std::string(text, static_cast<std::size_t>(sqlite3_column_bytes(stmt, index)))
              : std::string();
}

std::optional<std::string> columnOptionalText(sqlite3_stmt* stmt, int index) {
  if (sqlite3_column_type(stmt, index) == SQLITE_NULL) return std::nullopt;
  return columnText(stmt, index);
}

std::optional<std::int64_t> columnOptionalInt(sqlite3_stmt* stmt, int index) {
  if (sqlite3_column_type(stmt, index) == SQLITE_NULL) return std::nullopt;
  return sqlite3_column_int64(stmt, index);
}

// Binds the common "since" parameter (1) of the listing queries; a missing
// bound selects everything.
void bindSince(sqlite3_stmt* stmt, const StoreFilter& filter) {
  sqlite3_bind_int64(stmt, 1, filter.sinceMs.value_or(INT64_MIN));
}

// Runs `stmt` (already bound) to completion, and resets it so that it can be
// used again; true when every step succeeded.
bool runToCompletion(sqlite3* db, sqlite3_stmt* stmt, std::string* error) {
  int rc = sqlite3_step(stmt);
  bool ok = rc == SQLITE_DONE;
  if (!ok && error) *error = sqlite3_errmsg(db);
  sqlite3_reset(stmt);
  sqlite3_clear_bindings(stmt);
  return ok;
}

}  // namespace

CollectorStore::CollectorStore(sqlite3* db) : db_(db) {}

CollectorStore::~CollectorStore() {
  for (sqlite3_stmt* stmt :
       {insertSession_, insertEvent_, insertError_, insertProblem_, findSession_}) {
    sqlite3_finalize(stmt);
  }
  sqlite3_close(db_);
}

std::unique_ptr<CollectorStore> CollectorStore::open(const std::string& path, Mode mode,
                                                     std::string* error) {
  int flags =
      mode == Mode::kReadOnly ? SQLITE_OPEN_READONLY : (SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
  flags |= SQLITE_OPEN_FULLMUTEX;
  sqlite3* db = nullptr;
  if (sqlite3_open_v2(path.c_str(), &db, flags, nullptr) != SQLITE_OK) {
    if (error) *error = "cannot open " + path + ": " + (db ? sqlite3_errmsg(db) : "out of memory");
    sqlite3_close(db);
    return nullptr;
  }
  // The reader and the collector may briefly contend for the WAL index.
  sqlite3_busy_timeout(db, 5000);
  std::unique_ptr<CollectorStore> store(new CollectorStore(db));
  if (mode == Mode::kReadWrite) {
    if (!store->exec("PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL;", error) ||
        !store->exec(kSchema, error) || !store->prepareWriters(error)) {
      if (error) *error = path + ": " + *error;
      return nullptr;
    }
  } else {
    // Fails here, rather than on the first listing, when the file is not a
    // collector database.
    Statement probe(db, "SELECT 1 FROM events, errors, problems, sessions LIMIT 0");
    if (!probe.get() || sqlite3_step(probe.get()) == SQLITE_ERROR) {
      if (error) *error = path + " is not a collector database: " + sqlite3_errmsg(db);
      return nullptr;
    }
  }
  return store;
}

bool CollectorStore::exec(const char* sql, std::string* error) {
  char* message = nullptr;
  if (sqlite3_exec(db_, sql, nullptr, nullptr, &message) == SQLITE_OK) return true;
  if (error) *error = message ? message : "unknown SQLite error";
  sqlite3_free(message);
  return false;
}

bool CollectorStore::prepareWriters(std::string* error) {
  struct {
    sqlite3_stmt** stmt;
    const char* sql;
  } writers[] = {
      {&insertSession_,
       "INSERT INTO sessions (id, received_ms, service_ms, throttled, property, application, "
       "application_version, platform, device_type, device_version, client_device_id, "
       "device_model, uuid_token, cookie, hello_json) "
       "VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11, ?12, ?13, ?14, ?15)"},
      {&insertEvent_,
       "INSERT INTO events (session_id, type, data_json, event_ms, received_ms) "
       "VALUES (?1, ?2, ?3, ?4, ?5)"},
      {&insertError_,
       "INSERT INTO errors (session_id, application, error_code_json, error_ms, data_json, "
       "received_ms) VALUES (?1, ?2, ?3, ?4, ?5, ?6)"},
      {&insertProblem_,
       "INSERT INTO problems (received_ms, method, path, description) VALUES (?1, ?2, ?3, ?4)"},
      {&findSession_, "SELECT 1 FROM sessions WHERE id = ?1"},
  };
  for (auto& writer : writers) {
    if (sqlite3_prepare_v2(db_, writer.sql, -1, writer.stmt, nullptr) != SQLITE_OK) {
      if (error) *error = sqlite3_errmsg(db_);
      return false;
    }
  }
  return true;
}

bool CollectorStore::record(const RequestRecord& rows, std::string* error) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (!insertSession_) {
    if (error) *error = "the database is open read-only";
    return false;
  }
  if (!exec("BEGIN IMMEDIATE", error)) return false;
  if (!insertRows(rows, error)) {
    exec("ROLLBACK", nullptr);
    return false;
  }
  if (!exec("COMMIT", error)) {
    exec("ROLLBACK", nullptr);
    return false;
  }
  return true;
}

bool CollectorStore::insertRows(const RequestRecord& rows, std::string* error) {
  if (rows.session) {
    const SessionRow& s = *rows.session;
    sqlite3_stmt* stmt = insertSession_;
    bindText(stmt, 1, s.id);
    sqlite3_bind_int64(stmt, 2, s.receivedMs);
    sqlite3_bind_int64(stmt, 3, s.serviceMs);
    sqlite3_bind_int(stmt, 4, s.throttled ? 1 : 0);
    bindText(stmt, 5, s.property);
    bindText(stmt, 6, s.application);
    bindText(stmt, 7, s.applicationVersion);
    bindText(stmt, 8, s.platform);
    bindText(stmt, 9, s.deviceType);
    bindText(stmt, 10, s.deviceVersion);
    bindText(stmt, 11, s.clientDeviceId);
    bindText(stmt, 12, s.deviceModel);
    bindText(stmt, 13, s.uuidToken);
    bindText(stmt, 14, s.cookie);
    bindText(stmt, 15, s.helloJson);
    if (!runToCompletion(db_, stmt, error)) return false;
  }
  for (const EventRow& e : rows.events) {
    sqlite3_stmt* stmt = insertEvent_;
    bindText(stmt, 1, e.sessionId);
    bindText(stmt, 2, e.type);
    bindText(stmt, 3, e.dataJson);
    bindInt(stmt, 4, e.eventMs);
    sqlite3_bind_int64(stmt, 5, e.receivedMs);
    if (!runToCompletion(db_, stmt, error)) return false;
  }
  if (rows.error) {
    const ErrorRow& e = *rows.error;
    sqlite3_stmt* stmt = insertError_;
    bindText(stmt, 1, e.sessionId);
    bindText(stmt, 2, e.application);
    bindText(stmt, 3, e.errorCodeJson);
    bindInt(stmt, 4, e.errorMs);
    bindText(stmt, 5, e.dataJson);
    sqlite3_bind_int64(stmt, 6, e.receivedMs);
    if (!runToCompletion(db_, stmt, error)) return false;
  }
  for (const ProblemRow& p : rows.problems) {
    sqlite3_stmt* stmt = insertProblem_;
    sqlite3_bind_int64(stmt, 1, p.receivedMs);
    bindText(stmt, 2, p.method);
    bindText(stmt, 3, p.path);
    bindText(stmt, 4, p.description);
    if (!runToCompletion(db_, stmt, error)) return false;
  }
  return true;
}

bool CollectorStore::hasSession(const std::string& id) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (findSession_) {
    bindText(findSession_, 1, id);
    bool found = sqlite3_step(findSession_) == SQLITE_ROW;
    sqlite3_reset(findSession_);
    sqlite3_clear_bindings(findSession_);
    return found;
  }
  Statement find(db_, "SELECT 1 FROM sessions WHERE id = ?1");
  bindText(find.get(), 1, id);
  return sqlite3_step(find.get()) == SQLITE_ROW;
}

std::vector<SessionRow> CollectorStore::sessions(const StoreFilter& filter) {
  std::lock_guard<std::mutex> lock(mutex_);
  Statement query(db_,
                  "SELECT id, received_ms, service_ms, throttled, property, application, "
                  "application_version, platform, device_type, device_version, "
                  "client_device_id, device_model, uuid_token, cookie, hello_json "
                  "FROM sessions WHERE received_ms >= ?1 ORDER BY received_ms, rowid");
  std::vector<SessionRow> rows;
  if (!query.get()) return rows;
  bindSince(query.get(), filter);
  while (sqlite3_step(query.get()) == SQLITE_ROW) {
    sqlite3_stmt* s = query.get();
    SessionRow row;
    row.id = columnText(s, 0);
    row.receivedMs = sqlite3_column_int64(s, 1);
    row.serviceMs = sqlite3_column_int64(s, 2);
    row.throttled = sqlite3_column_int(s, 3) != 0;
    row.property = columnOptionalText(s, 4);
    row.application = columnOptionalText(s, 5);
    row.applicationVersion = columnOptionalText(s, 6);
    row.platform = columnOptionalText(s, 7);
    row.deviceType = columnOptionalText(s, 8);
    row.deviceVersion = columnOptionalText(s, 9);
    row.clientDeviceId = columnOptionalText(s, 10);
    row.deviceModel = columnOptionalText(s, 11);
    row.uuidToken = columnOptionalText(s, 12);
    row.cookie = columnOptionalText(s, 13);
    row.helloJson = columnText(s, 14);
    rows.push_back(std::move(row));
  }
  return rows;
}

std::vector<EventRow> CollectorStore::events(const StoreFilter& filter) {
  std::lock_guard<std::mutex> lock(mutex_);
  Statement query(db_,
                  "SELECT id, session_id, type, data_json, event_ms, received_ms FROM events "
                  "WHERE received_ms >= ?1 AND (?2 IS NULL OR type = ?2) ORDER BY id");
  std::vector<EventRow> rows;
  if (!query.get()) return rows;
  bindSince(query.get(), filter);
  bindText(query.get(), 2, filter.type);
  while (sqlite3_step(query.get()) == SQLITE_ROW) {
    sqlite3_stmt* s = query.get();
    EventRow row;
    row.id = sqlite3_column_int64(s, 0);
    row.sessionId = columnText(s, 1);
    row.type = columnText(s, 2);
    row.dataJson = columnText(s, 3);
    row.eventMs = columnOptionalInt(s, 4);
    row.receivedMs = sqlite3_column_int64(s, 5);
    rows.push_back(std::move(row));
  }
  return rows;
}

std::vector<ErrorRow> CollectorStore::errors(const StoreFilter& filter) {
  std::lock_guard<std::mutex> lock(mutex_);
  Statement query(db_,
                  "SELECT id, session_id, application, error_code_json, error_ms, data_json, "
                  "received_ms FROM errors WHERE received_ms >= ?1 ORDER BY id");
  std::vector<ErrorRow> rows;
  if (!query.get()) return rows;
  bindSince(query.get(), filter);
  while (sqlite3_step(query.get()) == SQLITE_ROW) {
    sqlite3_stmt* s = query.get();
    ErrorRow row;
    row.id = sqlite3_column_int64(s, 0);
    row.sessionId = columnText(s, 1);
    row.application = columnOptionalText(s, 2);
    row.errorCodeJson = columnText(s, 3);
    row.errorMs = columnOptionalInt(s, 4);
    row.dataJson = columnText(s, 5);
    row.receivedMs = sqlite3_column_int64(s, 6);
    rows.push_back(std::move(row));
  }
  return rows;
}

std::vector<ProblemRow> CollectorStore::problems(const StoreFilter& filter) {
  std::lock_guard<std::mutex> lock(mutex_);
  Statement query(db_,
                  "SELECT id, received_ms, method, path, description FROM problems "
                  "WHERE received_ms >= ?1 ORDER BY id");
  std::vector<ProblemRow> rows;
  if (!query.get()) return rows;
  bindSince(query.get(), filter);
  while (sqlite3_step(query.get()) == SQLITE_ROW) {
    sqlite3_stmt* s = query.get();
    ProblemRow row;
    row.id = sqlite3_column_int64(s, 0);
    row.receivedMs = sqlite3_column_int64(s, 1);
    row.method = columnText(s, 2);
    row.path = columnText(s, 3);
    row.description = columnText(s, 4);
    rows.push_back(std::move(row));
  }
  return rows;
}

}  // namespace telvo::tool
