#include "collector/collector_store.h"

#include <sqlite3.h>

#include <algorithm>
#include <string_view>
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
-- Served by indexes: the inspector's pages per session and per type (newest
-- first), and its rate chart (arrival time and type, without the rows).
DROP INDEX IF EXISTS events_by_received;
CREATE INDEX IF NOT EXISTS events_by_received_type ON events (received_ms, type);
CREATE INDEX IF NOT EXISTS events_by_session ON events (session_id, id);
CREATE INDEX IF NOT EXISTS events_by_type ON events (type, id);
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
  description TEXT NOT NULL,
  layer TEXT NOT NULL DEFAULT '',
  body_id INTEGER
);
-- The raw body of a request that left problems, once however many it left:
-- its first bytes when it was longer than what is kept (length: the whole
-- body's length; NULL in rows from before bodies were cut).
CREATE TABLE IF NOT EXISTS request_bodies (
  id INTEGER PRIMARY KEY AUTOINCREMENT,
  body BLOB NOT NULL,
  length INTEGER
);
CREATE INDEX IF NOT EXISTS sessions_by_received ON sessions (received_ms);
CREATE INDEX IF NOT EXISTS errors_by_session ON errors (session_id, id);
)sql";

// Databases made before problems kept their layer and body, and before
// bodies were kept in part, gain the columns: {table, column, statement}.
constexpr const char* kAddedColumns[][3] = {
    {"problems", "layer", "ALTER TABLE problems ADD COLUMN layer TEXT NOT NULL DEFAULT ''"},
    {"problems", "body_id", "ALTER TABLE problems ADD COLUMN body_id INTEGER"},
    {"request_bodies", "length", "ALTER TABLE request_bodies ADD COLUMN length INTEGER"},
};

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

// Binds text that stays in place until the statement has run (the write
// path's texts, which can be large): SQLite does not copy it.
void bindView(sqlite3_stmt* stmt, int index, std::string_view value) {
  // A null pointer would bind NULL, not an empty text.
  sqlite3_bind_text64(stmt, index, value.data() ? value.data() : "", value.size(), SQLITE_STATIC,
                      SQLITE_UTF8);
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
       {insertSession_, insertEvent_, insertError_, insertProblem_, insertBody_, findSession_}) {
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
        !store->exec(kSchema, error) || !store->addMissingColumns(error) ||
        !store->prepareWriters(error)) {
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

bool CollectorStore::addMissingColumns(std::string* error) {
  for (const auto& column : kAddedColumns) {
    std::string probe = std::string("SELECT ") + column[1] + " FROM " + column[0] + " LIMIT 0";
    Statement existing(db_, probe.c_str());
    if (!existing.get() && !exec(column[2], error)) return false;
  }
  return true;
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
       "INSERT INTO problems (received_ms, method, path, description, layer, body_id) "
       "VALUES (?1, ?2, ?3, ?4, ?5, ?6)"},
      {&insertBody_, "INSERT INTO request_bodies (body, length) VALUES (?1, ?2)"},
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
    bindView(stmt, 15, rows.helloJson);
    if (!runToCompletion(db_, stmt, error)) return false;
  }
  for (const NewEvent& e : rows.events) {
    sqlite3_stmt* stmt = insertEvent_;
    bindView(stmt, 1, rows.sessionId);
    bindView(stmt, 2, e.type);
    bindView(stmt, 3, e.dataJson);
    bindInt(stmt, 4, e.eventMs);
    sqlite3_bind_int64(stmt, 5, rows.receivedMs);
    if (!runToCompletion(db_, stmt, error)) return false;
  }
  if (rows.error) {
    const NewError& e = *rows.error;
    sqlite3_stmt* stmt = insertError_;
    bindView(stmt, 1, rows.sessionId);
    bindText(stmt, 2, e.application);
    bindView(stmt, 3, e.errorCodeJson);
    bindInt(stmt, 4, e.errorMs);
    bindView(stmt, 5, e.dataJson);
    sqlite3_bind_int64(stmt, 6, rows.receivedMs);
    if (!runToCompletion(db_, stmt, error)) return false;
  }
  std::optional<std::int64_t> bodyId;
  if (!rows.problems.empty() && rows.body) {
    sqlite3_bind_blob64(insertBody_, 1, rows.body->data() ? rows.body->data() : "",
                        rows.body->size(), SQLITE_STATIC);
    sqlite3_bind_int64(insertBody_, 2,
                       static_cast<std::int64_t>(std::max(rows.bodyLength, rows.body->size())));
    if (!runToCompletion(db_, insertBody_, error)) return false;
    bodyId = sqlite3_last_insert_rowid(db_);
  }
  for (const ProblemRow& p : rows.problems) {
    sqlite3_stmt* stmt = insertProblem_;
    sqlite3_bind_int64(stmt, 1, p.receivedMs);
    bindText(stmt, 2, p.method);
    bindText(stmt, 3, p.path);
    bindText(stmt, 4, p.description);
    bindText(stmt, 5, p.layer);
    bindInt(stmt, 6, bodyId);
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

namespace {

// One row of each table, from the columns every query of it selects first,
// in this order.
SessionRow sessionFrom(sqlite3_stmt* s) {
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
  return row;
}

EventRow eventFrom(sqlite3_stmt* s) {
  EventRow row;
  row.id = sqlite3_column_int64(s, 0);
  row.sessionId = columnText(s, 1);
  row.type = columnText(s, 2);
  row.dataJson = columnText(s, 3);
  row.eventMs = columnOptionalInt(s, 4);
  row.receivedMs = sqlite3_column_int64(s, 5);
  row.dataLength = sqlite3_column_int64(s, 6);
  return row;
}

ErrorRow errorFrom(sqlite3_stmt* s) {
  ErrorRow row;
  row.id = sqlite3_column_int64(s, 0);
  row.sessionId = columnText(s, 1);
  row.application = columnOptionalText(s, 2);
  row.errorCodeJson = columnText(s, 3);
  row.errorMs = columnOptionalInt(s, 4);
  row.dataJson = columnText(s, 5);
  row.receivedMs = sqlite3_column_int64(s, 6);
  return row;
}

ProblemRow problemFrom(sqlite3_stmt* s) {
  ProblemRow row;
  row.id = sqlite3_column_int64(s, 0);
  row.receivedMs = sqlite3_column_int64(s, 1);
  row.method = columnText(s, 2);
  row.path = columnText(s, 3);
  row.description = columnText(s, 4);
  return row;
}

}  // namespace

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
    rows.push_back(sessionFrom(query.get()));
  }
  return rows;
}

std::vector<EventRow> CollectorStore::events(const StoreFilter& filter) {
  std::lock_guard<std::mutex> lock(mutex_);
  Statement query(db_,
                  "SELECT id, session_id, type, data_json, event_ms, received_ms, length(data_json) "
                  "FROM events WHERE received_ms >= ?1 AND (?2 IS NULL OR type = ?2) ORDER BY id");
  std::vector<EventRow> rows;
  if (!query.get()) return rows;
  bindSince(query.get(), filter);
  bindText(query.get(), 2, filter.type);
  while (sqlite3_step(query.get()) == SQLITE_ROW) {
    rows.push_back(eventFrom(query.get()));
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
    rows.push_back(errorFrom(query.get()));
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
    rows.push_back(problemFrom(query.get()));
  }
  return rows;
}

namespace {

int clampedLimit(int limit) {
  return limit < 1 ? 1 : (limit > kMaxPageRows ? kMaxPageRows : limit);
}

// `text` as a LIKE pattern that matches it anywhere, its own % and _ (and the
// escape character) taken literally.
std::string containsPattern(const std::string& text) {
  std::string pattern = "%";
  for (char c : text) {
    if (c == '%' || c == '_' || c == '\\') pattern += '\\';
    pattern += c;
  }
  return pattern + "%";
}

// Binds the paging parameters common to the page queries:
//   ?1 afterId, ?2 beforeId, ?3 sinceMs, ?4 limit.
void bindPage(sqlite3_stmt* stmt, const PageQuery& query) {
  sqlite3_bind_int64(stmt, 1, query.afterId.value_or(INT64_MIN));
  sqlite3_bind_int64(stmt, 2, query.beforeId.value_or(INT64_MAX));
  sqlite3_bind_int64(stmt, 3, query.sinceMs.value_or(INT64_MIN));
  sqlite3_bind_int(stmt, 4, clampedLimit(query.limit));
}


std::int64_t singleInt(sqlite3* db, const char* sql) {
  Statement query(db, sql);
  if (!query.get() || sqlite3_step(query.get()) != SQLITE_ROW) return 0;
  return sqlite3_column_int64(query.get(), 0);
}

}  // namespace

std::vector<EventRow> CollectorStore::eventPage(const PageQuery& query) {
  std::lock_guard<std::mutex> lock(mutex_);
  // ?5 preview bytes (0: whole), ?6 session, ?7 type, ?8 text pattern. The
  // session and type tests are written so that SQLite can take the rows from
  // events_by_session or events_by_type in id order.
  const char* sql =
      query.sessionId
          ? "SELECT id, session_id, type, CASE WHEN ?5 > 0 THEN substr(data_json, 1, ?5) "
            "ELSE data_json END, event_ms, received_ms, length(data_json) FROM events "
            "WHERE session_id = ?6 AND id > ?1 AND id < ?2 AND received_ms >= ?3 "
            "AND (?7 IS NULL OR type = ?7) AND (?8 IS NULL OR type LIKE ?8 ESCAPE '\\' "
            "OR session_id LIKE ?8 ESCAPE '\\' OR data_json LIKE ?8 ESCAPE '\\') "
            "ORDER BY id DESC LIMIT ?4"
      : query.type ? "SELECT id, session_id, type, CASE WHEN ?5 > 0 THEN substr(data_json, 1, ?5) "
                     "ELSE data_json END, event_ms, received_ms, length(data_json) FROM events "
                     "WHERE type = ?7 AND id > ?1 AND id < ?2 AND received_ms >= ?3 "
                     "AND (?6 IS NULL OR session_id = ?6) AND (?8 IS NULL OR type LIKE ?8 ESCAPE "
                     "'\\' OR session_id LIKE ?8 ESCAPE '\\' OR data_json LIKE ?8 ESCAPE '\\') "
                     "ORDER BY id DESC LIMIT ?4"
                   : "SELECT id, session_id, type, CASE WHEN ?5 > 0 THEN substr(data_json, 1, ?5) "
                     "ELSE data_json END, event_ms, received_ms, length(data_json) FROM events "
                     "WHERE id > ?1 AND id < ?2 AND received_ms >= ?3 "
                     "AND (?6 IS NULL OR session_id = ?6) AND (?7 IS NULL OR type = ?7) "
                     "AND (?8 IS NULL OR type LIKE ?8 ESCAPE '\\' OR session_id LIKE ?8 ESCAPE "
                     "'\\' OR data_json LIKE ?8 ESCAPE '\\') ORDER BY id DESC LIMIT ?4";
  Statement statement(db_, sql);
  std::vector<EventRow> rows;
  sqlite3_stmt* s = statement.get();
  if (!s) return rows;
  bindPage(s, query);
  sqlite3_bind_int64(s, 5,
                     static_cast<std::int64_t>(std::min<std::size_t>(query.previewLength, 1 << 30)));
  bindText(s, 6, query.sessionId);
  bindText(s, 7, query.type);
  bindText(s, 8,
           query.text ? std::optional<std::string>(containsPattern(*query.text)) : std::nullopt);
  while (sqlite3_step(s) == SQLITE_ROW) rows.push_back(eventFrom(s));
  return rows;
}

std::optional<EventRow> CollectorStore::event(std::int64_t id) {
  std::lock_guard<std::mutex> lock(mutex_);
  Statement statement(db_,
                      "SELECT id, session_id, type, data_json, event_ms, received_ms, "
                      "length(data_json) FROM events WHERE id = ?1");
  if (!statement.get()) return std::nullopt;
  sqlite3_bind_int64(statement.get(), 1, id);
  if (sqlite3_step(statement.get()) != SQLITE_ROW) return std::nullopt;
  return eventFrom(statement.get());
}

std::vector<SessionSummary> CollectorStore::sessionSummaries(int limit) {
  std::lock_guard<std::mutex> lock(mutex_);
  // The count and the last arrival come from events_by_session alone.
  Statement query(db_,
                  "SELECT id, received_ms, service_ms, throttled, property, application, "
                  "application_version, platform, device_type, device_version, "
                  "client_device_id, device_model, uuid_token, cookie, hello_json, "
                  "(SELECT count(*) FROM events WHERE session_id = sessions.id), "
                  "(SELECT received_ms FROM events WHERE session_id = sessions.id "
                  " ORDER BY id DESC LIMIT 1) "
                  "FROM sessions ORDER BY received_ms DESC, rowid DESC LIMIT ?1");
  std::vector<SessionSummary> rows;
  if (!query.get()) return rows;
  sqlite3_bind_int(query.get(), 1, clampedLimit(limit));
  while (sqlite3_step(query.get()) == SQLITE_ROW) {
    sqlite3_stmt* s = query.get();
    SessionSummary summary;
    summary.session = sessionFrom(s);
    const SessionRow& row = summary.session;
    summary.eventCount = sqlite3_column_int64(s, 15);
    summary.lastSeenMs = std::max(row.receivedMs, columnOptionalInt(s, 16).value_or(0));
    rows.push_back(std::move(summary));
  }
  return rows;
}

std::vector<ErrorRow> CollectorStore::errorPage(const PageQuery& query) {
  std::lock_guard<std::mutex> lock(mutex_);
  Statement statement(db_,
                      "SELECT id, session_id, application, error_code_json, error_ms, data_json, "
                      "received_ms FROM errors WHERE id > ?1 AND id < ?2 AND received_ms >= ?3 "
                      "AND (?5 IS NULL OR session_id = ?5) ORDER BY id DESC LIMIT ?4");
  std::vector<ErrorRow> rows;
  sqlite3_stmt* s = statement.get();
  if (!s) return rows;
  bindPage(s, query);
  bindText(s, 5, query.sessionId);
  while (sqlite3_step(s) == SQLITE_ROW) {
    rows.push_back(errorFrom(s));
  }
  return rows;
}

std::vector<ProblemRow> CollectorStore::problemPage(const PageQuery& query) {
  std::lock_guard<std::mutex> lock(mutex_);
  Statement statement(db_,
                      "SELECT id, received_ms, method, path, description, layer, "
                      "(SELECT length(body) FROM request_bodies WHERE id = body_id), "
                      "(SELECT coalesce(length, length(body)) FROM request_bodies "
                      " WHERE id = body_id) "
                      "FROM problems WHERE id > ?1 AND id < ?2 AND received_ms >= ?3 "
                      "ORDER BY id DESC LIMIT ?4");
  std::vector<ProblemRow> rows;
  sqlite3_stmt* s = statement.get();
  if (!s) return rows;
  bindPage(s, query);
  while (sqlite3_step(s) == SQLITE_ROW) {
    ProblemRow row = problemFrom(s);
    row.layer = columnText(s, 5);
    row.bodyBytes = columnOptionalInt(s, 6);
    row.bodyLength = columnOptionalInt(s, 7);
    rows.push_back(std::move(row));
  }
  return rows;
}

std::optional<std::string> CollectorStore::problemBody(std::int64_t id) {
  std::lock_guard<std::mutex> lock(mutex_);
  Statement statement(db_,
                      "SELECT b.body FROM problems AS p JOIN request_bodies AS b "
                      "ON b.id = p.body_id WHERE p.id = ?1");
  if (!statement.get()) return std::nullopt;
  sqlite3_bind_int64(statement.get(), 1, id);
  if (sqlite3_step(statement.get()) != SQLITE_ROW) return std::nullopt;
  const void* bytes = sqlite3_column_blob(statement.get(), 0);
  int size = sqlite3_column_bytes(statement.get(), 0);
  return bytes ? std::string(static_cast<const char*>(bytes), static_cast<std::size_t>(size))
               : std::string();
}

std::vector<std::pair<std::string, std::int64_t>> CollectorStore::eventTypes(int limit) {
  std::lock_guard<std::mutex> lock(mutex_);
  Statement query(db_,
                  "SELECT type, count(*) AS n FROM events GROUP BY type ORDER BY n DESC, type "
                  "LIMIT ?1");
  std::vector<std::pair<std::string, std::int64_t>> rows;
  if (!query.get()) return rows;
  sqlite3_bind_int(query.get(), 1, clampedLimit(limit));
  while (sqlite3_step(query.get()) == SQLITE_ROW) {
    rows.emplace_back(columnText(query.get(), 0), sqlite3_column_int64(query.get(), 1));
  }
  return rows;
}

std::vector<RateBucket> CollectorStore::eventRate(std::int64_t sinceMs, std::int64_t bucketMs) {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<RateBucket> rows;
  if (bucketMs <= 0) return rows;
  Statement query(db_,
                  "SELECT received_ms / ?2 AS bucket, type, count(*) FROM events "
                  "WHERE received_ms >= ?1 GROUP BY bucket, type ORDER BY bucket");
  if (!query.get()) return rows;
  sqlite3_bind_int64(query.get(), 1, sinceMs);
  sqlite3_bind_int64(query.get(), 2, bucketMs);
  while (sqlite3_step(query.get()) == SQLITE_ROW) {
    sqlite3_stmt* s = query.get();
    rows.push_back(RateBucket{sqlite3_column_int64(s, 0) * bucketMs, columnText(s, 1),
                              sqlite3_column_int64(s, 2)});
  }
  return rows;
}

StoreTotals CollectorStore::totals() {
  std::lock_guard<std::mutex> lock(mutex_);
  StoreTotals totals;
  totals.sessions = singleInt(db_, "SELECT count(*) FROM sessions");
  totals.events = singleInt(db_, "SELECT count(*) FROM events");
  totals.errors = singleInt(db_, "SELECT count(*) FROM errors");
  totals.problems = singleInt(db_, "SELECT count(*) FROM problems");
  totals.lastEventId = singleInt(db_, "SELECT max(id) FROM events");
  totals.lastErrorId = singleInt(db_, "SELECT max(id) FROM errors");
  totals.lastProblemId = singleInt(db_, "SELECT max(id) FROM problems");
  return totals;
}

}  // namespace telvo::tool
