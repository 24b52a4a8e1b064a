#include "collector/collector_store.h"

#include <sqlite3.h>

#include <algorithm>
#include <chrono>
#include <map>
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
-- data_length: bytes of data_json; data_preview: its first 4 KiB when it is
-- longer, so that lists never read the whole (both NULL in rows from before
-- they were kept).
CREATE TABLE IF NOT EXISTS events (
  id INTEGER PRIMARY KEY AUTOINCREMENT,
  session_id TEXT NOT NULL,
  type TEXT NOT NULL,
  data_json TEXT NOT NULL,
  event_ms INTEGER,
  received_ms INTEGER NOT NULL,
  data_length INTEGER,
  data_preview TEXT
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
  received_ms INTEGER NOT NULL,
  data_length INTEGER,
  data_preview TEXT
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
-- Kept with every record, so that the inspector's summary, chart and
-- session list never count events: counts per type, per second and type,
-- per session, and of every table. Types are kept by their first 200
-- characters (the inspector shows no more).
CREATE TABLE IF NOT EXISTS type_counts (
  shown TEXT PRIMARY KEY,
  type_length INTEGER NOT NULL,
  count INTEGER NOT NULL
) WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS event_rate (
  second INTEGER NOT NULL,
  shown TEXT NOT NULL,
  count INTEGER NOT NULL,
  PRIMARY KEY (second, shown)
) WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS session_events (
  session_id TEXT PRIMARY KEY,
  count INTEGER NOT NULL,
  last_ms INTEGER NOT NULL
) WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS counters (
  name TEXT PRIMARY KEY,
  value INTEGER NOT NULL
) WITHOUT ROWID;
-- Free-text search: a trigram index of the text the view events_search
-- gives of each event (made at open: the start of its type, session id and
-- data), which narrows a search to the rows holding its trigrams.
CREATE VIRTUAL TABLE IF NOT EXISTS events_text USING fts5(
  text, content='events_search', content_rowid='id', tokenize='trigram', detail='none');
)sql";

// The text of an event that a search reads (columns of `e`): its type's and
// session id's first `bytes` characters and its data's kept start (the whole
// data when it was no longer; rows from before starts were kept have it cut
// here). Never more than a few times `bytes`, however large the event, so
// that checking one row against a search is quick.
std::string searchTextSql(const std::string& e, std::size_t bytes) {
  const std::string n = std::to_string(bytes);
  return "substr(" + e + "type, 1, " + n + ") || char(10) || substr(" + e + "session_id, 1, " +
         n + ") || char(10) || CASE WHEN " + e + "data_preview IS NOT NULL THEN " + e +
         "data_preview WHEN " + e + "data_length IS NOT NULL THEN " + e +
         "data_json ELSE substr(" + e + "data_json, 1, " + n + ") END";
}

// Version 2 keeps the counts and the search index; a database from before
// has them made from its rows once (?1: the bytes of each text indexed).
constexpr int kSchemaVersion = 2;
constexpr const char* kFillKept = R"sql(
DELETE FROM type_counts;
INSERT INTO type_counts SELECT substr(type, 1, 200), max(length(type)), count(*) FROM events
  GROUP BY 1;
DELETE FROM event_rate;
INSERT INTO event_rate SELECT received_ms / 1000, substr(type, 1, 200), count(*) FROM events
  GROUP BY 1, 2;
DELETE FROM session_events;
INSERT INTO session_events SELECT session_id, count(*), max(received_ms) FROM events
  GROUP BY session_id;
INSERT OR REPLACE INTO counters VALUES
  ('sessions', (SELECT count(*) FROM sessions)), ('events', (SELECT count(*) FROM events)),
  ('errors', (SELECT count(*) FROM errors)), ('problems', (SELECT count(*) FROM problems));
INSERT INTO events_text(events_text) VALUES ('delete-all');
INSERT INTO events_text (rowid, text) SELECT id, text FROM events_search;
)sql";

// Databases made before problems kept their layer and body, and before
// bodies were kept in part, gain the columns: {table, column, statement}.
constexpr const char* kAddedColumns[][3] = {
    {"problems", "layer", "ALTER TABLE problems ADD COLUMN layer TEXT NOT NULL DEFAULT ''"},
    {"problems", "body_id", "ALTER TABLE problems ADD COLUMN body_id INTEGER"},
    {"request_bodies", "length", "ALTER TABLE request_bodies ADD COLUMN length INTEGER"},
    {"events", "data_length", "ALTER TABLE events ADD COLUMN data_length INTEGER"},
    {"events", "data_preview", "ALTER TABLE events ADD COLUMN data_preview TEXT"},
    {"errors", "data_length", "ALTER TABLE errors ADD COLUMN data_length INTEGER"},
    {"errors", "data_preview", "ALTER TABLE errors ADD COLUMN data_preview TEXT"},
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

// At most `length` bytes of UTF-8 `text`, not cutting a character in two.
std::string_view headOf(std::string_view text, std::size_t length) {
  if (text.size() <= length) return text;
  while (length > 0 && (static_cast<unsigned char>(text[length]) & 0xC0) == 0x80) --length;
  return text.substr(0, length);
}

// The number of characters of UTF-8 `text`, as SQLite's length() counts them.
std::int64_t characters(std::string_view text) {
  std::int64_t count = 0;
  for (char c : text) count += (static_cast<unsigned char>(c) & 0xC0) != 0x80;
  return count;
}

// The first `count` characters of UTF-8 `text`, as SQLite's substr() takes them.
std::string_view headChars(std::string_view text, std::size_t count) {
  std::size_t at = 0;
  for (std::size_t seen = 0; at < text.size(); ++at) {
    if ((static_cast<unsigned char>(text[at]) & 0xC0) != 0x80 && seen++ == count) break;
  }
  return text.substr(0, at);
}

// Binds a data text's length at `index` and, when it is longer than `keep`
// bytes, its start of that many at `index` + 1.
void bindLengthAndPreview(sqlite3_stmt* stmt, int index, std::string_view data,
                          std::size_t keep) {
  sqlite3_bind_int64(stmt, index, static_cast<std::int64_t>(data.size()));
  if (data.size() > keep) {
    bindView(stmt, index + 1, headOf(data, keep));
  } else {
    sqlite3_bind_null(stmt, index + 1);
  }
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
       {insertSession_, insertEvent_, insertError_, insertProblem_, insertBody_, findSession_,
        indexText_, countType_, countSecond_, countSession_, countRows_}) {
    sqlite3_finalize(stmt);
  }
  sqlite3_close(db_);
}

std::unique_ptr<CollectorStore> CollectorStore::open(const std::string& path, Mode mode,
                                                     std::string* error,
                                                     std::size_t searchBytes) {
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
  // Where a search has got to (see searchSliced); not deterministic, so
  // that SQLite calls it for every row.
  sqlite3_create_function(db, "telvo_searched", 1, SQLITE_UTF8, store.get(),
                          &CollectorStore::onSearched, nullptr, nullptr);
  store->searchBytes_ = std::max(searchBytes, kStoredPreviewBytes);
  if (mode == Mode::kReadWrite) {
    const std::string searchView =
        "DROP VIEW IF EXISTS events_search; CREATE VIEW events_search (id, text) AS SELECT id, " +
        searchTextSql("", store->searchBytes_) + " FROM events;";
    if (!store->exec("PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL;", error) ||
        !store->exec(kSchema, error) || !store->addMissingColumns(error) ||
        !store->exec(searchView.c_str(), error) ||
        !store->fillKept(error) || !store->prepareWriters(error)) {
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

bool CollectorStore::fillKept(std::string* error) {
  Statement version(db_, "PRAGMA user_version");
  if (version.get() && sqlite3_step(version.get()) == SQLITE_ROW &&
      sqlite3_column_int(version.get(), 0) >= kSchemaVersion) {
    return true;
  }
  if (!exec("BEGIN IMMEDIATE", error)) return false;
  if (!exec(kFillKept, error) ||
      !exec(("PRAGMA user_version = " + std::to_string(kSchemaVersion)).c_str(), error) ||
      !exec("COMMIT", error)) {
    exec("ROLLBACK", nullptr);
    return false;
  }
  return true;
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
       "INSERT INTO events (session_id, type, data_json, event_ms, received_ms, data_length, "
       "data_preview) VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7)"},
      {&insertError_,
       "INSERT INTO errors (session_id, application, error_code_json, error_ms, data_json, "
       "received_ms, data_length, data_preview) VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8)"},
      {&insertProblem_,
       "INSERT INTO problems (received_ms, method, path, description, layer, body_id) "
       "VALUES (?1, ?2, ?3, ?4, ?5, ?6)"},
      {&insertBody_, "INSERT INTO request_bodies (body, length) VALUES (?1, ?2)"},
      {&findSession_, "SELECT 1 FROM sessions WHERE id = ?1"},
      {&indexText_, "INSERT INTO events_text (rowid, text) VALUES (?1, ?2)"},
      {&countType_,
       "INSERT INTO type_counts VALUES (?1, ?2, ?3) ON CONFLICT (shown) DO UPDATE SET "
       "count = count + excluded.count, type_length = max(type_length, excluded.type_length)"},
      {&countSecond_,
       "INSERT INTO event_rate VALUES (?1, ?2, ?3) ON CONFLICT (second, shown) DO UPDATE SET "
       "count = count + excluded.count"},
      {&countSession_,
       "INSERT INTO session_events VALUES (?1, ?2, ?3) ON CONFLICT (session_id) DO UPDATE SET "
       "count = count + excluded.count, last_ms = max(last_ms, excluded.last_ms)"},
      {&countRows_,
       "INSERT INTO counters VALUES (?1, ?2) ON CONFLICT (name) DO UPDATE SET "
       "value = value + excluded.value"},
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
    bindLengthAndPreview(stmt, 6, e.dataJson, searchBytes_);
    if (!runToCompletion(db_, stmt, error)) return false;
    // Indexed as events_search gives it (searchTextSql()).
    std::string text;
    text.append(headChars(e.type, searchBytes_)).append(1, '\n');
    text.append(headChars(rows.sessionId, searchBytes_)).append(1, '\n');
    text.append(e.dataJson.size() > searchBytes_ ? headOf(e.dataJson, searchBytes_)
                                                 : std::string_view(e.dataJson));
    sqlite3_bind_int64(indexText_, 1, sqlite3_last_insert_rowid(db_));
    bindView(indexText_, 2, text);
    if (!runToCompletion(db_, indexText_, error)) return false;
  }
  if (!rows.events.empty() && !countEvents(rows, error)) return false;
  auto count = [&](const char* table, std::size_t added) {
    if (added == 0) return true;
    sqlite3_bind_text(countRows_, 1, table, -1, SQLITE_STATIC);
    sqlite3_bind_int64(countRows_, 2, static_cast<std::int64_t>(added));
    return runToCompletion(db_, countRows_, error);
  };
  if (!count("sessions", rows.session ? 1 : 0) || !count("events", rows.events.size()) ||
      !count("errors", rows.error ? 1 : 0) || !count("problems", rows.problems.size())) {
    return false;
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
    bindLengthAndPreview(stmt, 7, e.dataJson, searchBytes_);
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

bool CollectorStore::countEvents(const RequestRecord& rows, std::string* error) {
  // Per type as shown (its first kShownLabelLength characters): how many,
  // and the longest whole type.
  std::map<std::string_view, std::pair<std::int64_t, std::int64_t>> perType;
  for (const NewEvent& e : rows.events) {
    auto& [count, longest] = perType[headChars(e.type, kShownLabelLength)];
    ++count;
    longest = std::max(longest, characters(e.type));
  }
  const std::int64_t n = static_cast<std::int64_t>(rows.events.size());
  for (const auto& [shown, counted] : perType) {
    bindView(countType_, 1, shown);
    sqlite3_bind_int64(countType_, 2, counted.second);
    sqlite3_bind_int64(countType_, 3, counted.first);
    if (!runToCompletion(db_, countType_, error)) return false;
    sqlite3_bind_int64(countSecond_, 1, rows.receivedMs / 1000);
    bindView(countSecond_, 2, shown);
    sqlite3_bind_int64(countSecond_, 3, counted.first);
    if (!runToCompletion(db_, countSecond_, error)) return false;
  }
  bindView(countSession_, 1, rows.sessionId);
  sqlite3_bind_int64(countSession_, 2, n);
  sqlite3_bind_int64(countSession_, 3, rows.receivedMs);
  return runToCompletion(db_, countSession_, error);
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

namespace {

// The whole length in bytes of a row's data (rows from before it was kept
// have it measured).
#define DATA_LENGTH "coalesce(data_length, length(CAST(data_json AS BLOB)))"
// The row's data when it is at most ?P bytes long, else its start (from the
// kept preview, so that the whole is never read).
#define DATA_OR_PREVIEW(P)                                      \
  "CASE WHEN " DATA_LENGTH " <= " P " THEN data_json ELSE substr(" \
  "coalesce(data_preview, data_json), 1, " P ") END"

std::size_t clampedPreview(std::size_t length) {
  return std::clamp<std::size_t>(length, 1, kStoredPreviewBytes);
}

std::int64_t asInt(std::size_t value) {
  return static_cast<std::int64_t>(std::min<std::size_t>(value, 1u << 30));
}

// A data column read as a preview of `preview` bytes: substr() counts
// characters, so the text is cut again in bytes.
void cutData(std::string& data, std::int64_t length, std::size_t preview, bool* whole) {
  *whole = length <= static_cast<std::int64_t>(preview);
  if (!*whole) data = std::string(headOf(data, preview));
}

// An event row of the page queries' columns: id, session (cut), type (cut),
// data (or preview), event_ms, received_ms, data length, session length,
// type length.
EventRow eventListed(sqlite3_stmt* s, std::size_t preview) {
  EventRow row = eventFrom(s);
  row.sessionIdLength = sqlite3_column_int64(s, 7);
  row.typeLength = sqlite3_column_int64(s, 8);
  cutData(row.dataJson, row.dataLength, preview, &row.dataWhole);
  return row;
}

}  // namespace

namespace {

// The characters (UTF-8 sequences) of `text`.
std::vector<std::string_view> charactersOf(std::string_view text) {
  std::vector<std::string_view> chars;
  std::size_t start = 0;
  for (std::size_t at = 1; at <= text.size(); ++at) {
    if (at == text.size() || (static_cast<unsigned char>(text[at]) & 0xC0) != 0x80) {
      chars.push_back(text.substr(start, at - start));
      start = at;
    }
  }
  return chars;
}

// An FTS5 query for the rows of the trigram index that hold at most
// kSearchTrigrams of `text`'s trigrams (different ones, spread over it), so
// that a long text costs no more to look up than a short one; nothing when
// `text` has fewer than three characters. A row it finds is a candidate,
// checked against the text itself.
constexpr std::size_t kSearchTrigrams = 8;
std::optional<std::string> trigramQuery(std::string_view text) {
  const auto chars = charactersOf(text);
  if (chars.size() < 3) return std::nullopt;
  std::vector<std::string> trigrams;
  for (std::size_t i = 0; i + 3 <= chars.size(); ++i) {
    std::string trigram;
    for (std::size_t k = i; k < i + 3; ++k) trigram.append(chars[k]);
    // The index folds ASCII case, as LIKE does.
    for (char& c : trigram) c = (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
    if (std::find(trigrams.begin(), trigrams.end(), trigram) == trigrams.end()) {
      trigrams.push_back(std::move(trigram));
    }
  }
  std::string query;
  const std::size_t n = trigrams.size();
  const std::size_t taken = std::min(n, kSearchTrigrams);
  for (std::size_t i = 0; i < taken; ++i) {
    const std::string& trigram = trigrams[taken == 1 ? 0 : i * (n - 1) / (taken - 1)];
    if (!query.empty()) query += " AND ";
    query += '"';
    for (char c : trigram) query += c == '"' ? std::string("\"\"") : std::string(1, c);
    query += '"';
  }
  return query;
}

}  // namespace

EventPage CollectorStore::eventPage(const PageQuery& query) {
  std::lock_guard<std::mutex> lock(mutex_);
  startClock();
  // ?1 and ?2 the ids between, ?3 the arrival, ?4 the rows wanted, ?5
  // preview bytes, ?6 session, ?7 type, ?8 text pattern, ?9 label length,
  // ?10 the trigram query. A text is matched against each event's search
  // text (searchTextSql(), a few KiB at most); with three characters or
  // more, the rows come from the trigram index, newest first, else they are
  // read newest first until the page is full. Without a text, the session
  // and type tests are written so that SQLite can take the rows from
  // events_by_session or events_by_type in id order.
  const auto trigrams = query.text ? trigramQuery(*query.text) : std::nullopt;
  const std::string e = trigrams ? "e." : "";
  std::string sql = "SELECT " + e + "id, substr(" + e + "session_id, 1, ?9), substr(" + e +
                    "type, 1, ?9), CASE WHEN coalesce(" + e + "data_length, length(CAST(" + e +
                    "data_json AS BLOB))) <= ?5 THEN " + e + "data_json ELSE substr(coalesce(" +
                    e + "data_preview, " + e + "data_json), 1, ?5) END, " + e + "event_ms, " + e +
                    "received_ms, coalesce(" + e + "data_length, length(CAST(" + e +
                    "data_json AS BLOB))), length(" + e + "session_id), length(" + e + "type) ";
  const std::string textTest =
      query.text ? "AND " + searchTextSql(e, searchBytes_) + " LIKE ?8 ESCAPE '\\' " : "";
  // A search tells where it has got to, for each event before any other test.
  const std::string seen = query.text ? "AND telvo_searched(" + e + "id) " : "";
  if (trigrams) {
    sql += "FROM events_text AS f JOIN events AS e ON e.id = f.rowid "
           "WHERE events_text MATCH ?10 AND f.rowid > ?1 AND f.rowid < ?2 "
           "AND telvo_searched(f.rowid) AND e.received_ms >= ?3 "
           "AND (?6 IS NULL OR e.session_id = ?6) AND (?7 IS NULL OR e.type = ?7) " +
           textTest + "ORDER BY f.rowid DESC LIMIT ?4";
  } else if (query.sessionId) {
    sql += "FROM events WHERE session_id = ?6 AND id > ?1 AND id < ?2 " + seen +
           "AND received_ms >= ?3 AND (?7 IS NULL OR type = ?7) " + textTest +
           "ORDER BY id DESC LIMIT ?4";
  } else if (query.type) {
    sql += "FROM events WHERE type = ?7 AND id > ?1 AND id < ?2 " + seen +
           "AND received_ms >= ?3 AND (?6 IS NULL OR session_id = ?6) " + textTest +
           "ORDER BY id DESC LIMIT ?4";
  } else {
    sql += "FROM events WHERE id > ?1 AND id < ?2 " + seen +
           "AND received_ms >= ?3 AND (?6 IS NULL OR session_id = ?6) "
           "AND (?7 IS NULL OR type = ?7) " +
           textTest + "ORDER BY id DESC LIMIT ?4";
  }
  Statement statement(db_, sql.c_str());
  EventPage page;
  sqlite3_stmt* s = statement.get();
  if (!s) return page;
  const std::size_t preview = clampedPreview(query.previewLength);
  bindPage(s, query);
  sqlite3_bind_int64(s, 5, asInt(preview));
  bindText(s, 6, query.sessionId);
  bindText(s, 7, query.type);
  bindText(s, 8,
           query.text ? std::optional<std::string>(containsPattern(*query.text)) : std::nullopt);
  sqlite3_bind_int64(s, 9, asInt(query.labelLength));
  bindText(s, 10, trigrams);
  if (query.text) {
    page.searchedTo = searchSliced(query, s, page.rows);
    return page;
  }
  while (sqlite3_step(s) == SQLITE_ROW) page.rows.push_back(eventListed(s, preview));
  return page;
}

std::optional<std::int64_t> CollectorStore::searchSliced(const PageQuery& query, sqlite3_stmt* s,
                                                         std::vector<EventRow>& rows) {
  const std::size_t preview = clampedPreview(query.previewLength);
  // One statement reads the events newest first; telvo_searched() sees the
  // id of each before its text is checked. Once the slice is spent (and one
  // event at least was checked whole), the statement stops, and the search
  // goes on next time from the last event seen, which may not have been
  // checked, unless it was given. Half a slice at least is spent reading
  // from the first event seen on.
  searched_ = Searched{};
  searched_.above = query.afterId.value_or(INT64_MIN);
  searched_.below = query.beforeId.value_or(INT64_MAX);
  if (slice_.count() > 0) sliceEnd_ = std::chrono::steady_clock::now() + slice_;
  sliceWaiting_ = slice_.count() > 0;
  int step;
  while ((step = sqlite3_step(s)) == SQLITE_ROW) rows.push_back(eventListed(s, preview));
  const bool stopped = step != SQLITE_DONE && sliceOver_ && !timedOut_;
  sliceEnd_.reset();
  sliceWaiting_ = false;
  if (!stopped || searched_.count == 0) return std::nullopt;
  std::int64_t next = searched_.lowest < INT64_MAX ? searched_.lowest + 1 : searched_.lowest;
  if (!rows.empty()) next = std::min(next, rows.back().id);
  return next;
}

void CollectorStore::onSearched(sqlite3_context* context, int count, sqlite3_value** values) {
  auto* store = static_cast<CollectorStore*>(sqlite3_user_data(context));
  if (count == 1) {
    // (The index may give an id at a bound of the range, which SQLite then
    // drops.)
    const std::int64_t id = sqlite3_value_int64(values[0]);
    if (id > store->searched_.above && id < store->searched_.below &&
        id < store->searched_.lowest) {
      store->searched_.lowest = id;
      ++store->searched_.count;
      if (store->sliceWaiting_ && store->sliceEnd_) {
        store->sliceWaiting_ = false;
        store->sliceEnd_ =
            std::max(*store->sliceEnd_, std::chrono::steady_clock::now() + store->slice_ / 2);
      }
    }
  }
  sqlite3_result_int(context, 1);
}

std::optional<EventRow> CollectorStore::event(std::int64_t id, std::size_t wholeBytes,
                                              std::size_t pieceBytes, std::size_t labelLength) {
  std::optional<EventRow> row;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    startClock();
    Statement statement(db_,
                        "SELECT id, substr(session_id, 1, ?3), substr(type, 1, ?3), "
                        "CASE WHEN " DATA_LENGTH " <= ?2 THEN data_json END, event_ms, "
                        "received_ms, " DATA_LENGTH ", length(session_id), length(type) "
                        "FROM events WHERE id = ?1");
    sqlite3_stmt* s = statement.get();
    if (!s) return std::nullopt;
    sqlite3_bind_int64(s, 1, id);
    sqlite3_bind_int64(s, 2, asInt(wholeBytes));
    sqlite3_bind_int64(s, 3, asInt(labelLength));
    if (sqlite3_step(s) != SQLITE_ROW) return std::nullopt;
    row = eventListed(s, static_cast<std::size_t>(sqlite3_column_int64(s, 6)));
    row->dataWhole = sqlite3_column_type(s, 3) != SQLITE_NULL;
  }
  if (!row->dataWhole) {
    auto piece = eventData(id, 0, pieceBytes);
    if (!piece) return std::nullopt;
    row->dataJson = std::string(headOf(piece->first, pieceBytes));
  }
  return row;
}

std::optional<std::pair<std::string, std::int64_t>> CollectorStore::eventData(
    std::int64_t id, std::int64_t offset, std::size_t length) {
  std::lock_guard<std::mutex> lock(mutex_);
  startClock();
  // Read through the blob interface: only the pages of the piece are read.
  sqlite3_blob* blob = nullptr;
  if (sqlite3_blob_open(db_, "main", "events", "data_json", id, 0, &blob) != SQLITE_OK) {
    sqlite3_blob_close(blob);
    return std::nullopt;
  }
  const std::int64_t total = sqlite3_blob_bytes(blob);
  std::string piece;
  if (offset >= 0 && offset < total) {
    const std::int64_t count =
        std::min<std::int64_t>(total - offset, static_cast<std::int64_t>(std::min<std::size_t>(
                                                   length, 64u << 20)));
    piece.resize(static_cast<std::size_t>(count));
    if (sqlite3_blob_read(blob, piece.data(), static_cast<int>(count), static_cast<int>(offset)) !=
        SQLITE_OK) {
      piece.clear();
    }
  }
  sqlite3_blob_close(blob);
  return std::make_pair(std::move(piece), total);
}

std::vector<SessionSummary> CollectorStore::sessionSummaries(int limit, std::size_t labelLength) {
  std::lock_guard<std::mutex> lock(mutex_);
  startClock();
  // The count and the last arrival are kept per session as events arrive.
  Statement query(db_,
                  "SELECT id, received_ms, service_ms, throttled, substr(property, 1, ?2), "
                  "substr(application, 1, ?2), substr(application_version, 1, ?2), "
                  "substr(platform, 1, ?2), substr(device_type, 1, ?2), "
                  "substr(device_version, 1, ?2), substr(client_device_id, 1, ?2), "
                  "substr(device_model, 1, ?2), substr(uuid_token, 1, ?2), "
                  "substr(cookie, 1, ?2), '', "
                  "coalesce((SELECT count FROM session_events WHERE session_id = sessions.id), 0), "
                  "(SELECT last_ms FROM session_events WHERE session_id = sessions.id), "
                  "length(property), length(application), length(application_version), "
                  "length(platform), length(device_type), length(device_version), "
                  "length(client_device_id), length(device_model), length(uuid_token), "
                  "length(cookie), length(CAST(hello_json AS BLOB)) "
                  "FROM sessions ORDER BY received_ms DESC, rowid DESC LIMIT ?1");
  std::vector<SessionSummary> rows;
  if (!query.get()) return rows;
  sqlite3_bind_int(query.get(), 1, clampedLimit(limit));
  sqlite3_bind_int64(query.get(), 2, asInt(labelLength));
  static const char* const kMembers[] = {
      "propertyName", "applicationName", "applicationVersion", "platformName", "deviceType",
      "deviceVersion", "clientDeviceId",  "deviceModel",        "telvoUUIDToken", "cookie"};
  while (sqlite3_step(query.get()) == SQLITE_ROW) {
    sqlite3_stmt* s = query.get();
    SessionSummary summary;
    summary.session = sessionFrom(s);
    const SessionRow& row = summary.session;
    summary.eventCount = sqlite3_column_int64(s, 15);
    summary.lastSeenMs = std::max(row.receivedMs, columnOptionalInt(s, 16).value_or(0));
    for (int i = 0; i < 10; ++i) {
      const std::int64_t length = sqlite3_column_int64(s, 17 + i);
      if (length > static_cast<std::int64_t>(labelLength)) {
        summary.cutMembers.emplace_back(kMembers[i], length);
      }
    }
    summary.helloLength = sqlite3_column_int64(s, 27);
    rows.push_back(std::move(summary));
  }
  return rows;
}

std::optional<std::string> CollectorStore::helloDocument(const std::string& id) {
  std::lock_guard<std::mutex> lock(mutex_);
  startClock();
  Statement statement(db_, "SELECT hello_json FROM sessions WHERE id = ?1");
  if (!statement.get()) return std::nullopt;
  bindText(statement.get(), 1, id);
  if (sqlite3_step(statement.get()) != SQLITE_ROW) return std::nullopt;
  return columnText(statement.get(), 0);
}

std::vector<ErrorRow> CollectorStore::errorPage(const PageQuery& query) {
  std::lock_guard<std::mutex> lock(mutex_);
  startClock();
  Statement statement(
      db_,
      "SELECT id, substr(session_id, 1, ?6), substr(application, 1, ?6), "
      "substr(error_code_json, 1, ?6), error_ms, " DATA_OR_PREVIEW("?7") ", received_ms, "
      DATA_LENGTH ", length(session_id), length(application), length(error_code_json) "
      "FROM errors WHERE id > ?1 AND id < ?2 AND received_ms >= ?3 "
      "AND (?5 IS NULL OR session_id = ?5) ORDER BY id DESC LIMIT ?4");
  std::vector<ErrorRow> rows;
  sqlite3_stmt* s = statement.get();
  if (!s) return rows;
  const std::size_t preview = clampedPreview(query.previewLength);
  bindPage(s, query);
  bindText(s, 5, query.sessionId);
  sqlite3_bind_int64(s, 6, asInt(query.labelLength));
  sqlite3_bind_int64(s, 7, asInt(preview));
  while (sqlite3_step(s) == SQLITE_ROW) {
    ErrorRow row = errorFrom(s);
    row.dataLength = sqlite3_column_int64(s, 7);
    row.sessionIdLength = sqlite3_column_int64(s, 8);
    row.applicationLength = sqlite3_column_int64(s, 9);
    row.errorCodeLength = sqlite3_column_int64(s, 10);
    cutData(row.dataJson, row.dataLength, preview, &row.dataWhole);
    rows.push_back(std::move(row));
  }
  return rows;
}

std::vector<ProblemRow> CollectorStore::problemPage(const PageQuery& query) {
  std::lock_guard<std::mutex> lock(mutex_);
  startClock();
  // Descriptions quote what a device sent: they are cut too.
  Statement statement(db_,
                      "SELECT id, received_ms, method, substr(path, 1, ?5), "
                      "substr(description, 1, 4 * ?5), layer, "
                      "(SELECT length(body) FROM request_bodies WHERE id = body_id), "
                      "(SELECT coalesce(length, length(body)) FROM request_bodies "
                      " WHERE id = body_id) "
                      "FROM problems WHERE id > ?1 AND id < ?2 AND received_ms >= ?3 "
                      "ORDER BY id DESC LIMIT ?4");
  std::vector<ProblemRow> rows;
  sqlite3_stmt* s = statement.get();
  if (!s) return rows;
  bindPage(s, query);
  sqlite3_bind_int64(s, 5, asInt(query.labelLength));
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
  startClock();
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

std::vector<CollectorStore::TypeCount> CollectorStore::eventTypes(int limit,
                                                                  std::size_t labelLength) {
  std::lock_guard<std::mutex> lock(mutex_);
  startClock();
  Statement query(db_,
                  "SELECT substr(shown, 1, ?2), type_length, count FROM type_counts "
                  "ORDER BY count DESC, shown LIMIT ?1");
  std::vector<TypeCount> rows;
  if (!query.get()) return rows;
  sqlite3_bind_int(query.get(), 1, clampedLimit(limit));
  sqlite3_bind_int64(query.get(), 2, asInt(labelLength));
  while (sqlite3_step(query.get()) == SQLITE_ROW) {
    rows.push_back(TypeCount{columnText(query.get(), 0), sqlite3_column_int64(query.get(), 1),
                             sqlite3_column_int64(query.get(), 2)});
  }
  return rows;
}

std::vector<RateBucket> CollectorStore::eventRate(std::int64_t sinceMs, std::int64_t bucketMs,
                                                  std::size_t labelLength) {
  std::lock_guard<std::mutex> lock(mutex_);
  startClock();
  std::vector<RateBucket> rows;
  if (bucketMs <= 0) return rows;
  // Counted per second as records arrive; here summed into buckets.
  Statement query(db_,
                  "SELECT second * 1000 / ?2 AS bucket, substr(shown, 1, ?3) AS label, "
                  "sum(count) FROM event_rate WHERE second >= ?1 "
                  "GROUP BY bucket, label ORDER BY bucket");
  if (!query.get()) return rows;
  sqlite3_bind_int64(query.get(), 1, sinceMs >= 0 ? (sinceMs + 999) / 1000 : sinceMs / 1000);
  sqlite3_bind_int64(query.get(), 2, bucketMs);
  sqlite3_bind_int64(query.get(), 3, asInt(labelLength));
  while (sqlite3_step(query.get()) == SQLITE_ROW) {
    sqlite3_stmt* s = query.get();
    rows.push_back(RateBucket{sqlite3_column_int64(s, 0) * bucketMs, columnText(s, 1),
                              sqlite3_column_int64(s, 2)});
  }
  return rows;
}

StoreTotals CollectorStore::totals() {
  std::lock_guard<std::mutex> lock(mutex_);
  startClock();
  StoreTotals totals;
  // The kept counters, when the database has them (a database of an older
  // collector, read by `telvo events`, has them counted).
  Statement kept(db_, "SELECT name, value FROM counters");
  if (kept.get()) {
    while (sqlite3_step(kept.get()) == SQLITE_ROW) {
      const std::string name = columnText(kept.get(), 0);
      const std::int64_t value = sqlite3_column_int64(kept.get(), 1);
      if (name == "sessions") totals.sessions = value;
      if (name == "events") totals.events = value;
      if (name == "errors") totals.errors = value;
      if (name == "problems") totals.problems = value;
    }
  } else {
    totals.sessions = singleInt(db_, "SELECT count(*) FROM sessions");
    totals.events = singleInt(db_, "SELECT count(*) FROM events");
    totals.errors = singleInt(db_, "SELECT count(*) FROM errors");
    totals.problems = singleInt(db_, "SELECT count(*) FROM problems");
  }
  totals.lastEventId = singleInt(db_, "SELECT max(id) FROM events");
  totals.lastErrorId = singleInt(db_, "SELECT max(id) FROM errors");
  totals.lastProblemId = singleInt(db_, "SELECT max(id) FROM problems");
  return totals;
}

void CollectorStore::setTimeLimit(std::chrono::milliseconds limit) {
  std::lock_guard<std::mutex> lock(mutex_);
  limit_ = limit;
  // Checked every hundred steps of a statement: a step may take long (a
  // LIKE over a large text is one), so the check is frequent; it costs a
  // clock read, a few percent of a scan.
  sqlite3_progress_handler(db_, limit.count() > 0 || slice_.count() > 0 ? 100 : 0,
                           &CollectorStore::onProgress, this);
}

bool CollectorStore::timedOut() {
  std::lock_guard<std::mutex> lock(mutex_);
  return timedOut_;
}

void CollectorStore::setSearchSlice(std::chrono::milliseconds slice) {
  std::lock_guard<std::mutex> lock(mutex_);
  slice_ = slice;
  // The slice is checked by the progress handler that the time limit sets.
  if (limit_.count() <= 0) {
    sqlite3_progress_handler(db_, slice.count() > 0 ? 100 : 0, &CollectorStore::onProgress, this);
  }
}

void CollectorStore::startClock() {
  timedOut_ = false;
  sliceOver_ = false;
  sliceEnd_.reset();
  deadline_ = std::chrono::steady_clock::now() + limit_;
}

int CollectorStore::onProgress(void* self) {
  auto* store = static_cast<CollectorStore*>(self);
  if (store->limit_.count() <= 0 && !store->sliceEnd_) return 0;
  const auto now = std::chrono::steady_clock::now();
  if (store->limit_.count() > 0 && now >= store->deadline_) {
    store->timedOut_ = true;
    return 1;  // interrupts the statement
  }
  // A search stops for its slice only once it has checked one event whole
  // (it has seen a second): each answer moves it on.
  if (store->sliceEnd_ && now >= *store->sliceEnd_ && store->searched_.count >= 2) {
    store->sliceOver_ = true;
    return 1;
  }
  return 0;
}

}  // namespace telvo::tool
