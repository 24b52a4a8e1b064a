#include "support/scripted_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>

namespace telvo::test {

namespace {

bool sendAll(int fd, const char* data, std::size_t size) {
  while (size > 0) {
    const ssize_t sent = ::send(fd, data, size, MSG_NOSIGNAL);
    if (sent <= 0) return false;
    data += sent;
    size -= static_cast<std::size_t>(sent);
  }
  return true;
}

// Reads up to the end of the request head and then Content-Length bytes, at
// most 1 MiB in all and 5 s.
void readRequestFrom(int fd) {
  std::string text;
  char buffer[16384];
  const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  std::size_t need = std::string::npos;
  while (text.size() < (1u << 20) && std::chrono::steady_clock::now() < until) {
    if (need == std::string::npos) {
      if (auto end = text.find("\r\n\r\n"); end != std::string::npos) {
        std::size_t length = 0;
        auto field = text.find("Content-Length:");
        if (field == std::string::npos) field = text.find("content-length:");
        if (field != std::string::npos && field < end) {
          length = std::strtoull(text.c_str() + field + 15, nullptr, 10);
        }
        need = end + 4 + length;
      }
    }
    if (need != std::string::npos && text.size() >= need) return;
    pollfd wait{fd, POLLIN, 0};
    if (::poll(&wait, 1, 100) <= 0) continue;
    const ssize_t got = ::recv(fd, buffer, sizeof buffer, 0);
    if (got <= 0) return;
    text.append(buffer, static_cast<std::size_t>(got));
  }
}

}  // namespace

int closedPort() {
  int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
  ::close(fd);
  return ntohs(address.sin_port);
}

std::string ScriptedServer::response(int status, const std::string& body,
                                     const std::vector<std::string>& fields) {
  std::string text = "HTTP/1.1 " + std::to_string(status) + " X\r\n";
  for (const auto& field : fields) text += field + "\r\n";
  text += "Content-Length: " + std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n";
  return text + body;
}

ScriptedServer::ScriptedServer(std::vector<Step> script, bool readRequest)
    : script_(std::move(script)), readRequest_(readRequest) {
  listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  int yes = 1;
  ::setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  if (::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(listener_, 64) != 0 ||
      ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    throw std::runtime_error("ScriptedServer: cannot listen on 127.0.0.1");
  }
  port_ = ntohs(address.sin_port);
  acceptor_ = std::thread([this] { acceptLoop(); });
}

ScriptedServer::~ScriptedServer() {
  stopping_ = true;
  ::shutdown(listener_, SHUT_RDWR);
  acceptor_.join();
  ::close(listener_);
  std::vector<std::thread> players;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    for (int fd : sockets_) ::shutdown(fd, SHUT_RDWR);
    players.swap(players_);
  }
  for (auto& player : players) player.join();
}

std::string ScriptedServer::url(const std::string& path) const {
  return "http://127.0.0.1:" + std::to_string(port_) + path;
}

void ScriptedServer::acceptLoop() {
  while (!stopping_) {
    pollfd wait{listener_, POLLIN, 0};
    if (::poll(&wait, 1, 50) <= 0) continue;
    const int fd = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) continue;
    ++connections_;
    std::lock_guard<std::mutex> lock(mutex_);
    sockets_.push_back(fd);
    players_.emplace_back([this, fd] { play(fd); });
  }
}

void ScriptedServer::play(int fd) {
  if (readRequest_) readRequestFrom(fd);
  for (const Step& step : script_) {
    if (stopping_) break;
    bool ok = true;
    switch (step.kind) {
      case Step::kSend:
        ok = sendAll(fd, step.bytes.data(), step.bytes.size());
        break;
      case Step::kPause:
        std::this_thread::sleep_for(step.time);
        break;
      case Step::kStall: {
        // Until the peer closes (readable with nothing to read) or shutdown.
        char byte;
        while (!stopping_) {
          pollfd wait{fd, POLLIN, 0};
          if (::poll(&wait, 1, 50) > 0 && ::recv(fd, &byte, 1, 0) <= 0) break;
        }
        ok = false;
        break;
      }
      case Step::kStream: {
        std::size_t left = step.total;
        while (ok && left > 0 && !stopping_) {
          const std::size_t size = std::min(left, step.bytes.size());
          ok = sendAll(fd, step.bytes.data(), size);
          left -= size;
        }
        break;
      }
    }
    if (!ok) break;
  }
  ::shutdown(fd, SHUT_RDWR);
  std::lock_guard<std::mutex> lock(mutex_);
  for (auto& open : sockets_) {
    if (open == fd) open = -1;
  }
  ::close(fd);
}

}  // namespace telvo::test
