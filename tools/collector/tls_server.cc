#include "collector/tls_server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <utility>

namespace telvo::tool {
namespace {

using Clock = std::chrono::steady_clock;

// A connection waits for its request (its handshake, its headers, or idle
// between requests), or is past its headers (reading its body, being
// answered).
enum class Phase { kWaiting, kRequest };

// After an answer that ends a connection whose request was not read to its
// end, what the client still sends is read and dropped for this long (and
// this much) before the socket closes, so that the client gets the answer
// instead of a reset.
constexpr std::chrono::milliseconds kLingerTime{500};
constexpr std::size_t kLingerBytes = 256 * 1024;

// Waits until `fd` is ready for `events` or `deadline` passes; true when it
// is ready (or broken, which the next read or write will find).
bool waitFor(int fd, short events, Clock::time_point deadline) {
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    if (left.count() < 0) return false;
    pollfd wait{fd, events, 0};
    const int ready = ::poll(&wait, 1, static_cast<int>(std::min<long long>(left.count() + 1, INT_MAX)));
    if (ready > 0) return true;
    if (ready < 0 && errno != EINTR) return true;
    if (ready == 0 && Clock::now() >= deadline) return false;
  }
}

// The address and port of one end of a socket.
void endpoint(int fd, bool peer, std::string* address, int* port) {
  sockaddr_storage storage{};
  socklen_t length = sizeof storage;
  const int got = peer ? ::getpeername(fd, reinterpret_cast<sockaddr*>(&storage), &length)
                       : ::getsockname(fd, reinterpret_cast<sockaddr*>(&storage), &length);
  char text[INET6_ADDRSTRLEN] = "";
  *port = -1;
  if (got != 0) {
    *address = std::string();
    return;
  }
  if (storage.ss_family == AF_INET) {
    const auto* in = reinterpret_cast<const sockaddr_in*>(&storage);
    inet_ntop(AF_INET, &in->sin_addr, text, sizeof text);
    *port = ntohs(in->sin_port);
  } else if (storage.ss_family == AF_INET6) {
    const auto* in6 = reinterpret_cast<const sockaddr_in6*>(&storage);
    inet_ntop(AF_INET6, &in6->sin6_addr, text, sizeof text);
    *port = ntohs(in6->sin6_port);
  }
  *address = text;
}

// Each connection gets a thread of its own, up to `limit` (the rest wait for
// one), so that slow connections cannot hold up a valid post behind them
// while they last. Threads have small stacks.
class ConnectionThreads : public httplib::TaskQueue {
 public:
  static constexpr std::size_t kStackBytes = 512 * 1024;

  explicit ConnectionThreads(std::size_t limit) : limit_(limit) {}

  void enqueue(std::function<void()> work) override {
    std::unique_lock<std::mutex> lock(mutex_);
    if (running_ < limit_) {
      ++running_;
      auto* job = new Job{this, std::move(work)};
      pthread_attr_t attributes;
      pthread_attr_init(&attributes);
      pthread_attr_setstacksize(&attributes, kStackBytes);
      pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
      pthread_t thread;
      const int failed = pthread_create(&thread, &attributes, &ConnectionThreads::start, job);
      pthread_attr_destroy(&attributes);
      if (failed == 0) return;
      --running_;
      work = std::move(job->work);
      delete job;
    }
    waiting_.push_back(std::move(work));
    if (running_ == 0) {  // no thread could be made: serve it here
      auto next = std::move(waiting_.front());
      waiting_.pop_front();
      lock.unlock();
      next();
    }
  }

  // Waits for every connection to be served to its end.
  void shutdown() override {
    std::unique_lock<std::mutex> lock(mutex_);
    idle_.wait(lock, [this] { return running_ == 0 && waiting_.empty(); });
  }

 private:
  struct Job {
    ConnectionThreads* owner;
    std::function<void()> work;
  };

  static void* start(void* argument) {
    std::unique_ptr<Job> job(static_cast<Job*>(argument));
    job->owner->run(std::move(job->work));
    return nullptr;
  }

  void run(std::function<void()> work) {
    for (;;) {
      work();
      std::lock_guard<std::mutex> lock(mutex_);
      if (waiting_.empty()) {
        --running_;
        idle_.notify_all();
        return;
      }
      work = std::move(waiting_.front());
      waiting_.pop_front();
    }
  }

  const std::size_t limit_;
  std::mutex mutex_;
  std::condition_variable idle_;
  std::size_t running_ = 0;                    // guarded by mutex_
  std::deque<std::function<void()>> waiting_;  // guarded by mutex_
};

}  // namespace

struct TlsServer::Connection {
  int fd = -1;
  SSL* ssl = nullptr;
  std::string address, localAddress;
  int port = -1, localPort = -1;
  // Guarded by the server's mutex_ (other threads read them to make room):
  Phase phase = Phase::kWaiting;
  Clock::time_point waitingSince;
  bool counted = false;  // in the server's counts
  bool cut = false;      // ended by another thread
  // The connection's own thread only:
  Clock::time_point deadline;  // reads wait no later than this
  std::size_t headerBytes = 0;
  std::size_t headers = 0;
  std::size_t maxHeaders = 0;
  bool timedOut = false;
  bool tooLarge = false;
  bool closeAfter = false;
};

namespace {
thread_local void* currentConnection = nullptr;
}

// httplib's view of a connection: TLS over the non-blocking socket, every
// read bounded by the request's deadline and, for headers, by their size.
class TlsServer::Stream : public httplib::Stream {
 public:
  Stream(Connection& connection, const ConnectionLimits& limits)
      : c_(connection), limits_(limits) {}

  bool is_readable() const override {
    return SSL_pending(c_.ssl) > 0 || waitFor(c_.fd, POLLIN, c_.deadline);
  }

  bool is_writable() const override {
    return waitFor(c_.fd, POLLOUT, Clock::now() + limits_.writeTimeout);
  }

  ssize_t read(char* ptr, size_t size) override {
    if (c_.timedOut || c_.tooLarge) return -1;
    std::size_t room = std::min<std::size_t>(size, INT_MAX);
    if (c_.phase == Phase::kWaiting) {
      // Headers are read a byte at a time: never past their bound.
      if (c_.headerBytes >= limits_.maxHeaderBytes) {
        c_.tooLarge = true;
        return -1;
      }
      room = std::min(room, limits_.maxHeaderBytes - c_.headerBytes);
    }
    for (;;) {
      const int n = SSL_read(c_.ssl, ptr, static_cast<int>(room));
      if (n > 0) {
        if (c_.phase == Phase::kWaiting) c_.headerBytes += static_cast<std::size_t>(n);
        return n;
      }
      const int error = SSL_get_error(c_.ssl, n);
      if (error == SSL_ERROR_ZERO_RETURN) return 0;
      const short events = error == SSL_ERROR_WANT_READ    ? POLLIN
                           : error == SSL_ERROR_WANT_WRITE ? POLLOUT
                                                           : 0;
      if (events == 0) return -1;
      if (!waitFor(c_.fd, events, c_.deadline)) {
        c_.timedOut = true;
        return -1;
      }
    }
  }

  ssize_t write(const char* ptr, size_t size) override {
    if (size == 0) return 0;
    const auto deadline = Clock::now() + limits_.writeTimeout;
    for (;;) {
      const int n =
          SSL_write(c_.ssl, ptr, static_cast<int>(std::min<std::size_t>(size, INT_MAX)));
      if (n > 0) return n;
      const int error = SSL_get_error(c_.ssl, n);
      const short events = error == SSL_ERROR_WANT_READ    ? POLLIN
                           : error == SSL_ERROR_WANT_WRITE ? POLLOUT
                                                           : 0;
      if (events == 0 || !waitFor(c_.fd, events, deadline)) return -1;
    }
  }

  void get_remote_ip_and_port(std::string& ip, int& port) const override {
    ip = c_.address;
    port = c_.port;
  }
  void get_local_ip_and_port(std::string& ip, int& port) const override {
    ip = c_.localAddress;
    port = c_.localPort;
  }
  socket_t socket() const override { return c_.fd; }

 private:
  Connection& c_;
  const ConnectionLimits& limits_;
};

TlsServer::TlsServer(const std::string& certFile, const std::string& keyFile,
                     ConnectionLimits limits)
    : limits_(limits) {
  SSL_CTX* context = SSL_CTX_new(TLS_server_method());
  if (!context) return;
  SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION);
  SSL_CTX_set_options(context, SSL_OP_NO_COMPRESSION | SSL_OP_NO_RENEGOTIATION);
  SSL_CTX_set_mode(context, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
  if (SSL_CTX_use_certificate_chain_file(context, certFile.c_str()) != 1 ||
      SSL_CTX_use_PrivateKey_file(context, keyFile.c_str(), SSL_FILETYPE_PEM) != 1 ||
      SSL_CTX_check_private_key(context) != 1) {
    SSL_CTX_free(context);
    return;
  }
  context_ = context;
  const std::size_t threads = limits_.maxConnections + 256;
  new_task_queue = [threads] { return new ConnectionThreads(threads); };
}

TlsServer::~TlsServer() {
  if (context_) SSL_CTX_free(context_);
}

void TlsServer::stopAll() {
  stop();
  std::lock_guard<std::mutex> lock(mutex_);
  stopping_ = true;
  for (Connection* connection : connections_) {
    if (connection->cut) continue;
    connection->cut = true;
    ::shutdown(connection->fd, SHUT_RDWR);
  }
}

ConnectionCounters TlsServer::counters() {
  std::lock_guard<std::mutex> lock(mutex_);
  return counters_;
}

std::optional<std::string> TlsServer::refusalOf(const httplib::Request&) {
  auto* c = static_cast<Connection*>(currentConnection);
  if (!c) return std::nullopt;
  if (c->headers > c->maxHeaders) {
    return "request with " + std::to_string(c->headers) + " headers, more than " +
           std::to_string(c->maxHeaders) + " headers allowed";
  }
  return std::nullopt;
}

bool TlsServer::timedOut() {
  auto* c = static_cast<Connection*>(currentConnection);
  return c && c->timedOut;
}

bool TlsServer::headersTooLarge() {
  auto* c = static_cast<Connection*>(currentConnection);
  return c && c->tooLarge;
}

void TlsServer::closeAfterAnswer() {
  if (auto* c = static_cast<Connection*>(currentConnection)) c->closeAfter = true;
}

bool TlsServer::admit(Connection& connection) {
  std::lock_guard<std::mutex> lock(mutex_);
  ++counters_.accepted;
  if (stopping_) {
    ++counters_.refused;
    return false;
  }
  // Makes room by ending the connection (of `address`, or any) that has
  // waited longest for its request.
  auto makeRoom = [&](const std::string* address) {
    Connection* oldest = nullptr;
    for (Connection* other : connections_) {
      if (!other->counted || other->phase != Phase::kWaiting) continue;
      if (address && other->address != *address) continue;
      if (!oldest || other->waitingSince < oldest->waitingSince) oldest = other;
    }
    if (!oldest) return false;
    oldest->cut = true;
    oldest->counted = false;
    --perAddress_[oldest->address];
    --counters_.open;
    ::shutdown(oldest->fd, SHUT_RDWR);
    ++counters_.evicted;
    return true;
  };
  std::size_t& mine = perAddress_[connection.address];
  if (mine >= limits_.maxConnectionsPerAddress && !makeRoom(&connection.address)) {
    ++counters_.refused;
    return false;
  }
  if (counters_.open >= limits_.maxConnections && !makeRoom(nullptr)) {
    ++counters_.refused;
    return false;
  }
  connection.counted = true;
  connection.phase = Phase::kWaiting;
  connection.waitingSince = Clock::now();
  ++mine;
  ++counters_.open;
  connections_.push_back(&connection);
  return true;
}

void TlsServer::release(Connection& connection) {
  std::lock_guard<std::mutex> lock(mutex_);
  connections_.remove(&connection);
  if (connection.counted) {
    auto it = perAddress_.find(connection.address);
    if (it != perAddress_.end() && --it->second == 0) perAddress_.erase(it);
    --counters_.open;
  } else {
    auto it = perAddress_.find(connection.address);
    if (it != perAddress_.end() && it->second == 0) perAddress_.erase(it);
  }
}

void TlsServer::countCut(const Connection& connection) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (connection.timedOut) {
    ++(connection.phase == Phase::kWaiting ? counters_.headerTimeouts : counters_.bodyTimeouts);
  }
  if (connection.tooLarge) ++counters_.headerOverflows;
}

void TlsServer::startHeaders(Connection& connection) {
  std::lock_guard<std::mutex> lock(mutex_);
  connection.phase = Phase::kWaiting;
  connection.waitingSince = Clock::now();
  connection.deadline = connection.waitingSince + limits_.headerTimeout;
  connection.headerBytes = 0;
  connection.headers = 0;
  connection.timedOut = false;
  connection.tooLarge = false;
}

bool TlsServer::handshake(Connection& c) {
  c.ssl = SSL_new(context_);
  if (!c.ssl || SSL_set_fd(c.ssl, c.fd) != 1) return false;
  for (;;) {
    const int done = SSL_accept(c.ssl);
    if (done == 1) return true;
    const int error = SSL_get_error(c.ssl, done);
    const short events = error == SSL_ERROR_WANT_READ    ? POLLIN
                         : error == SSL_ERROR_WANT_WRITE ? POLLOUT
                                                         : 0;
    if (events == 0) return false;
    if (!waitFor(c.fd, events, c.deadline)) {
      c.timedOut = true;
      return false;
    }
  }
}

bool TlsServer::process_and_close_socket(socket_t sock) {
  Connection connection;
  connection.fd = sock;
  endpoint(sock, true, &connection.address, &connection.port);
  endpoint(sock, false, &connection.localAddress, &connection.localPort);
  connection.maxHeaders = limits_.maxHeaders;
  if (admit(connection)) {
    currentConnection = &connection;
    serve(connection);
    currentConnection = nullptr;
    release(connection);
  }
  if (connection.ssl) SSL_free(connection.ssl);
  ::shutdown(sock, SHUT_RDWR);
  ::close(sock);
  return true;
}

void TlsServer::serve(Connection& c) {
  const int flags = ::fcntl(c.fd, F_GETFL, 0);
  if (flags < 0 || ::fcntl(c.fd, F_SETFL, flags | O_NONBLOCK) != 0) return;
  const int on = 1;
  ::setsockopt(c.fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  startHeaders(c);
  // A connection that sends nothing at all is closed when idle.
  if (!waitFor(c.fd, POLLIN, Clock::now() + limits_.idleTimeout)) return;
  if (!handshake(c)) {
    countCut(c);
    std::lock_guard<std::mutex> lock(mutex_);
    if (!c.timedOut && !c.cut) ++counters_.failedHandshakes;
    return;
  }
  Stream stream(c, limits_);
  bool linger = false;
  for (std::size_t served = 0;; ++served) {
    if (served > 0) {
      // Idle between requests: closed after idleTimeout without a byte.
      const auto idle = std::min(Clock::now() + limits_.idleTimeout, c.deadline);
      if (SSL_pending(c.ssl) == 0 && !waitFor(c.fd, POLLIN, idle)) break;
    }
    bool stopping;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stopping = stopping_ || c.cut;
    }
    if (stopping) break;
    const bool last = served + 1 >= limits_.maxRequestsPerConnection;
    bool closed = false;
    const bool answered = process_request(stream, last, closed, [&](httplib::Request& req) {
      // The headers are in: the body has its own deadline. httplib adds four
      // headers of its own (the two ends' addresses and ports).
      std::lock_guard<std::mutex> lock(mutex_);
      c.phase = Phase::kRequest;
      c.deadline = Clock::now() + limits_.bodyTimeout;
      c.headers = req.headers.size() > 4 ? req.headers.size() - 4 : 0;
    });
    linger = c.closeAfter || c.timedOut || c.tooLarge;
    if (!answered || closed || last || linger) break;
    startHeaders(c);
  }
  countCut(c);
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!linger || stopping_ || c.cut) return;
  }
  // The answer is out; what the client still sends is dropped for a while.
  SSL_shutdown(c.ssl);
  ::shutdown(c.fd, SHUT_WR);
  const auto until = Clock::now() + kLingerTime;
  std::size_t dropped = 0;
  char buffer[16 * 1024];
  while (dropped < kLingerBytes && waitFor(c.fd, POLLIN, until)) {
    const ssize_t n = ::recv(c.fd, buffer, sizeof buffer, 0);
    if (n <= 0) break;
    dropped += static_cast<std::size_t>(n);
  }
}

}  // namespace telvo::tool
