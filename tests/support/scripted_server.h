// A plain-HTTP server on 127.0.0.1 that misbehaves on purpose: for every
// connection it reads the request head (and a body of Content-Length bytes),
// then plays a script of steps (send bytes, pause, stall, close). Each
// connection runs on its own thread; destruction closes every socket and
// joins, within a second.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace telvo::test {

// A port on 127.0.0.1 that nothing listens on (a connection is refused).
int closedPort();

class ScriptedServer {
 public:
  struct Step {
    enum Kind { kSend, kPause, kStall, kStream } kind;
    std::string bytes;               // kSend: sent as they are; kStream: one block, repeated
    std::chrono::milliseconds time;  // kPause: how long; kStall: until closed
    std::size_t total = 0;           // kStream: bytes in all
  };
  static Step send(std::string bytes) { return {Step::kSend, std::move(bytes), {}, 0}; }
  static Step pause(std::chrono::milliseconds time) { return {Step::kPause, {}, time, 0}; }
  // Holds the connection open, sending nothing, until the client or the
  // server closes it.
  static Step stall() { return {Step::kStall, {}, {}, 0}; }
  // Sends `total` bytes of `block` repeated, as fast as the client reads.
  static Step stream(std::string block, std::size_t total) {
    return {Step::kStream, std::move(block), {}, total};
  }
  // A whole response: status line, the fields, Content-Length, the body.
  static std::string response(int status, const std::string& body,
                              const std::vector<std::string>& fields = {});

  // Plays `script` to every connection; `readRequest` false answers without
  // reading anything (a server that never reads its input).
  explicit ScriptedServer(std::vector<Step> script, bool readRequest = true);
  ~ScriptedServer();
  ScriptedServer(const ScriptedServer&) = delete;
  ScriptedServer& operator=(const ScriptedServer&) = delete;

  int port() const { return port_; }
  std::string url(const std::string& path) const;
  // Connections accepted so far.
  int connections() const { return connections_.load(); }

 private:
  void acceptLoop();
  void play(int fd);

  const std::vector<Step> script_;
  const bool readRequest_;
  int listener_ = -1;
  int port_ = 0;
  std::atomic<bool> stopping_{false};
  std::atomic<int> connections_{0};
  std::thread acceptor_;
  std::mutex mutex_;
  std::vector<int> sockets_;          // guarded by mutex_
  std::vector<std::thread> players_;  // guarded by mutex_
};

}  // namespace telvo::test
