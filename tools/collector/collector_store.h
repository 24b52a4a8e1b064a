// CollectorStore: the local collector's SQLite database (collector.db in the
// collector's data folder).
//
// Tables: sessions (one per hello answered, with the hello members), events
// (one per element of a batch post), errors (one per error post), problems
// (every deviation from what a client should send, and every request the
// collector could not take, with the layer that failed) and request_bodies
// (the raw body of a request that left problems, once). Times are milliseconds since 1970: received
// times on the collector's own clock, event and error times as the client
// stamped them (the service clock, which includes any --clock-skew).
//
// The collector opens the database for writing in WAL mode, so that
// `telvo events` can read it (read-only) while the collector runs. Each
// record() call is one transaction: a request's rows are stored together or
// not at all, and rows already committed are never touched again.
//
// Besides the rows, each record keeps counts (per type, per second and type,
// per session, per table) and a trigram index of its events' text, so that
// the inspector's queries read a few rows however many events there are.
//
// Thread-safe: one connection, every call serialised by a mutex (the HTTPS
// server answers on several threads). The inspector reads through a few
// read-only CollectorStores on the same file, each with a time limit, so
// its queries and the posts being stored do not wait for each other.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

struct sqlite3;
struct sqlite3_stmt;
struct sqlite3_context;
struct sqlite3_value;

namespace telvo::tool {

struct SessionRow {
  std::string id;
  std::int64_t receivedMs = 0;
  std::int64_t serviceMs = 0;  // the "timestamp" the hello answer carried
  bool throttled = false;      // what the answer told the client
  std::string helloJson;       // the decoded hello document (compact), "" when undecodable
  std::optional<std::string> property, application, applicationVersion, platform, deviceType,
      deviceVersion, clientDeviceId, deviceModel, uuidToken;
  std::optional<std::string> cookie;  // the Cookie header the hello carried
};

struct EventRow {
  std::int64_t id = 0;  // assigned by the database
  std::string sessionId;
  std::string type;
  std::string dataJson;                 // eventData as it was sent (maybe in part, see dataWhole)
  std::optional<std::int64_t> eventMs;  // eventData's "timestamp", when a number
  std::int64_t receivedMs = 0;
  // The inspector's reads: the whole data's length in bytes, and whether
  // dataJson is all of it (else its start); the whole lengths of the session
  // id and type, which lists cut.
  std::int64_t dataLength = 0;
  bool dataWhole = true;
  std::int64_t sessionIdLength = 0;
  std::int64_t typeLength = 0;
};

struct ErrorRow {
  std::int64_t id = 0;
  std::string sessionId;
  std::optional<std::string> application;
  std::string errorCodeJson;            // "errorCode" as it was sent ("null" when absent)
  std::optional<std::int64_t> errorMs;  // data's "timestamp", when a number
  std::string dataJson;                 // the whole "data" object (in part: see dataWhole)
  std::int64_t receivedMs = 0;
  // The inspector's reads, as for events.
  std::int64_t dataLength = 0;
  bool dataWhole = true;
  std::int64_t sessionIdLength = 0;
  std::int64_t applicationLength = 0;
  std::int64_t errorCodeLength = 0;
};

struct ProblemRow {
  std::int64_t id = 0;
  std::int64_t receivedMs = 0;
  std::string method;
  std::string path;
  std::string description;
  std::string layer;  // where the request went wrong (PostChecker::layerOf), "" when unknown
  // The length of the request's stored body (listings only); nothing when
  // none was kept (rows from before bodies were kept).
  std::optional<std::int64_t> bodyBytes;
  // The whole body's length, of which bodyBytes were kept (listings only).
  std::optional<std::int64_t> bodyLength;
};

// One event of a batch post as record() stores it. Its data points into the
// post's text (RequestRecord::text keeps it alive).
struct NewEvent {
  std::string type;
  std::string_view dataJson;            // eventData as it was sent
  std::optional<std::int64_t> eventMs;  // eventData's "timestamp", when a number
};

// The report of an error post as record() stores it.
struct NewError {
  std::optional<std::string> application;
  std::string_view errorCodeJson;       // "errorCode" as it was sent ("null" when absent)
  std::optional<std::int64_t> errorMs;  // data's "timestamp", when a number
  std::string_view dataJson;            // the whole "data" object as it was sent
};

// Everything one request leaves behind; stored in one transaction.
struct RequestRecord {
  std::int64_t receivedMs = 0;  // stamps the events and the error report
  // A hello answered, with its document (which goes in as hello_json; the
  // row's own helloJson is not used).
  std::optional<SessionRow> session;
  std::string_view helloJson;
  // The session of the events and the error report.
  std::string sessionId;
  std::vector<NewEvent> events;
  std::optional<NewError> error;
  std::vector<ProblemRow> problems;
  // The request body, as far as it is kept: stored once with the problems
  // (none, none stored; nothing when the problems are not about a body), for
  // problemBody(). `bodyLength` is the whole body's length, which may be
  // more than what is kept.
  std::optional<std::string_view> body;
  std::size_t bodyLength = 0;
  // Whatever the texts above point into, kept alive until the record is.
  std::shared_ptr<const std::string> text;
};

// Selection for the listing calls: rows received at or after `sinceMs`;
// `type` narrows events to one event type.
struct StoreFilter {
  std::optional<std::int64_t> sinceMs;
  std::optional<std::string> type;
};

// Selection for the inspector's pages, newest first. Every text is matched
// as a parameter (never spliced into SQL); `limit` is clamped to
// [1, kMaxPageRows].
struct PageQuery {
  std::optional<std::int64_t> afterId;   // only rows with a larger id (what arrived since)
  std::optional<std::int64_t> beforeId;  // only rows with a smaller id (the next older page)
  std::optional<std::int64_t> sinceMs;   // only rows received at or after this time
  std::optional<std::string> sessionId;  // events and errors of this session
  std::optional<std::string> type;       // events of this type
  // Events whose type, session or data contain this (ASCII case-insensitive),
  // within their search text (see open()).
  std::optional<std::string> text;
  int limit = 100;
  // Data longer than this many bytes is given by its start (dataWhole false);
  // clamped to [1, kStoredPreviewBytes].
  std::size_t previewLength = 200;
  // Texts a device chose (types, session ids, names) are cut to this many
  // characters, their whole lengths given beside them.
  std::size_t labelLength = 200;
};

// A page of events. A search that spent its slice of time (see
// setSearchSlice) before the page was full stops there: the events with ids
// at or above `searchedTo` were searched, and the next request goes on below
// it (beforeId = searchedTo). Without it the search is complete.
struct EventPage {
  std::vector<EventRow> rows;
  std::optional<std::int64_t> searchedTo;
};

inline constexpr int kMaxPageRows = 1000;
// Event types are counted, and charted, by their first this many characters.
inline constexpr std::size_t kShownLabelLength = 200;
// Of data longer than this, the start is kept beside it, so that lists
// never read the whole.
inline constexpr std::size_t kStoredPreviewBytes = 4096;

struct SessionSummary {
  SessionRow session;  // members cut to the label length; helloJson empty
  std::int64_t eventCount = 0;
  std::int64_t lastSeenMs = 0;  // the last event's arrival, else the hello's
  std::int64_t helloLength = 0;  // bytes of the whole hello document
  // The members that were cut, with their whole lengths (hello names:
  // "propertyName", ..., and "cookie").
  std::vector<std::pair<std::string, std::int64_t>> cutMembers;
};

// Events of one type that arrived in one time bucket.
struct RateBucket {
  std::int64_t startMs = 0;
  std::string type;
  std::int64_t count = 0;
};

struct StoreTotals {
  std::int64_t sessions = 0, events = 0, errors = 0, problems = 0;
  // The largest ids so far: a reader that has seen them has seen everything.
  std::int64_t lastEventId = 0, lastErrorId = 0, lastProblemId = 0;
};

class CollectorStore {
 public:
  enum class Mode { kReadWrite, kReadOnly };

  // Opens (kReadWrite: creates when missing, switches to WAL, creates the
  // tables) the database at `path`. Nothing, with `*error` set to one line,
  // when it cannot be opened.
  // `searchBytes` (at least kStoredPreviewBytes): of each event's data, the
  // start kept beside it for lists and searches; a search reads that and
  // the type's and session id's first as many characters, so a text past
  // them is not found. It applies to the events stored from then on; a
  // database made by an older collector is indexed when first opened.
  static constexpr std::size_t kDefaultSearchBytes = kStoredPreviewBytes;
  static std::unique_ptr<CollectorStore> open(const std::string& path, Mode mode,
                                              std::string* error,
                                              std::size_t searchBytes = kDefaultSearchBytes);
  ~CollectorStore();
  CollectorStore(const CollectorStore&) = delete;
  CollectorStore& operator=(const CollectorStore&) = delete;

  // Stores the rows of one request in one transaction. False, with `*error`
  // set, when the transaction failed and was rolled back.
  bool record(const RequestRecord& rows, std::string* error);

  // Whether a hello has been answered with session id `id` (at any time,
  // including before a restart).
  bool hasSession(const std::string& id);

  std::vector<SessionRow> sessions(const StoreFilter& filter);
  std::vector<EventRow> events(const StoreFilter& filter);
  std::vector<ErrorRow> errors(const StoreFilter& filter);
  std::vector<ProblemRow> problems(const StoreFilter& filter);

  // The inspector's queries: pages newest first, each bounded by
  // PageQuery::limit and served from an index.
  // A text search reads the events newest first and stops once its slice
  // is spent, having checked one event at least.
  EventPage eventPage(const PageQuery& query);
  // One event: its data whole when at most `wholeBytes` long, else its first
  // `pieceBytes`; labels cut as `labelLength` says.
  std::optional<EventRow> event(std::int64_t id, std::size_t wholeBytes, std::size_t pieceBytes,
                                std::size_t labelLength);
  // `length` bytes of event `id`'s data from `offset` (fewer at its end),
  // with the data's whole length; nothing when there is no such event.
  std::optional<std::pair<std::string, std::int64_t>> eventData(std::int64_t id,
                                                                std::int64_t offset,
                                                                std::size_t length);
  std::vector<SessionSummary> sessionSummaries(int limit, std::size_t labelLength);
  // The hello document of session `id` as it was sent.
  std::optional<std::string> helloDocument(const std::string& id);
  std::vector<ErrorRow> errorPage(const PageQuery& query);
  std::vector<ProblemRow> problemPage(const PageQuery& query);
  // The raw body of the request that problem `id` is about.
  std::optional<std::string> problemBody(std::int64_t id);
  // Event types (cut to `labelLength` characters) with their whole lengths
  // and counts, most frequent first (at most `limit`).
  struct TypeCount {
    std::string type;
    std::int64_t typeLength = 0;
    std::int64_t count = 0;
  };
  std::vector<TypeCount> eventTypes(int limit, std::size_t labelLength);
  // Events received at or after `sinceMs`, counted per type (cut to
  // `labelLength` characters) in buckets of `bucketMs` (> 0) starting at
  // multiples of it.
  std::vector<RateBucket> eventRate(std::int64_t sinceMs, std::int64_t bucketMs,
                                    std::size_t labelLength);
  StoreTotals totals();

  // The inspector's reads stop after `limit` (0: never), and timedOut() then
  // says so: every read call starts its own clock. A read stopped so gives
  // what it had read by then.
  void setTimeLimit(std::chrono::milliseconds limit);
  bool timedOut();
  // A text search answers with what it found once it has searched for
  // `slice` (0: until the page is full or every event is searched).
  void setSearchSlice(std::chrono::milliseconds slice);


 private:
  explicit CollectorStore(sqlite3* db);
  bool addMissingColumns(std::string* error);
  bool prepareWriters(std::string* error);
  bool insertRows(const RequestRecord& rows, std::string* error);
  bool exec(const char* sql, std::string* error);
  bool fillKept(std::string* error);
  bool countEvents(const RequestRecord& rows, std::string* error);
  void startClock();  // with mutex_ held
  std::optional<std::int64_t> searchSliced(const PageQuery& query, sqlite3_stmt* s,
                                           std::vector<EventRow>& rows);
  static void onSearched(sqlite3_context* context, int count, sqlite3_value** values);
  static int onProgress(void* self);

  std::mutex mutex_;
  sqlite3* db_;
  // Prepared once, reused for every request (read-write mode only).
  sqlite3_stmt* insertSession_ = nullptr;
  sqlite3_stmt* insertEvent_ = nullptr;
  sqlite3_stmt* insertError_ = nullptr;
  sqlite3_stmt* insertProblem_ = nullptr;
  sqlite3_stmt* insertBody_ = nullptr;
  sqlite3_stmt* findSession_ = nullptr;
  sqlite3_stmt* indexText_ = nullptr;
  sqlite3_stmt* countType_ = nullptr;
  sqlite3_stmt* countSecond_ = nullptr;
  sqlite3_stmt* countSession_ = nullptr;
  sqlite3_stmt* countRows_ = nullptr;
  std::size_t searchBytes_ = kDefaultSearchBytes;
  // The time limit of reads (guarded by mutex_).
  std::chrono::milliseconds limit_{0};
  std::chrono::steady_clock::time_point deadline_;
  bool timedOut_ = false;
  // A search's slice: it ends at sliceEnd_ (when set), and sliceOver_ says
  // that the statement was stopped for that.
  std::chrono::milliseconds slice_{0};
  std::optional<std::chrono::steady_clock::time_point> sliceEnd_;
  bool sliceOver_ = false;
  // Until a search sees its first event: from then on it reads for half a
  // slice at least, so that a fixed cost before it (the index, a slow
  // machine) does not leave each answer moving on by one event.
  bool sliceWaiting_ = false;
  // The events the running search has seen between its bounds (`above`,
  // `below`; each id may be seen more than once): how many, and the lowest.
  struct Searched {
    std::int64_t above = INT64_MIN;
    std::int64_t below = INT64_MAX;
    std::int64_t count = 0;
    std::int64_t lowest = INT64_MAX;
  } searched_;
};

}  // namespace telvo::tool
