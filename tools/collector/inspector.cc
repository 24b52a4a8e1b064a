#include "collector/inspector.h"

#include <httplib.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "collector/inspector_assets.h"
#include "collector/row_json.h"

namespace telvo::tool {
namespace {

// Longest text a filter parameter may carry.
constexpr std::size_t kMaxFilterText = 1024;
constexpr int kDefaultPageRows = 100;
constexpr std::int64_t kDefaultPreview = 200;
constexpr std::int64_t kMaxPreview = 100000;
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

void answer(httplib::Response& res, const Json& body) {
  res.status = 200;
  res.set_header("Cache-Control", "no-store");
  res.set_content(jsonText(body), "application/json; charset=utf-8");
}

void refuse(httplib::Response& res, int status, const std::string& message) {
  res.status = status;
  res.set_content(jsonText(Json{{"status", "error"}, {"message", message}}),
                  "application/json; charset=utf-8");
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
    StoreTotals totals = store_.totals();
    Json types = Json::array();
    for (const auto& [type, count] : store_.eventTypes(200)) {
      types.push_back(Json{{"eventType", type}, {"count", count}});
    }
    Json connections = Json::object();
    if (connectionCounters_) {
      const ConnectionCounters c = connectionCounters_();
      connections = Json{{"open", c.open},
                         {"accepted", c.accepted},
                         {"headerTimeouts", c.headerTimeouts},
                         {"bodyTimeouts", c.bodyTimeouts},
                         {"headerOverflows", c.headerOverflows},
                         {"evicted", c.evicted},
                         {"refused", c.refused},
                         {"failedHandshakes", c.failedHandshakes}};
    }
    answer(res, Json{{"now", nowMs()},
                     {"sessions", totals.sessions},
                     {"events", totals.events},
                     {"errors", totals.errors},
                     {"problems", totals.problems},
                     {"lastEventId", totals.lastEventId},
                     {"lastErrorId", totals.lastErrorId},
                     {"lastProblemId", totals.lastProblemId},
                     {"eventTypes", types},
                     {"connections", connections}});
  });

  server.Get("/inspect/api/sessions",
             checked([this](const httplib::Request& req, httplib::Response& res) {
               Parameters parameters(req);
               int limit = static_cast<int>(
                   parameters.number("limit", 1, kMaxPageRows).value_or(kDefaultPageRows));
               Json rows = Json::array();
               for (const SessionSummary& summary : store_.sessionSummaries(limit)) {
                 Json row = sessionJson(summary.session);
                 row["eventCount"] = summary.eventCount;
                 row["lastSeen"] = summary.lastSeenMs;
                 rows.push_back(std::move(row));
               }
               answer(res, Json{{"sessions", rows}});
             }));

  server.Get("/inspect/api/events",
             checked([this](const httplib::Request& req, httplib::Response& res) {
               Parameters parameters(req);
               PageQuery query = parameters.page();
               query.sessionId = parameters.text("session");
               query.type = parameters.text("type");
               query.text = parameters.text("q");
               query.previewLength = static_cast<std::size_t>(
                   parameters.number("preview", 0, kMaxPreview).value_or(kDefaultPreview));
               Json rows = Json::array();
               for (const EventRow& row : store_.eventPage(query)) rows.push_back(eventJson(row));
               answer(res, Json{{"events", rows}});
             }));

  server.Get(R"(/inspect/api/events/(\d{1,18}))",
             [this](const httplib::Request& req, httplib::Response& res) {
               auto row = store_.event(std::stoll(req.matches[1]));
               if (!row) {
                 refuse(res, 404, "no such event");
                 return;
               }
               answer(res, eventJson(*row));
             });

  server.Get("/inspect/api/errors",
             checked([this](const httplib::Request& req, httplib::Response& res) {
               Parameters parameters(req);
               PageQuery query = parameters.page();
               query.sessionId = parameters.text("session");
               Json rows = Json::array();
               for (const ErrorRow& row : store_.errorPage(query)) rows.push_back(errorJson(row));
               answer(res, Json{{"errors", rows}});
             }));

  server.Get("/inspect/api/problems",
             checked([this](const httplib::Request& req, httplib::Response& res) {
               Parameters parameters(req);
               Json rows = Json::array();
               for (const ProblemRow& row : store_.problemPage(parameters.page())) {
                 Json out = problemJson(row);
                 out["layer"] = row.layer;
                 out["bodyBytes"] = row.bodyBytes ? Json(*row.bodyBytes) : Json(nullptr);
                 out["bodyLength"] = row.bodyLength ? Json(*row.bodyLength) : Json(nullptr);
                 rows.push_back(std::move(out));
               }
               answer(res, Json{{"problems", rows}});
             }));

  server.Get(R"(/inspect/api/problems/(\d{1,18})/body)", [this](const httplib::Request& req,
                                                                httplib::Response& res) {
    std::string id = req.matches[1];
    auto body = store_.problemBody(std::stoll(id));
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
        Json buckets = Json::array();
        for (const RateBucket& b : store_.eventRate(from, bucketMs)) {
          buckets.push_back(Json{{"start", b.startMs}, {"eventType", b.type}, {"count", b.count}});
        }
        answer(res, Json{{"from", from}, {"to", to}, {"bucketMs", bucketMs}, {"buckets", buckets}});
      }));
}

}  // namespace telvo::tool
