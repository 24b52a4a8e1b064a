// HttpsTestServer: a real HTTPS server on 127.0.0.1 for end-to-end tests.
//
// It makes a throw-away self-signed certificate (trust it through
// certificateFile(), e.g. as TelvoTransport::Options::caFile), listens on a
// free port with keep-alive on, answers routes that may be added at any time,
// records every request it receives and counts the TCP connections it
// accepted. Unrouted requests get 404 with an empty body. Handlers run on the
// server's worker threads.
//
// Thread safety: every member function may be called from any thread.
#pragma once

#include <httplib.h>

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <ctime>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace telvo::test {

struct RecordedRequest {
  std::string method;
  std::string path;    // without the query
  std::string target;  // path and query as sent
  // As httplib parsed them: ordered by name (case-insensitively), repeated
  // names in arrival order. Names as sent.
  std::vector<std::pair<std::string, std::string>> headers;
  std::string body;
  int remotePort = -1;  // tells connections apart

  // The first value of `name` (case-insensitive), empty when absent.
  std::string header(const std::string& name) const;
  bool hasHeader(const std::string& name) const;
};

class HttpsTestServer {
 public:
  struct Options {
    std::size_t threads = 16;                // workers; each holds one open connection
    std::size_t keepAliveMaxCount = 100000;  // requests per connection
    time_t keepAliveTimeoutSeconds = 5;
  };
  using Handler = std::function<void(const httplib::Request&, httplib::Response&)>;

  // Starts listening; throws std::runtime_error when it cannot.
  HttpsTestServer();
  explicit HttpsTestServer(Options options);
  // Stops and removes the certificate.
  ~HttpsTestServer();
  HttpsTestServer(const HttpsTestServer&) = delete;
  HttpsTestServer& operator=(const HttpsTestServer&) = delete;

  int port() const { return port_; }
  // "https://127.0.0.1:<port>" followed by `path`.
  std::string url(const std::string& path = "") const;
  const std::string& certificateFile() const { return certificateFile_; }

  // Answers `method` requests for exactly `path` (no query); a later route
  // for the same method and path replaces the earlier one.
  void route(const std::string& method, const std::string& path, Handler handler);
  // Answers every request that no route takes.
  void fallback(Handler handler);

  std::vector<RecordedRequest> requests() const;
  std::size_t requestCount() const;
  // True once at least `count` requests arrived, false after `timeoutSeconds`.
  bool waitForRequests(std::size_t count, double timeoutSeconds) const;
  // Connections accepted since the start.
  std::size_t connectionCount() const;
  // Forgets recorded requests and the connection count.
  void reset();

  // Stops listening and closes connections; the destructor does it too.
  void stop();

 private:
  class CountingTaskQueue;
  void dispatch(const httplib::Request& request, httplib::Response& response);

  Options options_;
  std::string folder_;
  std::string certificateFile_;
  std::string keyFile_;
  std::unique_ptr<httplib::SSLServer> server_;
  std::thread thread_;
  int port_ = -1;
  std::shared_ptr<std::atomic<std::size_t>> connections_;

  mutable std::mutex mutex_;
  mutable std::condition_variable arrived_;
  std::vector<std::pair<std::pair<std::string, std::string>, Handler>> routes_;  // guarded
  Handler fallback_;                                                             // guarded
  std::vector<RecordedRequest> requests_;                                        // guarded
};

}  // namespace telvo::test
