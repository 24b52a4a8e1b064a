// CollectorServer: the local stand-in for the analytics service and for the
// configuration location, over HTTPS on a loopback address.
//
// Routes:
//   GET  /mdrv/telvo/config/<app>/<site>/<file>  the configuration document:
//        <configDir>/<app>/<site>/<file> when a folder is given, else the
//        built-in document (defaultConfigDocument) for "telvoanalytics.json"
//   POST /api/hello                   answers {"sessionId", "timestamp", "throttled"}
//   POST /api/postEvent/batch.json    answers {"status":"ok"}
//   POST /api/postEvent/error         answers {"status":"ok"}
//   GET  /, /inspect/...              the inspector page and its API (Inspector)
// Writes come only from clients: a request whose Host names a machine other
// than localhost, an IP address or a name given in allowedHosts (a page that
// had its own name made to resolve here), and a post that carries an Origin
// header (a page on some web site posting here), are answered 403. Every
// answer carries "X-Content-Type-Options: nosniff".
// Every post is checked (PostChecker) and stored (CollectorStore), its rows in
// one transaction. An envelope that does not decode is answered 400; an
// unknown path 404; a body over the size limit 413; a request that cannot be
// read (truncated) or a label header that is not UTF-8 400. Each of these
// leaves a problem row with at most the first keepBodyBytes of a body that
// was read (keepStrayBodyBytes of one that was not), so a client's mistakes
// are visible afterwards; the collector itself never stops for them.
//
// Connections are bounded in time, size and number per client address
// (TlsServer); a request past a bound is answered 408 or 431 (a body that
// does not arrive in time is listed as a problem; headers that do not are
// only counted).
//
// Threads: serve() blocks its caller while requests are answered on one
// thread per connection; stop() may be called from any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "collector/collector_store.h"
#include "collector/inspector.h"
#include "collector/post_checker.h"
#include "collector/tls_server.h"
#include "telvo/envelope.h"
#include "telvo/types.h"

namespace telvo::tool {

struct CollectorOptions {
  std::string host = "127.0.0.1";  // loopback unless asked otherwise
  int port = 8443;                 // 0 picks a free port (see CollectorServer::port())
  std::filesystem::path certFile;
  std::filesystem::path keyFile;
  // Folder of configuration documents; nothing serves the built-in document.
  std::optional<std::filesystem::path> configDir;
  bool throttle = false;                 // the hello answer's "throttled"
  std::int64_t clockSkewMs = 0;          // added to the hello answer's "timestamp"
  std::optional<std::string> callback;   // wraps the hello answer as NAME( ... );
  std::optional<std::string> setCookie;  // Set-Cookie header of the hello answer
  std::size_t maxBodyBytes = 8 * 1024 * 1024;
  // The most of a body kept with the problems of a post that was read...
  std::size_t keepBodyBytes = 64 * 1024;
  // ... and of one that was not: to an unknown path, too large, cut short.
  std::size_t keepStrayBodyBytes = 4096;
  // How a post's envelope and document are read (a post beyond them is
  // refused as a problem), and how many problem lines one post keeps.
  CheckLimits check;
  bool logRequests = true;  // one line per request on standard error
  // Deadlines, sizes and shares of connections (TlsServer).
  ConnectionLimits connections;
  // Names a request's Host may give besides localhost and IP addresses.
  std::vector<std::string> allowedHosts;
};

class CollectorServer {
 public:
  // `store` and `readers` must outlive the server. The inspector reads
  // through `readers` (read-only connections to the same database, so that
  // its queries do not wait for posts being stored, nor hold them up).
  CollectorServer(CollectorOptions options, CollectorStore& store, ReaderPool& readers);
  ~CollectorServer();
  CollectorServer(const CollectorServer&) = delete;
  CollectorServer& operator=(const CollectorServer&) = delete;

  // Loads the certificate and binds the port. False, with `*error` set, when
  // either fails.
  bool bind(std::string* error);
  // The bound port (after bind()).
  int port() const { return port_; }
  // "https://127.0.0.1:<port>"
  std::string baseUrl() const;
  // Answers requests until stop(). False when the server could not run.
  bool serve();
  // Stops listening and ends every connection; serve() returns once the
  // requests being handled are done.
  void stop();
  // What the connection bounds cut off so far.
  ConnectionCounters connectionCounters();

  // The document served when no configuration folder is given: a "default"
  // section for timer batching every 2 seconds against this collector, and a
  // "count" environment batching every 3 events.
  static Json defaultConfigDocument(const std::string& servicesUrl);

 private:
  void installRoutes();
  void handleConfig(const httplib::Request& req, httplib::Response& res);
  // What was read of a request body: its first bytes (at most what was
  // asked to be kept) and its length so far.
  struct ReadBody {
    std::string bytes;
    std::size_t length = 0;  // read so far (when too large, maybe announced)
    bool complete = true;    // read to its end
    bool tooLarge = false;   // longer than the limit
  };
  // Reads the body through `reader`, keeping its first `keep` bytes. One
  // longer than `limit` is too large; it is still read to its end (and
  // dropped) up to twice the limit, beyond which reading stops.
  static ReadBody readBody(const httplib::Request& req, const httplib::ContentReader& reader,
                           std::size_t keep, std::size_t limit);
  // Ends the request's connection once it is answered (what is left of its
  // body is not read).
  static void closeAfterAnswer(const httplib::Request& req);

  void handlePost(PostKind kind, const httplib::Request& req, httplib::Response& res,
                  const httplib::ContentReader& reader);
  // Posts (puts, patches, deletes) to any other path.
  void handleStray(const httplib::Request& req, httplib::Response& res,
                   const httplib::ContentReader& reader);
  // Answers `why` with `status`, keeping nothing of the body.
  void refuse(const httplib::Request& req, httplib::Response& res,
              const httplib::ContentReader& reader, int status, const std::string& why);
  // Answers a body that was too large or cut short.
  void refuseBody(const httplib::Request& req, httplib::Response& res, const ReadBody& body,
                  const std::string& prefix = std::string());
  void handleError(const httplib::Request& req, httplib::Response& res);
  // Why a request is refused whatever it asks for: a Host that names some
  // other machine, or (for anything but a read) an Origin, which browsers
  // send and devices do not. Nothing when it may go on.
  std::optional<std::string> refusal(const httplib::Request& req) const;
  // Stores one problem about `req`, with the part of its body that was kept
  // (nothing: no body is kept) and the body's whole length.
  void recordProblem(const httplib::Request& req, const std::string& description,
                     std::optional<std::string_view> body = std::nullopt,
                     std::size_t bodyLength = 0);
  std::string newSessionId();
  void log(const std::string& line) const;

  CollectorOptions options_;
  CollectorStore& store_;
  Inspector inspector_;
  std::unique_ptr<TlsServer> server_;
  int port_ = 0;
  std::mutex randomMutex_;
  std::mt19937_64 random_;  // guarded by randomMutex_
};

}  // namespace telvo::tool
