#include "collector/inspector.h"

#include <httplib.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>
#include <vector>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "collector/inspector_assets.h"
#include "collector/json_scan.h"
#include "collector/row_json.h"
#include "encoding/json_text.h"

namespace telvo::tool {
namespace {

// Longest text a filter parameter may carry.
constexpr std::size_t kMaxFilterText = 1024;
constexpr int kDefaultPageRows = 100;
constexpr std::int64_t kDefaultPreview = 200;
constexpr std::int64_t kMaxPreview = static_cast<std::int64_t>(kStoredPreviewBytes);
// Texts a device chose are cut to this many characters in every answer.
constexpr std::size_t kLabelLength = 200;
// The summary's event types.
constexpr int kSummaryTypes = 200;
// An event's detail has its data whole up to this size, else its first
// piece; pieces are at most kMaxPieceBytes.
constexpr std::size_t kDetailWholeBytes = 256 * 1024;
constexpr std::size_t kDetailPieceBytes = 64 * 1024;
constexpr std::int64_t kMaxPieceBytes = 1 << 20;
constexpr auto kPieceLimit = static_cast<std::size_t>(kMaxPieceBytes);
// The rate chart: at most a day back, buckets of a second to an hour, and
// at most kMaxBuckets of them.
constexpr std::int64_t kMaxPeriodSeconds = 24 * 3600;
constexpr std::int64_t kMaxBucketSeconds = 3600;
constexpr std::int64_t kMaxBuckets = 1440;

std::int64_t nowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

// A parameter that is not acceptable; answered 400 with its message.
struct BadParameter {
  std::string message;
};

// Reads the query parameters of one API request, checking each as it goes.
class Parameters {
 public:
  explicit Parameters(const httplib::Request& req) : req_(req) {}

  // A whole number in [min, max], or nothing when absent.
  std::optional<std::int64_t> number(const char* name, std::int64_t min, std::int64_t max) {
    if (!req_.has_param(name)) return std::nullopt;
    std::string text = req_.get_param_value(name);
    bool ok = !text.empty() && text.size() <= 19;
    std::int64_t value = 0;
    for (std::size_t i = 0; ok && i < text.size(); ++i) {
      char c = text[i];
      if (c < '0' || c > '9' || value > (INT64_MAX - (c - '0')) / 10) {
        ok = false;
      } else {
        value = value * 10 + (c - '0');
      }
    }
    if (!ok || value < min || value > max) {
      throw BadParameter{std::string("\"") + name + "\" must be a whole number from " +
                         std::to_string(min) + " to " + std::to_string(max)};
    }
    return value;
  }

  // A non-empty text of at most kMaxFilterText bytes, or nothing when absent
  // or empty.
  std::optional<std::string> text(const char* name) {
    if (!req_.has_param(name)) return std::nullopt;
    std::string value = req_.get_param_value(name);
    if (value.size() > kMaxFilterText) {
      throw BadParameter{std::string("\"") + name + "\" is longer than " +
                         std::to_string(kMaxFilterText) + " bytes"};
    }
    if (value.empty()) return std::nullopt;
    return value;
  }

  PageQuery page() {
    PageQuery query;
    query.afterId = number("after", 0, INT64_MAX);
    query.beforeId = number("before", 0, INT64_MAX);
    query.sinceMs = number("since", 0, INT64_MAX);
    query.limit = static_cast<int>(number("limit", 1, kMaxPageRows).value_or(kDefaultPageRows));
    return query;
  }

 private:
  const httplib::Request& req_;
};

// An answer written as JSON text, with what the store holds spliced into it
// as it is: stored JSON is never parsed into a tree to be written again.
class JsonText {
 public:
  JsonText& open(char bracket) {
    separate();
    out_ += bracket;
    first_ = true;
    return *this;
  }
  JsonText& close(char bracket) {
    out_ += bracket;
    first_ = false;
    return *this;
  }
  JsonText& key(std::string_view name) {
    separate();
    encoding::appendJsonString(out_, name);
    out_ += ':';
    first_ = true;
    return *this;
  }
  JsonText& text(std::string_view value) {
    separate();
    encoding::appendJsonString(out_, value);  // invalid UTF-8 becomes U+FFFD
    return *this;
  }
  JsonText& textOrNull(const std::optional<std::string>& value) {
    return value ? text(*value) : null();
  }
  JsonText& number(std::int64_t value) {
    separate();
    out_ += std::to_string(value);
    return *this;
  }
  JsonText& number(const std::optional<std::int64_t>& value) {
    return value ? number(*value) : null();
  }
  JsonText& boolean(bool value) {
    separate();
    out_ += value ? "true" : "false";
    return *this;
  }
  JsonText& null() {
    separate();
    out_ += "null";
    return *this;
  }
  // Stored JSON as it is; text that is not JSON (a database from elsewhere)
  // goes in as a string.
  JsonText& json(std::string_view stored) {
    JsonSpan span;
    if (!checkJson(stored, kStoredLimits, &span).empty()) return text(stored);
    separate();
    out_ += stored.substr(span.begin, span.size());
    return *this;
  }
  // A text a device chose, cut by the store: `name` and, when it was cut,
  // `nameLength` with its whole length.
  JsonText& label(std::string_view name, std::string_view value, std::int64_t length) {
    key(name).text(value);
    if (length > static_cast<std::int64_t>(value.size())) {
      key(std::string(name) + "Length").number(length);
    }
    return *this;
  }
  JsonText& labelOrNull(std::string_view name, const std::optional<std::string>& value,
                        std::int64_t length) {
    if (!value) return key(name).null();
    return label(name, *value, length);
  }
  std::string take() { return std::move(out_); }

 private:
  static constexpr JsonLimits kStoredLimits{1000, std::size_t{1} << 30};
  void separate() {
    if (!first_) out_ += ',';
    first_ = false;
  }
  std::string out_;
  bool first_ = true;
};

void answer(httplib::Response& res, std::string body) {
  res.status = 200;
  res.set_header("Cache-Control", "no-store");
  res.set_content(std::move(body), "application/json; charset=utf-8");
}

void answer(httplib::Response& res, const Json& body) { answer(res, jsonText(body)); }

void refuse(httplib::Response& res, int status, const std::string& message) {
  res.status = status;
  res.set_content(jsonText(Json{{"status", "error"}, {"message", message}}),
                  "application/json; charset=utf-8");
}

// An event of a list, or its detail (`detail`: the data in part is a piece
// named "dataPiece", else a preview named "dataPreview").
void writeEvent(JsonText& out, const EventRow& row, bool detail) {
  out.open('{');
  out.key("id").number(row.id);
  out.label("sessionId", row.sessionId, row.sessionIdLength);
  out.label("eventType", row.type, row.typeLength);
  out.key("eventTime").number(row.eventMs);
  out.key("received").number(row.receivedMs);
  if (row.dataWhole) {
    out.key("eventData").json(row.dataJson);
  } else {
    out.key(detail ? "dataPiece" : "dataPreview").text(row.dataJson);
    out.key("dataLength").number(row.dataLength);
  }
  out.close('}');
}

// Runs `handler`, answering 400 when a parameter is refused.
template <typename Handler>
httplib::Server::Handler checked(Handler handler) {
  return [handler](const httplib::Request& req, httplib::Response& res) {
    try {
      handler(req, res);
    } catch (const BadParameter& bad) {
      refuse(res, 400, bad.message);
    }
  };
}

const char* contentType(std::string_view name) {
  auto endsWith = [&](std::string_view suffix) {
    return name.size() >= suffix.size() && name.substr(name.size() - suffix.size()) == suffix;
  };
  if (endsWith(".html")) return "text/html; charset=utf-8";
  if (endsWith(".js")) return "text/javascript; charset=utf-8";
  if (endsWith(".css")) return "text/css; charset=utf-8";
  if (endsWith(".svg")) return "image/svg+xml";
  return "application/octet-stream";
}

void serveAsset(const std::string& name, httplib::Response& res) {
  const InspectorAsset* asset = findInspectorAsset(name);
  if (!asset) {
    refuse(res, 404, "no such file");
    return;
  }
  res.status = 200;
  // The page loads nothing but its own files and API; no inline script runs.
  res.set_header("Content-Security-Policy",
                 "default-src 'self'; script-src 'self'; style-src 'self'; img-src 'self' data:; "
                 "object-src 'none'; base-uri 'none'; frame-ancestors 'none'");
  res.set_header("Referrer-Policy", "no-referrer");
  res.set_content(reinterpret_cast<const char*>(asset->data), asset->size, contentType(name));
}

}  // namespace

ReaderPool::ReaderPool(std::vector<std::unique_ptr<CollectorStore>> readers,
                       std::chrono::milliseconds timeLimit,
                       std::chrono::milliseconds searchSlice)
    : readers_(std::move(readers)), timeLimit_(timeLimit) {
  for (auto& reader : readers_) {
    reader->setTimeLimit(timeLimit);
    reader->setSearchSlice(searchSlice);
    free_.push_back(reader.get());
  }
}

ReaderPool::Lent ReaderPool::borrow() {
  std::unique_lock<std::mutex> lock(mutex_);
  // Each reader is held at most for its time limit (and the writing of an
  // answer): a wait of twice that means something is stuck.
  if (!available_.wait_for(lock, 2 * timeLimit_ + std::chrono::seconds(1),
                           [this] { return !free_.empty(); })) {
    return Lent(this, nullptr);
  }
  CollectorStore* reader = free_.back();
  free_.pop_back();
  return Lent(this, reader);
}

void ReaderPool::giveBack(CollectorStore* reader) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    free_.push_back(reader);
  }
  available_.notify_one();
}

void Inspector::withReader(httplib::Response& res, bool search,
                           const std::function<void(CollectorStore&)>& work) {
  auto reader = readers_.borrow();
  if (!reader) {
    note(&Inspector::busy_, "an inspector query found no reader free in time and was answered 503");
    refuse(res, 503, "the inspector is busy: try again");
    return;
  }
  work(*reader);
  if (reader->timedOut()) {
    const std::string limit = std::to_string(readers_.timeLimit().count()) + " ms";
    note(&Inspector::timedOut_, "an inspector query took more than " + limit +
                                    " (--query-time-ms) and was stopped: answered 503");
    refuse(res, 503,
           search ? "search took too long (more than " + limit +
                        "): narrow it to a type or a session, or search for a longer text"
                  : "query took too long (more than " + limit + ")");
  }
}

void Inspector::note(std::atomic<std::uint64_t> Inspector::*counter, const std::string& what) {
  // Counted in the summary; said once in the log.
  if ((this->*counter)++ == 0 && log_) log_(what + " (counted in the summary from now on)");
}

void Inspector::installRoutes(httplib::Server& server) {
  auto page = [](const httplib::Request&, httplib::Response& res) {
    serveAsset("index.html", res);
  };
  server.Get("/", page);
  server.Get("/inspect/", page);
  server.Get("/favicon.ico", [](const httplib::Request&, httplib::Response& res) {
    serveAsset("favicon.svg", res);
  });
  server.Get(
      R"(/inspect/static/([A-Za-z0-9_.-]+))",
      [](const httplib::Request& req, httplib::Response& res) { serveAsset(req.matches[1], res); });

  server.Get("/inspect/api/summary", [this](const httplib::Request&, httplib::Response& res) {
    withReader(res, false, [&](CollectorStore& store) {
    StoreTotals totals = store.totals();
    JsonText out;
    out.open('{');
    out.key("now").number(nowMs());
    out.key("sessions").number(totals.sessions);
    out.key("events").number(totals.events);
    out.key("errors").number(totals.errors);
    out.key("problems").number(totals.problems);
    out.key("lastEventId").number(totals.lastEventId);
    out.key("lastErrorId").number(totals.lastErrorId);
    out.key("lastProblemId").number(totals.lastProblemId);
    out.key("eventTypes").open('[');
    for (const auto& type : store.eventTypes(kSummaryTypes, kLabelLength)) {
      out.open('{');
      out.label("eventType", type.type, type.typeLength);
      out.key("count").number(type.count);
      out.close('}');
    }
    out.close(']');
    out.key("connections").open('{');
    if (connectionCounters_) {
      const ConnectionCounters c = connectionCounters_();
      auto count = [](std::uint64_t n) { return static_cast<std::int64_t>(n); };
      out.key("open").number(count(c.open));
      out.key("accepted").number(count(c.accepted));
      out.key("headerTimeouts").number(count(c.headerTimeouts));
      out.key("bodyTimeouts").number(count(c.bodyTimeouts));
      out.key("headerOverflows").number(count(c.headerOverflows));
      out.key("evicted").number(count(c.evicted));
      out.key("refused").number(count(c.refused));
      out.key("failedHandshakes").number(count(c.failedHandshakes));
    }
    out.close('}');
    out.key("queries").open('{');
    out.key("timedOut").number(static_cast<std::int64_t>(timedOut_.load()));
    out.key("busy").number(static_cast<std::int64_t>(busy_.load()));
    out.close('}');
    out.close('}');
    answer(res, out.take());
    });
  });

  server.Get("/inspect/api/sessions",
             checked([this](const httplib::Request& req, httplib::Response& res) {
               Parameters parameters(req);
               int limit = static_cast<int>(
                   parameters.number("limit", 1, kMaxPageRows).value_or(kDefaultPageRows));
               withReader(res, false, [&](CollectorStore& store) {
               JsonText out;
               out.open('{').key("sessions").open('[');
               for (const SessionSummary& summary : store.sessionSummaries(limit, kLabelLength)) {
                 const SessionRow& s = summary.session;
                 auto length = [&](const char* member, const std::optional<std::string>& value) {
                   for (const auto& [name, whole] : summary.cutMembers) {
                     if (name == member) return whole;
                   }
                   return static_cast<std::int64_t>(value ? value->size() : 0);
                 };
                 out.open('{');
                 out.key("sessionId").text(s.id);
                 out.key("received").number(s.receivedMs);
                 out.key("serviceTime").number(s.serviceMs);
                 out.key("throttled").boolean(s.throttled);
                 // The hello's members as the collector read them (each cut,
                 // with its whole length); the whole document is a download.
                 out.key("hello").open('{');
                 for (auto [name, value] :
                      {std::pair{"propertyName", &s.property},
                       std::pair{"applicationName", &s.application},
                       std::pair{"applicationVersion", &s.applicationVersion},
                       std::pair{"platformName", &s.platform},
                       std::pair{"deviceType", &s.deviceType},
                       std::pair{"deviceVersion", &s.deviceVersion},
                       std::pair{"clientDeviceId", &s.clientDeviceId},
                       std::pair{"deviceModel", &s.deviceModel},
                       std::pair{"telvoUUIDToken", &s.uuidToken}}) {
                   if (*value) out.label(name, **value, length(name, *value));
                 }
                 out.close('}');
                 out.key("helloLength").number(summary.helloLength);
                 out.labelOrNull("cookie", s.cookie, length("cookie", s.cookie));
                 out.key("eventCount").number(summary.eventCount);
                 out.key("lastSeen").number(summary.lastSeenMs);
                 out.close('}');
               }
               out.close(']').close('}');
               answer(res, out.take());
               });
             }));

  server.Get(R"(/inspect/api/sessions/([0-9a-f-]{1,64})/hello)",
             [this](const httplib::Request& req, httplib::Response& res) {
               withReader(res, false, [&](CollectorStore& store) {
                 auto hello = store.helloDocument(req.matches[1]);
                 if (!hello) {
                   refuse(res, 404, "no such session");
                   return;
                 }
                 res.status = 200;
                 res.set_header("Content-Disposition", "attachment; filename=\"hello.json\"");
                 res.set_content(std::move(*hello), "application/json; charset=utf-8");
               });
             });

  server.Get("/inspect/api/events",
             checked([this](const httplib::Request& req, httplib::Response& res) {
               Parameters parameters(req);
               PageQuery query = parameters.page();
               query.sessionId = parameters.text("session");
               query.type = parameters.text("type");
               query.text = parameters.text("q");
               query.previewLength = static_cast<std::size_t>(
                   parameters.number("preview", 1, kMaxPreview).value_or(kDefaultPreview));
               query.labelLength = kLabelLength;
               withReader(res, query.text.has_value(), [&](CollectorStore& store) {
                 const EventPage page = store.eventPage(query);
                 JsonText out;
                 out.open('{').key("events").open('[');
                 for (const EventRow& row : page.rows) writeEvent(out, row, false);
                 out.close(']');
                 // A search that spent its slice: the next request goes on
                 // below this id (before=).
                 if (page.searchedTo) out.key("searchedTo").number(*page.searchedTo);
                 out.close('}');
                 answer(res, out.take());
               });
             }));

  server.Get(R"(/inspect/api/events/(\d{1,18}))",
             [this](const httplib::Request& req, httplib::Response& res) {
               withReader(res, false, [&](CollectorStore& store) {
                 auto row = store.event(std::stoll(req.matches[1]), kDetailWholeBytes,
                                        kDetailPieceBytes, kLabelLength);
                 if (!row) {
                   refuse(res, 404, "no such event");
                   return;
                 }
                 JsonText out;
                 writeEvent(out, *row, true);
                 answer(res, out.take());
               });
             });

  // An event's data as bytes: a piece (offset, length) or, without them,
  // the whole as a download, read from the store a piece at a time.
  server.Get(R"(/inspect/api/events/(\d{1,18})/data)",
             checked([this](const httplib::Request& req, httplib::Response& res) {
               const std::int64_t id = std::stoll(req.matches[1]);
               Parameters parameters(req);
               auto offset = parameters.number("offset", 0, INT64_MAX);
               auto length = parameters.number("length", 1, kMaxPieceBytes);
               if (offset || length) {
                 withReader(res, false, [&](CollectorStore& store) {
                   auto piece = store.eventData(id, offset.value_or(0),
                                                static_cast<std::size_t>(length.value_or(
                                                    kDetailPieceBytes)));
                   if (!piece) {
                     refuse(res, 404, "no such event");
                     return;
                   }
                   res.status = 200;
                   res.set_header("Cache-Control", "no-store");
                   res.set_content(std::move(piece->first), "text/plain; charset=utf-8");
                 });
                 return;
               }
               std::optional<std::pair<std::string, std::int64_t>> first;
               withReader(res, false,
                          [&](CollectorStore& store) { first = store.eventData(id, 0, 0); });
               if (!first) {
                 if (res.status < 400) refuse(res, 404, "no such event");
                 return;
               }
               const auto total = static_cast<std::size_t>(first->second);
               res.status = 200;
               res.set_header("Content-Disposition", "attachment; filename=\"event-" +
                                                         std::to_string(id) + "-data.json\"");
               res.set_content_provider(
                   total, "application/json",
                   [this, id](std::size_t at, std::size_t wanted, httplib::DataSink& sink) {
                     auto reader = readers_.borrow();
                     if (!reader) return false;
                     auto piece = reader->eventData(id, static_cast<std::int64_t>(at),
                                                    std::min(wanted, kPieceLimit));
                     if (!piece || piece->first.empty()) return false;
                     return sink.write(piece->first.data(), piece->first.size());
                   });
             }));

  server.Get("/inspect/api/errors",
             checked([this](const httplib::Request& req, httplib::Response& res) {
               Parameters parameters(req);
               PageQuery query = parameters.page();
               query.sessionId = parameters.text("session");
               query.previewLength = static_cast<std::size_t>(
                   parameters.number("preview", 1, kMaxPreview).value_or(kMaxPreview));
               query.labelLength = kLabelLength;
               withReader(res, false, [&](CollectorStore& store) {
               JsonText out;
               out.open('{').key("errors").open('[');
               for (const ErrorRow& row : store.errorPage(query)) {
                 out.open('{');
                 out.key("id").number(row.id);
                 out.label("sessionId", row.sessionId, row.sessionIdLength);
                 out.labelOrNull("applicationName", row.application, row.applicationLength);
                 if (row.errorCodeLength > static_cast<std::int64_t>(row.errorCodeJson.size())) {
                   out.label("errorCode", row.errorCodeJson, row.errorCodeLength);
                 } else {
                   out.key("errorCode").json(row.errorCodeJson);
                 }
                 out.key("errorTime").number(row.errorMs);
                 if (row.dataWhole) {
                   out.key("data").json(row.dataJson);
                 } else {
                   out.key("dataPreview").text(row.dataJson);
                   out.key("dataLength").number(row.dataLength);
                 }
                 out.key("received").number(row.receivedMs);
                 out.close('}');
               }
               out.close(']').close('}');
               answer(res, out.take());
               });
             }));

  server.Get("/inspect/api/problems",
             checked([this](const httplib::Request& req, httplib::Response& res) {
               Parameters parameters(req);
               PageQuery query = parameters.page();
               query.labelLength = kLabelLength;
               withReader(res, false, [&](CollectorStore& store) {
               JsonText out;
               out.open('{').key("problems").open('[');
               for (const ProblemRow& row : store.problemPage(query)) {
                 out.open('{');
                 out.key("id").number(row.id);
                 out.key("received").number(row.receivedMs);
                 out.key("method").text(row.method);
                 out.key("path").text(row.path);
                 out.key("description").text(row.description);
                 out.key("layer").text(row.layer);
                 out.key("bodyBytes").number(row.bodyBytes);
                 out.key("bodyLength").number(row.bodyLength);
                 out.close('}');
               }
               out.close(']').close('}');
               answer(res, out.take());
               });
             }));

  server.Get(R"(/inspect/api/problems/(\d{1,18})/body)", [this](const httplib::Request& req,
                                                                httplib::Response& res) {
    std::string id = req.matches[1];
    std::optional<std::string> body;
    withReader(res, false, [&](CollectorStore& store) { body = store.problemBody(std::stoll(id)); });
    if (res.status >= 400) return;
    if (!body) {
      refuse(res, 404, "no body kept for this problem");
      return;
    }
    res.status = 200;
    res.set_header("Content-Disposition", "attachment; filename=\"problem-" + id + "-body.bin\"");
    res.set_content(*body, "application/octet-stream");
  });

  server.Get(
      "/inspect/api/rate", checked([this](const httplib::Request& req, httplib::Response& res) {
        Parameters parameters(req);
        std::int64_t period = parameters.number("period", 1, kMaxPeriodSeconds).value_or(300);
        std::int64_t bucket =
            parameters.number("bucket", 1, kMaxBucketSeconds).value_or(period > 600 ? 60 : 1);
        if (period / bucket > kMaxBuckets) {
          throw BadParameter{"\"period\" / \"bucket\" must be at most " +
                             std::to_string(kMaxBuckets) + " buckets"};
        }
        std::int64_t bucketMs = bucket * 1000;
        std::int64_t to = nowMs();
        std::int64_t from = (to - period * 1000) / bucketMs * bucketMs;
        withReader(res, false, [&](CollectorStore& store) {
          Json buckets = Json::array();
          for (const RateBucket& b : store.eventRate(from, bucketMs, kLabelLength)) {
            buckets.push_back(
                Json{{"start", b.startMs}, {"eventType", b.type}, {"count", b.count}});
          }
          answer(res,
                 Json{{"from", from}, {"to", to}, {"bucketMs", bucketMs}, {"buckets", buckets}});
        });
      }));
}

}  // namespace telvo::tool
