// Networks that fail under a client on real libcurl and HTTPS, with the real
// queues and clock: the service behind a gate that cuts every connection and
// refuses new ones while closed, answering 5xx, 429 and text that does not
// parse. With the retrying delivery every accepted event arrives (twice only
// where the gate cut an answer the service had already given), stamped as
// if the client had been ready at the call; without it, the client loses
// exactly what failed, as it always has.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <functional>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "support/curl_platform.h"
#include "support/https_test_server.h"
#include "support/launcher.h"
#include "support/test_platform.h"
#include "telvo/clock.h"
#include "telvo/envelope.h"
#include "telvo/notification_center.h"
#include "telvo/telvo.h"
#include "telvo/user_defaults.h"

namespace telvo {
namespace {

using test::HttpsTestServer;
using namespace std::chrono_literals;

constexpr double kServiceBehindMs = 60000;
double nowMs() { return SystemClock().now() * 1000.0; }

// A TCP relay in front of the service. Open, it passes bytes both ways;
// closing it resets every connection it relays and, until it opens again,
// resets each new one as soon as it is accepted.
class Gate {
 public:
  explicit Gate(int target) : target_(target) {
    listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (listener_ < 0 || ::bind(listener_, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        ::listen(listener_, 64) != 0 ||
        ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
      throw std::runtime_error("the gate cannot listen");
    }
    port_ = ntohs(address.sin_port);
    acceptor_ = std::thread([this] { acceptLoop(); });
  }
  ~Gate() {
    stopping_ = true;
    acceptor_.join();
    for (auto& relay : relays_) relay.join();
    ::close(listener_);
  }

  std::string url(const std::string& path = "") const {
    return "https://127.0.0.1:" + std::to_string(port_) + path;
  }
  void open() { open_ = true; }
  // Connections reset while they were relayed or as they were accepted.
  int cuts() const { return cuts_; }
  void close() {
    open_ = false;
    ++generation_;
  }

 private:
  static void reset(int fd) {
    const linger abort{1, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
    ::close(fd);
  }
  static bool sendAll(int fd, const char* data, ssize_t size) {
    while (size > 0) {
      const ssize_t sent = ::send(fd, data, static_cast<std::size_t>(size), MSG_NOSIGNAL);
      if (sent <= 0) return false;
      data += sent;
      size -= sent;
    }
    return true;
  }

  void acceptLoop() {
    while (!stopping_) {
      pollfd ready{listener_, POLLIN, 0};
      if (::poll(&ready, 1, 20) <= 0) continue;
      const int client = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
      if (client < 0) continue;
      if (!open_) {
        reset(client);
        ++cuts_;
        continue;
      }
      const int server = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
      sockaddr_in address{};
      address.sin_family = AF_INET;
      address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
      address.sin_port = htons(static_cast<std::uint16_t>(target_));
      if (server < 0 ||
          ::connect(server, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        if (server >= 0) ::close(server);
        reset(client);
        continue;
      }
      const unsigned generation = generation_;
      relays_.emplace_back(
          [this, client, server, generation] { relay(client, server, generation); });
    }
  }

  void relay(int client, int server, unsigned generation) {
    char buffer[16384];
    bool ended = false;
    while (!ended && !stopping_ && generation_ == generation) {
      pollfd ends[2] = {{client, POLLIN, 0}, {server, POLLIN, 0}};
      if (::poll(ends, 2, 10) <= 0) continue;
      for (int k = 0; k < 2 && !ended; ++k) {
        if (ends[k].revents == 0) continue;
        const ssize_t got = ::read(ends[k].fd, buffer, sizeof buffer);
        ended = got <= 0 || !sendAll(ends[1 - k].fd, buffer, got);
      }
    }
    if (generation_ != generation) ++cuts_;
    reset(client);
    ::close(server);
  }

  int target_;
  int listener_ = -1;
  int port_ = 0;
  std::atomic<bool> open_{true};
  std::atomic<bool> stopping_{false};
  std::atomic<unsigned> generation_{0};
  std::atomic<int> cuts_{0};
  std::thread acceptor_;
  std::vector<std::thread> relays_;  // the acceptor's alone until it is joined
};

// How the service answers the n-th request (from 0) to one of its paths.
enum class Answer { kOk, kError500, kUnavailable503, kTooMany429, kNotJson };
using Faults = std::function<Answer(const std::string& path, int n)>;

constexpr const char* kConfigPath = "/config/Player/den/telvoanalytics.json";
constexpr const char* kHelloPath = "/api/hello";
constexpr const char* kBatchPath = "/api/batch.json";
constexpr const char* kErrorPath = "/api/postEvent/error";

// The service: configuration (timer batching every hour, so only the test's
// flushes post), hello with a clock a minute behind the device's, and posts
// whose events it keeps when it answers them with success.
class Service {
 public:
  explicit Service(Faults faults) : faults_(std::move(faults)) {
    document_ = Json{{"default",
                      {{"enabled", true},
                       {"batchMode", "timer"},
                       {"batchModeAmount", 3600},
                       {"servicesUrl", gate_.url()},
                       {"helloApi", "/api/hello"},
                       {"batchApi", "/api/batch"}}}}
                    .dump();
    for (const char* path : {kConfigPath, kHelloPath, kBatchPath, kErrorPath}) {
      server_.route(path == kConfigPath ? "GET" : "POST", path,
                    [this, path](const httplib::Request& request, httplib::Response& response) {
                      answer(path, request, response);
                    });
    }
  }
  ~Service() { server_.stop(); }

  Gate& gate() { return gate_; }
  std::string caFile() const { return server_.certificateFile(); }
  std::shared_ptr<TelvoConfig> config() const {
    return std::make_shared<TelvoConfig>("linux", "12", "den", "3.0", "Player",
                                         gate_.url("/config/"));
  }

  // Events of the posts answered with success, in arrival order.
  std::vector<Json> stored() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return stored_;
  }
  std::size_t errorsStored() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return errors_;
  }
  // Events in batch posts answered with a failing status.
  std::size_t eventsRefused() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return refused_;
  }
  int requests(const std::string& path) const {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto it = counts_.find(path);
    return it == counts_.end() ? 0 : it->second;
  }

 private:
  void answer(const std::string& path, const httplib::Request& request,
              httplib::Response& response) {
    std::lock_guard<std::mutex> lock(mutex_);
    const Answer answer = faults_(path, counts_[path]++);
    const Json posted =
        path == kConfigPath ? Json() : decodeTelvoJsonParameter(request.body).document;
    switch (answer) {
      case Answer::kError500:
      case Answer::kUnavailable503:
      case Answer::kTooMany429:
        response.status = answer == Answer::kError500         ? 500
                          : answer == Answer::kUnavailable503 ? 503
                                                              : 429;
        if (path == kBatchPath) refused_ += posted["events"].size();
        return;
      case Answer::kNotJson:
        response.set_content("<html>a captive portal</html>", "text/html");
        return;
      case Answer::kOk:
        break;
    }
    if (path == kConfigPath) {
      response.set_content(document_, "application/json");
    } else if (path == kHelloPath) {
      const Json hello{{"sessionId", "S-1"},
                       {"throttled", false},
                       {"timestamp", std::round(nowMs() - kServiceBehindMs)}};
      response.set_content(hello.dump(), "application/json");
    } else {
      if (path == kBatchPath) {
        for (const Json& event : posted["events"]) stored_.push_back(event);
      } else {
        ++errors_;
      }
      response.set_content("{}", "application/json");
    }
  }

  HttpsTestServer server_;
  Gate gate_{server_.port()};
  Faults faults_;
  std::string document_;
  mutable std::mutex mutex_;
  std::map<std::string, int> counts_;  // guarded
  std::vector<Json> stored_;           // guarded
  std::size_t errors_ = 0;             // guarded
  std::size_t refused_ = 0;            // guarded
};

bool waitUntil(const std::function<bool()>& done, double seconds) {
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds * test::timeScale());
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(10ms);
  }
  return true;
}

constexpr int kEvents = 150;
constexpr int kErrors = 3;

struct Outcome {
  bool flushed = false;
  Stats stats;
  std::vector<Json> stored;
  std::size_t errorsStored = 0;
};

// Sends kEvents events (one every 5 ms, each with its number "i" and the
// device time of the call "at"), posting every 30 events; `downFor` seconds
// of the gate closed from the start; with `flapping`, the gate closed and
// opened at random moments while sending. Then, the gate open for good,
// kErrors error reports once the client is ready, and a flush.
Outcome run(Service& service, bool retry, double downFor, bool flapping) {
  const Platform platform = test::curlPlatform(service.caFile());
  ClientOptions options;
  options.retry = retry;
  options.retryInitialSeconds = 0.05;
  options.retryMaxSeconds = 0.3;
  options.retrySeed = 7;

  if (downFor > 0) service.gate().close();
  auto client = Telvo::create(service.config(), "web", "prod", platform, options);
  std::atomic<bool> sending{true};
  std::thread weather([&] {
    std::this_thread::sleep_for(std::chrono::duration<double>(downFor));
    service.gate().open();
    std::mt19937 random(11);
    while (flapping && sending) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20 + random() % 150));
      service.gate().close();
      std::this_thread::sleep_for(std::chrono::milliseconds(20 + random() % 150));
      service.gate().open();
    }
  });
  // Without retrying, events before the hello are refused: start when the
  // client is ready (or, where start-up fails, after a while).
  if (!retry) waitUntil([&] { return client->isInitialized(); }, 2);
  for (int i = 0; i < kEvents; ++i) {
    client->sendEvent("e", {{"i", i}, {"at", static_cast<std::int64_t>(nowMs())}});
    if (i % 30 == 29) client->dumpEvents();
    std::this_thread::sleep_for(5ms);
  }
  sending = false;
  weather.join();
  service.gate().open();
  // Error reports need a session, with or without retrying.
  if (retry) waitUntil([&] { return client->isInitialized(); }, 10);
  for (int k = 0; k < kErrors; ++k) client->sendError(k, {{"k", k}});

  Outcome result;
  result.flushed = client->flush(std::chrono::duration_cast<std::chrono::milliseconds>(
      std::chrono::duration<double>(20 * test::timeScale())));
  if (retry) waitUntil([&] { return client->stats().errorsSent >= kErrors; }, 10);
  result.stats = client->stats();
  result.stored = service.stored();
  result.errorsStored = service.errorsStored();
  return result;
}

// Every event arrived, at least once, stamped with the service's time of
// its call; the counters say so. Returns how many arrived twice or more.
std::size_t expectEveryEventDelivered(const Outcome& run) {
  EXPECT_TRUE(run.flushed);
  std::map<std::int64_t, int> seen;
  for (const Json& event : run.stored) {
    const Json& data = event["eventData"];
    ++seen[data["i"].get<std::int64_t>()];
    const double expected = data["at"].get<double>() - kServiceBehindMs;
    EXPECT_NEAR(data["timestamp"].get<double>(), expected, 1000) << event.dump();
  }
  EXPECT_EQ(seen.size(), static_cast<std::size_t>(kEvents));
  std::size_t repeated = 0;
  for (const auto& [i, count] : seen) repeated += count > 1;
  EXPECT_EQ(run.stats.eventsAccepted, static_cast<std::uint64_t>(kEvents));
  EXPECT_EQ(run.stats.eventsPosted, static_cast<std::uint64_t>(kEvents));
  EXPECT_EQ(run.stats.eventsFailed + run.stats.eventsDropped() + run.stats.eventsQueued, 0u);
  EXPECT_EQ(run.stats.errorsSent, static_cast<std::uint64_t>(kErrors));
  EXPECT_GE(run.errorsStored, static_cast<std::size_t>(kErrors));
  return repeated;
}

Answer always(const std::string&, int) { return Answer::kOk; }

TEST(Chaos, RetryingWaitsForAServiceThatIsDownAtStart) {
  Service service(always);
  const Outcome result = run(service, true, 0.8, false);
  EXPECT_GT(service.gate().cuts(), 0);
  EXPECT_EQ(expectEveryEventDelivered(result), 0u);
  EXPECT_GT(result.stats.retries, 0u);
}

TEST(Chaos, RetryingDeliversThroughAFlappingNetwork) {
  Service service(always);
  const Outcome result = run(service, true, 0, true);
  EXPECT_GT(service.gate().cuts(), 0);
  // Twice only where the gate cut the answer to a post the service kept.
  expectEveryEventDelivered(result);
  EXPECT_LE(result.stored.size(), static_cast<std::size_t>(2 * kEvents));
}

TEST(Chaos, RetryingGetsPastRefusalsAndAnswersThatDoNotParse) {
  // Start-up answered 503, then text that is no JSON, then 429; every post
  // answered 500 or 429 on its first tries.
  Service service([](const std::string& path, int n) {
    if (path == kConfigPath || path == kHelloPath) {
      const Answer first[] = {Answer::kUnavailable503, Answer::kNotJson, Answer::kTooMany429};
      return n < 3 ? first[n] : Answer::kOk;
    }
    return n % 3 == 0 ? Answer::kError500 : n % 3 == 1 ? Answer::kTooMany429 : Answer::kOk;
  });
  const Outcome result = run(service, true, 0, false);
  EXPECT_EQ(expectEveryEventDelivered(result), 0u);  // no answer was lost
  EXPECT_EQ(service.requests(kConfigPath), 4);
  EXPECT_EQ(service.requests(kHelloPath), 4);
}

TEST(Chaos, WithoutRetryingAFailedPostLosesItsEvents) {
  Service service([](const std::string& path, int n) {
    return path == kBatchPath && n % 2 == 0 ? Answer::kError500 : Answer::kOk;
  });
  const Outcome result = run(service, false, 0, false);
  ASSERT_GT(service.eventsRefused(), 0u);
  EXPECT_EQ(result.stored.size() + service.eventsRefused(), static_cast<std::size_t>(kEvents));
  EXPECT_EQ(result.stats.eventsPosted, result.stored.size());
  EXPECT_EQ(result.stats.eventsFailed, service.eventsRefused());
  EXPECT_EQ(result.stats.retries, 0u);
  std::set<std::int64_t> numbers;
  for (const Json& event : result.stored)
    numbers.insert(event["eventData"]["i"].get<std::int64_t>());
  EXPECT_EQ(numbers.size(), result.stored.size());  // nothing sent twice
}

TEST(Chaos, WithoutRetryingAStartUpThatFailsIsNeverTriedAgain) {
  Service service([](const std::string& path, int n) {
    return path == kConfigPath && n == 0 ? Answer::kUnavailable503 : Answer::kOk;
  });
  const Outcome result = run(service, false, 0, false);
  EXPECT_TRUE(result.stored.empty());
  EXPECT_EQ(result.stats.eventsAccepted, 0u);
  EXPECT_EQ(result.stats.eventsRefusedNotInitialized, static_cast<std::uint64_t>(kEvents));
  EXPECT_EQ(service.requests(kConfigPath), 1);
  EXPECT_EQ(service.requests(kHelloPath), 0);
}

}  // namespace
}  // namespace telvo
