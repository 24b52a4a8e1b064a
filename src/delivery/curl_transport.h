// CurlTransport: the TelvoTransport that runs requests on libcurl.
//
// One library thread drives a libcurl multi handle: requests handed over from
// any thread wake it (curl_multi_wakeup), it runs every transfer and it
// delivers every completion, one per request, in the order transfers finish.
// Connections stay open between requests to the same host and TLS sessions
// and DNS answers are shared, so a run of posts to the service costs one
// handshake. The CA store is loaded once per transport and cached.
//
// The wire carries exactly the caller's header fields, plus what HTTP itself
// needs (Host, Content-Length) and, for requests that handle cookies, the
// jar's "Cookie" field: libcurl's own Accept, Expect and form Content-Type
// fields are suppressed, and nothing asks for or decodes a content encoding.
//
// Shutdown: the destructor, and for every transport still alive the process's
// exit, stop the thread. Transfers still running then get a short grace time;
// whatever is left after it completes with a cancellation error. Requests sent
// after shutdown are dropped with a log line.
//
// Thread safety: every member function may be called from any thread,
// including from inside a completion.
#pragma once

#include <cstdint>
#include <memory>

#include "telvo/telvo_transport.h"

namespace telvo {

class CurlTransport final : public TelvoTransport {
 public:
  // How long transfers in flight may still run once shutdown starts (seconds).
  static constexpr double kShutdownGrace = 1.5;

  static std::shared_ptr<CurlTransport> create(Options options);
  ~CurlTransport() override;

  void sendRequest(URLRequest request, std::int32_t context,
                   std::shared_ptr<TelvoTransportDelegate> delegate) override;
  bool waitUntilIdle(double timeout) override;

  // Stops the thread as described above, waiting at most about
  // `graceSeconds` (not at all when called from a completion). Idempotent.
  void shutdown(double graceSeconds);

  // New connections opened so far (each one a TCP connect and TLS handshake).
  std::int64_t connectionsOpened() const;

  class Engine;

 private:
  explicit CurlTransport(std::shared_ptr<Engine> engine);
  std::shared_ptr<Engine> engine_;
};

}  // namespace telvo
