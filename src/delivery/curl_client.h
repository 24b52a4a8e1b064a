// CurlClient: the thin libcurl layer. It sends a prepared request and hands
// back status, header fields and body, or the transfer's failure; it knows
// nothing of the service (no cookies kept, no parsing).
//
// One library thread drives a libcurl multi handle: requests handed over from
// any thread wake it (curl_multi_wakeup), it runs every transfer and it calls
// every completion, one per request, in the order transfers finish.
// Connections stay open between requests to the same host and TLS sessions
// and DNS answers are shared, so a run of posts to the service costs one
// handshake. The CA store is loaded once per client and cached.
//
// The wire carries exactly the caller's header fields, then (for requests
// that handle cookies and set no "Cookie" field) the matching cookies of the
// jar given with the request, plus what HTTP itself needs (Host, Content-Length): libcurl's own
// Accept, Expect and form Content-Type fields are suppressed, and nothing asks
// for an encoding; an answer the server encoded anyway (gzip, deflate) is
// decoded. A request's time-out counts time without data (connecting
// included), not the whole transfer, which ends after 10 minutes at most. An
// answer body beyond 64 MiB fails the transfer.
//
// Shutdown: the destructor, and for every client still alive the process's
// exit, stop the thread. Transfers still running then get a short grace time;
// whatever is left after it completes with a cancellation error. The stop
// waits at most the grace time and half a second more: a completion still
// running host code after that is left to finish on the detached thread.
// Requests sent after shutdown complete at once, on the sending thread, with
// a cancellation error. An exception anywhere in the loop fails only the
// request it came from; the thread goes on.
//
// Thread safety: every member function may be called from any thread,
// including from inside a completion.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>

#include "delivery/response_reader.h"
#include "telvo/telvo_transport.h"
#include "telvo/url_request.h"

namespace telvo {

class HTTPCookieStorage;

namespace delivery {

class CurlClient {
 public:
  using Options = TelvoTransport::Options;
  // Runs on the client's thread, once per request. An exception it throws is
  // logged and dropped.
  using Completion = std::function<void(const URLRequest& request, const HttpResponse& response)>;

  // How long transfers in flight may still run once shutdown starts (seconds).
  static constexpr double kShutdownGrace = 1.5;

  static std::shared_ptr<CurlClient> create(Options options);
  ~CurlClient();
  CurlClient(const CurlClient&) = delete;
  CurlClient& operator=(const CurlClient&) = delete;

  // Starts the request and returns at once; `jar` (may be null) must outlive
  // it. It fails with a "telvo.transport" error (code = the CURLcode) where
  // it has no URL, a bad method or a header field that is not a token or
  // holds CR/LF.
  void send(URLRequest request, const HTTPCookieStorage* jar, Completion done);

  // Waits until no request is in flight (every completion has run and been
  // released), at most `timeout` seconds. True when idle. From inside a
  // completion it does not wait.
  bool waitUntilIdle(double timeout);

  // Stops the thread as described above, waiting at most `graceSeconds` +
  // 0.5 s (not at all when called from a completion). Idempotent.
  void shutdown(double graceSeconds);

  // Stops every client still alive together: transfers in flight get until
  // half a second before `until`, the threads until `until`. True when every
  // thread has ended. Called at process exit and by telvo::shutdown.
  static bool stopAll(std::chrono::steady_clock::time_point until);

  // New connections opened so far (each one a TCP connect and TLS handshake).
  std::int64_t connectionsOpened() const;

  class Engine;

 private:
  explicit CurlClient(std::shared_ptr<Engine> engine);
  std::shared_ptr<Engine> engine_;
};

}  // namespace delivery
}  // namespace telvo
