#include "collector/collector_server.h"

#include <httplib.h>

#include "encoding/utf8.h"
#include <arpa/inet.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/socket.h>

#include <cctype>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <utility>

namespace telvo::tool {
namespace {

// Where the pre-routing handler keeps a request's Content-Encoding and
// Content-Type labels.
constexpr const char* kReceivedEncodingHeader = "X-Telvo-Received-Content-Encoding";
constexpr const char* kReceivedTypeHeader = "X-Telvo-Received-Content-Type";
constexpr const char* kDefaultConfigFile = "telvoanalytics.json";

std::int64_t nowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

std::optional<std::string> header(const httplib::Request& req, const char* name) {
  if (!req.has_header(name)) return std::nullopt;
  return req.get_header_value(name);
}

void answerJson(httplib::Response& res, int status, const Json& body) {
  res.status = status;
  // Device bytes that are not UTF-8 become U+FFFD rather than an exception.
  res.set_content(body.dump(-1, ' ', false, Json::error_handler_t::replace), "application/json");
}

void answerError(httplib::Response& res, int status, const std::string& message) {
  answerJson(res, status, Json{{"status", "error"}, {"message", message}});
}

// The HTTP library listens with a backlog of 5, so a burst of connections
// (thousands of idle ones, say) has the kernel drop handshakes and the
// clients retry a second later. Listening again on the same socket raises it.
void widenListenBacklog(int port) {
  for (int fd = 0; fd < 4096; ++fd) {
    int listening = 0;
    socklen_t size = sizeof listening;
    if (::getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listening, &size) != 0 || !listening) {
      continue;
    }
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    if (::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) continue;
    int bound = 0;
    if (address.ss_family == AF_INET) {
      bound = ntohs(reinterpret_cast<sockaddr_in*>(&address)->sin_port);
    } else if (address.ss_family == AF_INET6) {
      bound = ntohs(reinterpret_cast<sockaddr_in6*>(&address)->sin6_port);
    }
    if (bound == port) ::listen(fd, SOMAXCONN);
  }
}

// The host of a Host header, without its port; IPv6 addresses keep their
// brackets.
std::string hostName(const std::string& host) {
  if (!host.empty() && host.front() == '[') {
    auto end = host.find(']');
    return end == std::string::npos ? host : host.substr(0, end + 1);
  }
  return host.substr(0, host.find(':'));
}

bool isAddress(const std::string& name) {
  unsigned char address[sizeof(in6_addr)];
  if (name.size() > 2 && name.front() == '[' && name.back() == ']') {
    return inet_pton(AF_INET6, name.substr(1, name.size() - 2).c_str(), address) == 1;
  }
  return inet_pton(AF_INET, name.c_str(), address) == 1;
}

bool sameNameIgnoringCase(const std::string& a, const std::string& b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (std::tolower(static_cast<unsigned char>(a[i])) !=
        std::tolower(static_cast<unsigned char>(b[i]))) {
      return false;
    }
  }
  return true;
}

// A header's value for a problem line: in quotes, cut when long, bytes that
// are not printable ASCII written as \xHH.
std::string shownHeader(const std::string& value) {
  constexpr std::size_t kShown = 120;
  std::string out = "\"";
  for (std::size_t i = 0; i < value.size() && i < kShown; ++i) {
    const auto c = static_cast<unsigned char>(value[i]);
    if (c >= 0x20 && c < 0x7F && c != '"' && c != '\\') {
      out += static_cast<char>(c);
    } else {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\x%02X", c);
      out += escaped;
    }
  }
  out += "\"";
  if (value.size() > kShown) out += "... (" + std::to_string(value.size()) + " bytes)";
  return out;
}

// "10 s" (or "1.5 s") for a problem line.
std::string seconds(std::chrono::milliseconds time) {
  char text[32];
  std::snprintf(text, sizeof text, "%g s", static_cast<double>(time.count()) / 1000.0);
  return text;
}

// "first K of N bytes kept" for a problem line.
std::string keptText(std::size_t kept, std::size_t length) {
  return "first " + std::to_string(kept) + " of " + std::to_string(length) + " bytes kept";
}

// The request's Content-Length when it is a plain decimal number a size_t
// holds; nothing when absent. `*valid` is false for anything else.
std::optional<std::size_t> announcedLength(const httplib::Request& req, bool* valid) {
  *valid = true;
  if (!req.has_header("Content-Length")) return std::nullopt;
  const std::string text = req.get_header_value("Content-Length");
  std::size_t value = 0;
  *valid = !text.empty() && text.size() <= 18;
  for (char c : text) {
    if (c < '0' || c > '9') *valid = false;
    if (*valid) value = value * 10 + static_cast<std::size_t>(c - '0');
  }
  return value;
}

bool isPlainSegment(const std::string& segment) {
  return !segment.empty() && segment != "." && segment != ".." &&
         segment.find('\0') == std::string::npos && segment.find('\\') == std::string::npos;
}

}  // namespace

CollectorServer::ReadBody CollectorServer::readBody(const httplib::Request& req,
                                                    const httplib::ContentReader& reader,
                                                    std::size_t keep, std::size_t limit) {
  ReadBody body;
  bool valid = true;
  auto announced = announcedLength(req, &valid);
  if (!valid) {
    body.complete = false;
    return body;
  }
  // A body up to twice the limit is read to its end, so that the client,
  // which sends all of it before reading the answer, gets the answer; a
  // larger one is not read at all.
  const std::size_t drained = limit > SIZE_MAX / 2 ? SIZE_MAX : 2 * limit;
  if (announced && *announced > drained) {
    body.complete = false;
    body.tooLarge = true;
    body.length = *announced;
    return body;
  }
  body.bytes.reserve(std::min(announced.value_or(0), keep));
  const bool read = reader([&](const char* data, std::size_t size) {
    if (size > drained - body.length) {
      body.length += size;
      return false;
    }
    if (body.bytes.size() < keep) body.bytes.append(data, std::min(size, keep - body.bytes.size()));
    body.length += size;
    return true;
  });
  body.complete = read;
  body.tooLarge = body.length > limit;
  return body;
}

void CollectorServer::closeAfterAnswer(const httplib::Request& req) {
  // httplib answers "Connection: close" to a request that asked for it.
  auto& request = const_cast<httplib::Request&>(req);
  request.headers.erase("Connection");
  request.headers.emplace("Connection", "close");
  TlsServer::closeAfterAnswer();
}

CollectorServer::CollectorServer(CollectorOptions options, CollectorStore& store,
                                 ReaderPool& readers)
    : options_(std::move(options)),
      store_(store),
      inspector_(readers),
      random_(std::random_device{}()) {}

CollectorServer::~CollectorServer() { stop(); }

Json CollectorServer::defaultConfigDocument(const std::string& servicesUrl) {
  return Json{{"default",
               {{"enabled", true},
                {"batchMode", "timer"},
                {"batchModeAmount", "2"},
                {"servicesUrl", servicesUrl},
                {"batchApi", "/api/postEvent/batch"},
                {"helloApi", "/api/hello"},
                {"telvoUserIdEnabled", "true"}}},
              {"count", {{"batchMode", 1}, {"batchAmount", 3}}}};
}

std::string CollectorServer::baseUrl() const {
  return "https://" + options_.host + ":" + std::to_string(port_);
}

bool CollectorServer::bind(std::string* error) {
  server_ = std::make_unique<TlsServer>(options_.certFile.string(), options_.keyFile.string(),
                                        options_.connections);
  if (!server_->is_valid()) {
    if (error) {
      *error = "cannot load the certificate " + options_.certFile.string() + " and key " +
               options_.keyFile.string();
    }
    return false;
  }
  // What httplib reads itself (the body of a read, which has none) stops at
  // twice the body limit, as the post handlers' draining does.
  server_->set_payload_max_length(
      options_.maxBodyBytes > SIZE_MAX / 2 ? SIZE_MAX : 2 * options_.maxBodyBytes);
  server_->set_default_headers({{"X-Content-Type-Options", "nosniff"}});
  installRoutes();
  if (options_.port == 0) {
    port_ = server_->bind_to_any_port(options_.host);
    if (port_ < 0) port_ = 0;
  } else {
    port_ = server_->bind_to_port(options_.host, options_.port) ? options_.port : 0;
  }
  if (port_ != 0) widenListenBacklog(port_);
  if (port_ == 0) {
    if (error) {
      *error = "cannot listen on " + options_.host + ":" + std::to_string(options_.port) +
               " (in use, or not allowed)";
    }
    return false;
  }
  return true;
}

bool CollectorServer::serve() { return server_ && server_->listen_after_bind(); }

void CollectorServer::stop() {
  if (server_) server_->stopAll();
}

ConnectionCounters CollectorServer::connectionCounters() {
  return server_ ? server_->counters() : ConnectionCounters{};
}

void CollectorServer::installRoutes() {
  // httplib inflates any body labelled "Content-Encoding: gzip" before a
  // handler sees it, and refuses the request when that fails; it parses a
  // body labelled as a form (refusing one over 8 KB) or as multipart. The
  // library sends "gzip" on Base64 text (a fixed convention of the
  // envelope), and a misconfigured client might send anything, so both
  // labels are moved aside here, before the body is read, and checked by
  // the post handlers instead. The request object is httplib's own mutable
  // one, handed to this hook as const.
  server_->set_pre_routing_handler([this](const httplib::Request& req, httplib::Response& res) {
    auto& request = const_cast<httplib::Request&>(req);
    for (auto [label, kept] : {std::pair{"Content-Encoding", kReceivedEncodingHeader},
                               std::pair{"Content-Type", kReceivedTypeHeader}}) {
      if (!request.has_header(label)) continue;
      std::string value = request.get_header_value(label);
      request.headers.erase(label);
      request.headers.emplace(kept, std::move(value));
    }
    if (auto why = TlsServer::refusalOf(req)) {
      closeAfterAnswer(req);
      recordProblem(req, *why);
      answerError(res, 431, *why);
      return httplib::Server::HandlerResponse::Handled;
    }
    // httplib would read the body of any other method whole (a chunked one
    // without end): such a request is answered before it is read, and so is
    // one whose length is given twice over.
    const bool mayHaveBody = req.method == "POST" || req.method == "PUT" ||
                             req.method == "PATCH" || req.method == "DELETE";
    const bool chunked = req.has_header("Transfer-Encoding");
    const bool sized = req.has_header("Content-Length");
    if ((!mayHaveBody && (chunked || (sized && req.get_header_value("Content-Length") != "0"))) ||
        (chunked && sized)) {
      const std::string why = chunked && sized
                                  ? "request gives both Content-Length and Transfer-Encoding"
                                  : "a " + req.method + " request carries no body";
      closeAfterAnswer(req);
      recordProblem(req, why);
      answerError(res, 400, why);
      return httplib::Server::HandlerResponse::Handled;
    }
    // Reads are refused here; writes in their handlers, which decide what
    // to do with their bodies.
    if (req.method == "GET" || req.method == "HEAD") {
      if (auto why = refusal(req)) {
        recordProblem(req, *why);
        answerError(res, 403, *why);
        return httplib::Server::HandlerResponse::Handled;
      }
    }
    return httplib::Server::HandlerResponse::Unhandled;
  });

  server_->Get(
      R"(/mdrv/telvo/config/([^/]+)/([^/]+)/([^/]+))",
      [this](const httplib::Request& req, httplib::Response& res) { handleConfig(req, res); });
  // Posts read their bodies themselves (httplib's own reading keeps the
  // whole of any body, for any path), so that each is read no further than
  // it is of use.
  using Reading = httplib::Server::HandlerWithContentReader;
  auto post = [this](PostKind kind) {
    return Reading([this, kind](const httplib::Request& req, httplib::Response& res,
                                const httplib::ContentReader& reader) {
      handlePost(kind, req, res, reader);
    });
  };
  server_->Post("/api/hello", post(PostKind::kHello));
  server_->Post("/api/postEvent/batch.json", post(PostKind::kBatch));
  server_->Post("/api/postEvent/error", post(PostKind::kError));
  Reading stray([this](const httplib::Request& req, httplib::Response& res,
                       const httplib::ContentReader& reader) { handleStray(req, res, reader); });
  server_->Post(".*", stray);
  server_->Put(".*", stray);
  server_->Patch(".*", stray);
  server_->Delete(".*", stray);

  inspector_.setConnectionCounters([this] { return server_->counters(); });
  inspector_.setLog([this](const std::string& line) { log(line); });
  inspector_.installRoutes(*server_);

  server_->set_error_handler(httplib::Server::HandlerWithResponse(
      [this](const httplib::Request& req, httplib::Response& res) {
        handleError(req, res);
        return httplib::Server::HandlerResponse::Handled;
      }));
  server_->set_exception_handler(
      [this](const httplib::Request& req, httplib::Response& res, std::exception_ptr ep) {
        std::string what = "unknown exception";
        try {
          if (ep) std::rethrow_exception(ep);
        } catch (const std::exception& e) {
          what = e.what();
        } catch (...) {
        }
        recordProblem(req, "collector failed on this request: " + what);
        answerError(res, 500, "collector failed: " + what);
      });
  if (options_.logRequests) {
    server_->set_logger([this](const httplib::Request& req, const httplib::Response& res) {
      // An open inspector polls every second: only its failures are worth a line.
      bool inspector =
          req.path == "/" || req.path == "/favicon.ico" || req.path.rfind("/inspect/", 0) == 0;
      if (inspector && res.status < 400) return;
      log(req.method + " " + req.path + " -> " + std::to_string(res.status));
    });
  }
}

void CollectorServer::handleConfig(const httplib::Request& req, httplib::Response& res) {
  std::string app = req.matches[1];
  std::string site = req.matches[2];
  std::string file = req.matches[3];
  if (!isPlainSegment(app) || !isPlainSegment(site) || !isPlainSegment(file)) {
    recordProblem(req, "configuration path with an unusable segment");
    answerError(res, 404, "no such configuration document");
    return;
  }
  if (!options_.configDir) {
    if (file != kDefaultConfigFile) {
      recordProblem(req, "no configuration document named \"" + file +
                             "\" (the built-in one is \"" + kDefaultConfigFile + "\")");
      answerError(res, 404, "no such configuration document");
      return;
    }
    answerJson(res, 200, defaultConfigDocument(baseUrl()));
    return;
  }
  std::filesystem::path path = *options_.configDir / app / site / file;
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    recordProblem(req, "no configuration document at " + path.string());
    answerError(res, 404, "no such configuration document");
    return;
  }
  std::ostringstream text;
  text << in.rdbuf();
  std::string body = text.str();
  if (!Json::accept(body)) {
    // Served anyway: a broken document is a case a client must survive.
    recordProblem(req, "configuration document " + path.string() + " is not valid JSON");
  }
  res.status = 200;
  res.set_content(body, "application/json");
}

void CollectorServer::handlePost(PostKind kind, const httplib::Request& req,
                                 httplib::Response& res, const httplib::ContentReader& reader) {
  if (auto why = refusal(req)) {
    refuse(req, res, reader, 403, *why);
    return;
  }
  for (auto [name, kept] : {std::pair{"Content-Type", kReceivedTypeHeader},
                            std::pair{"Content-Encoding", kReceivedEncodingHeader},
                            std::pair{"Cookie", "Cookie"}}) {
    auto value = header(req, kept);
    if (value && !utf8::isValid(*value)) {
      refuse(req, res, reader, 400,
             std::string("the ") + name + " header is not UTF-8 text: " + shownHeader(*value));
      return;
    }
  }
  ReadBody body = readBody(req, reader, options_.maxBodyBytes, options_.maxBodyBytes);
  if (!body.complete || body.tooLarge) {
    refuseBody(req, res, body);
    return;
  }
  std::int64_t received = nowMs();
  PostHeaders headers;
  headers.contentType = header(req, kReceivedTypeHeader);
  headers.contentEncoding = header(req, kReceivedEncodingHeader);
  headers.cookie = header(req, "Cookie");
  CheckedPost checked = PostChecker::check(
      kind, headers, body.bytes, [this](const std::string& id) { return store_.hasSession(id); },
      options_.check);

  RequestRecord record;
  record.receivedMs = received;
  record.text = checked.text;
  Json answer = Json{{"status", "ok"}};
  if (kind == PostKind::kHello && checked.decoded) {
    SessionRow session = std::move(checked.hello);
    session.id = newSessionId();
    session.receivedMs = received;
    session.serviceMs = received + options_.clockSkewMs;
    session.throttled = options_.throttle;
    answer = Json{{"sessionId", session.id},
                  {"timestamp", session.serviceMs},
                  {"throttled", session.throttled}};
    record.session = std::move(session);
    record.helloJson = checked.document;
  }
  record.sessionId = std::move(checked.sessionId);
  record.events = std::move(checked.events);
  record.error = std::move(checked.error);
  if (!checked.problems.empty()) {
    record.body = std::string_view(body.bytes).substr(0, options_.keepBodyBytes);
    record.bodyLength = body.length;
  }
  for (const std::string& problem : checked.problems) {
    record.problems.push_back(ProblemRow{0, received, req.method, req.path, problem,
                                         PostChecker::layerOf(problem), std::nullopt,
                                         std::nullopt});
    log("problem: " + problem);
  }

  std::string error;
  if (!store_.record(record, &error)) {
    log("cannot store " + req.path + ": " + error);
    answerError(res, 500, "collector could not store the request: " + error);
    return;
  }
  if (!checked.decoded) {
    answerError(res, 400, checked.problems.empty() ? "bad envelope" : checked.problems.front());
    return;
  }
  if (kind != PostKind::kHello) {
    answerJson(res, 200, answer);
    return;
  }
  res.status = 200;
  if (options_.callback) {
    res.set_content(*options_.callback + "(" + answer.dump() + ");", "application/javascript");
  } else {
    res.set_content(answer.dump(), "application/json");
  }
  if (options_.setCookie) res.set_header("Set-Cookie", *options_.setCookie);
}

void CollectorServer::handleStray(const httplib::Request& req, httplib::Response& res,
                                  const httplib::ContentReader& reader) {
  if (auto why = refusal(req)) {
    refuse(req, res, reader, 403, *why);
    return;
  }
  // Read to its end (so that the connection can go on), keeping its start.
  ReadBody body = readBody(req, reader, options_.keepStrayBodyBytes, options_.maxBodyBytes);
  if (!body.complete || body.tooLarge) {
    refuseBody(req, res, body, "unknown path; ");
    return;
  }
  std::string description = "unknown path";
  if (body.length > body.bytes.size()) {
    description += " (" + keptText(body.bytes.size(), body.length) + ")";
  }
  recordProblem(req, description, body.bytes, body.length);
  answerError(res, 404, "unknown path");
}

void CollectorServer::refuse(const httplib::Request& req, httplib::Response& res,
                             const httplib::ContentReader& reader, int status,
                             const std::string& why) {
  // The body is read and dropped, so that the connection can go on, unless
  // it is too large or cut short.
  const ReadBody body = readBody(req, reader, 0, options_.maxBodyBytes);
  if (!body.complete) closeAfterAnswer(req);
  recordProblem(req, why);
  answerError(res, status, why);
}

void CollectorServer::refuseBody(const httplib::Request& req, httplib::Response& res,
                                 const ReadBody& body, const std::string& prefix) {
  // What is left of a body cut off is never read: the connection ends with
  // the answer.
  if (!body.complete) closeAfterAnswer(req);
  std::string description = prefix;
  int status = 400;
  if (TlsServer::timedOut()) {
    status = 408;
    description += "body not complete within " + seconds(options_.connections.bodyTimeout) +
                   " (" + std::to_string(body.length) + " bytes read)";
  } else if (body.tooLarge) {
    status = 413;
    description +=
        "body larger than the limit of " + std::to_string(options_.maxBodyBytes) + " bytes";
  } else {
    description += "request could not be read (body cut short after " +
                   std::to_string(body.length) + " bytes)";
  }
  const std::size_t kept = std::min(body.bytes.size(), options_.keepStrayBodyBytes);
  if (body.length > kept) description += " (" + keptText(kept, body.length) + ")";
  recordProblem(req, description, std::string_view(body.bytes).substr(0, kept), body.length);
  answerError(res, status, description);
}

void CollectorServer::handleError(const httplib::Request& req, httplib::Response& res) {
  // Handlers that refuse a request set their own body and problem row; what
  // arrives here bare was refused by httplib itself.
  if (!res.body.empty()) return;
  if (auto why = refusal(req)) {
    recordProblem(req, *why);
    answerError(res, 403, *why);
    return;
  }
  if (TlsServer::timedOut()) {
    // A request that never finished its headers is counted, not listed:
    // thousands of them say nothing more than one.
    closeAfterAnswer(req);
    answerError(res, 408,
                "request headers not complete within " +
                    seconds(options_.connections.headerTimeout));
    res.status = 408;
    return;
  }
  if (TlsServer::headersTooLarge()) {
    closeAfterAnswer(req);
    const std::string why = "request headers larger than the limit of " +
                            std::to_string(options_.connections.maxHeaderBytes) + " bytes";
    recordProblem(req, why);
    answerError(res, 431, why);
    return;
  }
  std::string description;
  switch (res.status) {
    case 404:
      description = "unknown path";
      break;
    case 413:
      description =
          "body larger than the limit of " + std::to_string(options_.maxBodyBytes) + " bytes";
      break;
    case 414:
      description = "request target too long";
      break;
    case 400:
      description = "request could not be read (truncated body, bad request line or headers)";
      break;
    default:
      description = "refused with status " + std::to_string(res.status);
      break;
  }
  const std::size_t kept = std::min(req.body.size(), options_.keepStrayBodyBytes);
  if (req.body.size() > kept) description += " (" + keptText(kept, req.body.size()) + ")";
  recordProblem(req, description, std::string_view(req.body).substr(0, kept), req.body.size());
  answerError(res, res.status, description);
}

std::optional<std::string> CollectorServer::refusal(const httplib::Request& req) const {
  if (req.has_header("Host")) {
    const std::string host = req.get_header_value("Host");
    const std::string name = hostName(host);
    bool allowed = isAddress(name) || sameNameIgnoringCase(name, "localhost");
    for (const std::string& other : options_.allowedHosts) {
      allowed = allowed || sameNameIgnoringCase(name, other);
    }
    if (!allowed) {
      return "refused: Host " + shownHeader(host) +
             " names neither this machine's address nor localhost (give other names with "
             "--allow-host)";
    }
  }
  if (req.method != "GET" && req.method != "HEAD" && req.has_header("Origin")) {
    return "refused: a post from a web page (Origin " + shownHeader(req.get_header_value("Origin")) +
           "); devices send no Origin";
  }
  return std::nullopt;
}

void CollectorServer::recordProblem(const httplib::Request& req, const std::string& description,
                                    std::optional<std::string_view> body,
                                    std::size_t bodyLength) {
  log("problem: " + req.method + " " + req.path + ": " + description);
  RequestRecord record;
  record.receivedMs = nowMs();
  record.problems.push_back(ProblemRow{0, record.receivedMs, req.method, req.path, description,
                                       "request", std::nullopt, std::nullopt});
  record.body = body;
  record.bodyLength = bodyLength;
  std::string error;
  if (!store_.record(record, &error)) log("cannot store a problem: " + error);
}

std::string CollectorServer::newSessionId() {
  std::uint64_t high, low;
  {
    std::lock_guard<std::mutex> lock(randomMutex_);
    high = random_();
    low = random_();
  }
  // A version 4 UUID: the version and variant bits are fixed.
  high = (high & 0xFFFFFFFFFFFF0FFFULL) | 0x0000000000004000ULL;
  low = (low & 0x3FFFFFFFFFFFFFFFULL) | 0x8000000000000000ULL;
  char text[37];
  std::snprintf(text, sizeof text, "%08x-%04x-%04x-%04x-%012llx", static_cast<unsigned>(high >> 32),
                static_cast<unsigned>((high >> 16) & 0xFFFF), static_cast<unsigned>(high & 0xFFFF),
                static_cast<unsigned>(low >> 48),
                static_cast<unsigned long long>(low & 0xFFFFFFFFFFFFULL));
  return text;
}

void CollectorServer::log(const std::string& line) const {
  if (!options_.logRequests) return;
  std::fprintf(stderr, "collector: %s\n", line.c_str());
}

}  // namespace telvo::tool
