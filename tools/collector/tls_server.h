// TlsServer: httplib's server with the collector's own handling of each
// connection, so that no client can hold it for longer or make it read more
// than its bounds allow, and so that it stops at once when asked.
//
// httplib (0.11) reads a request's headers and body with a time-out per read
// (a client sending one byte a second is never cut), without a bound on the
// size or number of headers, and its stop() waits for every connection to
// end on its own. Here each connection is served on its thread by a loop of
// our own around httplib's request handling: TLS over a non-blocking socket,
// with
//   - a deadline for a request's headers (from the connection's start, or
//     the end of the previous answer) and one for its body (from the end of
//     its headers): reads wait for no longer; a request past its deadline is
//     answered 408 and its connection closed;
//   - a bound on a request's header bytes (answered 431) and on its number
//     of headers (refusalOf(), for the routing hook to answer 431);
//   - a share of connections per client address, and a total: a connection
//     beyond either closes the oldest one of that address (or of all) still
//     waiting for its request, or when none is, is closed itself;
//   - stop(), which ends every connection at once (handlers already running
//     finish their work, then find their connection gone).
// Counters say what each bound cut off.
//
// Thread-safe: the handlers run on the connections' threads; stop() and
// counters() may be called from any thread.
#pragma once

#include <httplib.h>
#include <openssl/ssl.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <list>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>

namespace telvo::tool {

struct ConnectionLimits {
  std::chrono::milliseconds headerTimeout{10000};
  std::chrono::milliseconds bodyTimeout{10000};
  // An idle kept-alive connection is closed after this.
  std::chrono::milliseconds idleTimeout{2000};
  // A write that makes no progress for this long fails.
  std::chrono::milliseconds writeTimeout{10000};
  std::size_t maxHeaderBytes = 64 * 1024;  // request line and headers
  std::size_t maxHeaders = 100;
  std::size_t maxConnectionsPerAddress = 256;
  std::size_t maxConnections = 1024;
  std::size_t maxRequestsPerConnection = 1000;
};

// What the bounds cut off, since the start.
struct ConnectionCounters {
  std::uint64_t accepted = 0;
  std::uint64_t open = 0;
  std::uint64_t headerTimeouts = 0;   // headers (or handshake) not complete in time
  std::uint64_t bodyTimeouts = 0;     // bodies not complete in time
  std::uint64_t headerOverflows = 0;  // header bytes beyond the bound
  std::uint64_t evicted = 0;          // closed to make room for a newer connection
  std::uint64_t refused = 0;          // closed at once: no room
  std::uint64_t failedHandshakes = 0;
};

class TlsServer : public httplib::Server {
 public:
  TlsServer(const std::string& certFile, const std::string& keyFile, ConnectionLimits limits);
  ~TlsServer() override;

  bool is_valid() const override { return context_ != nullptr; }

  // Stops listening and ends every connection.
  void stopAll();

  ConnectionCounters counters();

  // For handlers, about the request being handled on this thread (nothing
  // outside a connection's thread):
  // why the request must be refused before it is routed (431: more headers
  // than allowed), or nothing;
  static std::optional<std::string> refusalOf(const httplib::Request& req);
  // whether the request went past its deadline, or its headers past their
  // size (the handler then names it so in its problem);
  static bool timedOut();
  static bool headersTooLarge();
  // ends the connection once the answer is written (what is left of the
  // request is not read).
  static void closeAfterAnswer();
  const ConnectionLimits& limits() const { return limits_; }

 private:
  struct Connection;
  class Stream;

  bool process_and_close_socket(socket_t sock) override;
  void serve(Connection& connection);
  bool handshake(Connection& connection);
  // Takes `connection` in, making room for it if needed; false when there is none.
  bool admit(Connection& connection);
  void release(Connection& connection);
  // Counts what ended the connection, if a bound did.
  void countCut(const Connection& connection);
  void startHeaders(Connection& connection);

  ConnectionLimits limits_;
  SSL_CTX* context_ = nullptr;

  std::mutex mutex_;
  std::list<Connection*> connections_;                      // oldest first; guarded by mutex_
  std::unordered_map<std::string, std::size_t> perAddress_;  // guarded by mutex_
  bool stopping_ = false;                                    // guarded by mutex_
  ConnectionCounters counters_;                              // guarded by mutex_
};

}  // namespace telvo::tool
