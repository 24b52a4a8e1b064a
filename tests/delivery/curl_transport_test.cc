// The libcurl transport end to end, against a real HTTPS server on 127.0.0.1
// with a throw-away certificate trusted through the CA option.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <future>
#include <map>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "delivery/curl_transport.h"
#include "delivery/transport_test_delegate.h"
#include "support/captured_log.h"
#include "support/https_test_server.h"
#include "support/scripted_server.h"
#include "telvo/http_cookie.h"
#include "telvo/log.h"
#include "telvo/telvo_transport.h"
#include "telvo/user_defaults.h"

namespace telvo {
namespace {

using test::HttpsTestServer;
using test::TestTransportDelegate;
using Seconds = std::chrono::duration<double>;

constexpr double kWait = 20;  // upper bound for anything a test waits on

using test::closedPort;

class TransportHttpsTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    server_ = new HttpsTestServer();
    serve("/plain", 200, R"({"a":1})");
    serve("/wrapped", 200, R"(telvoCallback({"b":2});)");
    serve("/bare", 200, R"(telvoCallback({"a":1}))");
    serve("/paren-only", 200, R"({"s":"x(y"})");
    serve("/paren-and-close", 200, R"({"s":"a(b);c"})");
    serve("/empty", 200, "");
    serve("/missing", 404, R"({"error":"not found"})");
    serve("/broken", 500, R"({"error":"boom"})");
    serve("/cookies", 200, "{}",
          {{"Set-Cookie", "telvoUUID=first; Path=/"}, {"Set-Cookie", "telvoUUID=last; Path=/"}});
    serve("/slow", 200, "{}", {}, 2.0);
  }
  static void TearDownTestSuite() {
    delete server_;
    server_ = nullptr;
  }

  static void serve(const std::string& path, int status, const std::string& body,
                    std::vector<std::pair<std::string, std::string>> headers = {},
                    double delaySeconds = 0) {
    auto handler = [=](const httplib::Request&, httplib::Response& response) {
      if (delaySeconds > 0) std::this_thread::sleep_for(Seconds(delaySeconds));
      response.status = status;
      for (const auto& [name, value] : headers) response.headers.emplace(name, value);
      response.set_content(body, "application/json");
    };
    server_->route("GET", path, handler);
    server_->route("POST", path, handler);
  }

  void SetUp() override {
    defaults_ = std::make_shared<MemoryUserDefaults>();
    HTTPCookieStorage::sharedHTTPCookieStorage().deleteAllCookies();  // no cookie of an earlier test
    server_->reset();
    TelvoTransport::Options options;
    options.caFile = server_->certificateFile();
    transport_ = TelvoTransport::makeCurlTransport(options, defaults_);
  }

  URLRequest request(const std::string& path, double timeout = kWait) {
    return URLRequest(URL::fromString(server_->url(path)), 4, timeout);
  }

  // Sends one request and waits for its completion to have run.
  std::shared_ptr<TestTransportDelegate> exchange(URLRequest request, bool wantsFailures,
                                                  std::int32_t context = 3) {
    auto delegate = std::make_shared<TestTransportDelegate>(wantsFailures);
    transport_->sendRequest(std::move(request), context, delegate);
    EXPECT_TRUE(transport_->waitUntilIdle(kWait));
    return delegate;
  }

  static HttpsTestServer* server_;
  std::shared_ptr<MemoryUserDefaults> defaults_;
  std::shared_ptr<TelvoTransport> transport_;
};

HttpsTestServer* TransportHttpsTest::server_ = nullptr;

TEST_F(TransportHttpsTest, DeliversPlainAndWrappedJSONWithItsContext) {
  const std::map<std::string, Json> expected = {
      {"/plain", {{"a", 1}}},
      {"/wrapped", {{"b", 2}}},
      {"/paren-only", {{"s", "x(y"}}},
      {"/missing", {{"error", "not found"}}},  // the status is never looked at
      {"/broken", {{"error", "boom"}}},
  };
  for (const auto& [path, json] : expected) {
    auto delegate = exchange(request(path), true, 2);
    ASSERT_EQ(delegate->results().size(), 1u) << path;
    EXPECT_TRUE(delegate->failures().empty()) << path;
    EXPECT_EQ(delegate->results()[0].result, json) << path;
    EXPECT_EQ(delegate->results()[0].context, 2);
    EXPECT_EQ(delegate->results()[0].request.url->absoluteString(), server_->url(path));
  }
}

TEST_F(TransportHttpsTest, BodiesThatDoNotParseFailOrArriveEmpty) {
  for (const char* path : {"/bare", "/paren-and-close", "/empty"}) {
    auto failing = exchange(request(path), true);
    ASSERT_EQ(failing->failures().size(), 1u) << path;
    EXPECT_EQ(failing->failures()[0].domain, "telvo.json");
    EXPECT_TRUE(failing->results().empty());

    auto plain = exchange(request(path), false);
    ASSERT_EQ(plain->results().size(), 1u) << path;
    EXPECT_FALSE(plain->results()[0].result.has_value());
  }
}

TEST_F(TransportHttpsTest, KeepsTheLastCookieAndLeavesItWhenNoneIsSet) {
  exchange(request("/cookies"), true);
  auto stored = defaults_->objectForKey(TelvoUUIDCookieKey);
  ASSERT_TRUE(stored.has_value());
  EXPECT_EQ(
      *stored,
      (Json{{"Name", "telvoUUID"}, {"Value", "last"}, {"Domain", "127.0.0.1"}, {"Path", "/"}}));
  exchange(request("/plain"), true);
  EXPECT_EQ(defaults_->objectForKey(TelvoUUIDCookieKey), stored);
}

TEST_F(TransportHttpsTest, TransferFailuresReachOnlyDelegatesThatImplementThem) {
  auto refusedURL = "https://127.0.0.1:" + std::to_string(closedPort()) + "/plain";
  auto refused = exchange(URLRequest(URL::fromString(refusedURL), 4, kWait), true);
  ASSERT_EQ(refused->failures().size(), 1u);
  EXPECT_EQ(refused->failures()[0].domain, "telvo.transport");
  EXPECT_EQ(refused->failures()[0].code, 7);  // could not connect
  EXPECT_TRUE(refused->results().empty());
  EXPECT_EQ(exchange(URLRequest(URL::fromString(refusedURL), 4, kWait), false)->calls(), 0u);

  auto started = std::chrono::steady_clock::now();
  auto timedOut = exchange(request("/slow", 0.3), true);
  EXPECT_LT(Seconds(std::chrono::steady_clock::now() - started).count(), 1.8);
  ASSERT_EQ(timedOut->failures().size(), 1u);
  EXPECT_EQ(timedOut->failures()[0].code, 28);  // timed out
  EXPECT_EQ(exchange(request("/slow", 0.3), false)->calls(), 0u);

  auto noURL = exchange(URLRequest(std::nullopt), true);
  ASSERT_EQ(noURL->failures().size(), 1u);
  EXPECT_EQ(noURL->failures()[0].domain, "telvo.transport");

  // Bad input is refused before anything goes out.
  URLRequest injected = request("/plain");
  injected.setValue("x\r\nEvil: 1", "X-Test");
  EXPECT_EQ(exchange(injected, true)->failures().size(), 1u);
  // Nothing but the slow requests reached the server (a slow machine may time
  // out even before a slow request arrives, so only their path is checked).
  for (const auto& seen : server_->requests()) EXPECT_EQ(seen.path, "/slow");
}

TEST_F(TransportHttpsTest, WireCarriesExactlyTheHeadersSetAndTheBodyUntouched) {
  // Base64 text labelled gzip, as every post of the service is.
  const std::string body = "eJwrSS0uUchNzEnNS0nNKVFIzs8rSc0rAQBaDgfB";
  URLRequest post = request("/plain");
  post.HTTPMethod = "POST";
  post.setValue("application/x-gzip", "Content-Type");
  post.setValue("gzip", "Content-Encoding");
  post.HTTPBody = Bytes(body.begin(), body.end());
  post.HTTPShouldHandleCookies = false;
  exchange(post, true);
  exchange(request("/plain"), true);

  auto requests = server_->requests();
  ASSERT_EQ(requests.size(), 2u);
  auto names = [](const test::RecordedRequest& recorded) {
    std::set<std::string> set;
    for (const auto& field : recorded.headers) {
      std::string name = field.first;
      for (auto& c : name) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
      set.insert(name);
    }
    return set;
  };
  EXPECT_EQ(requests[0].method, "POST");
  EXPECT_EQ(names(requests[0]),
            (std::set<std::string>{"content-encoding", "content-length", "content-type", "host"}));
  EXPECT_EQ(requests[0].header("Content-Type"), "application/x-gzip");
  EXPECT_EQ(requests[0].header("Content-Encoding"), "gzip");
  EXPECT_EQ(requests[0].body, body);
  EXPECT_EQ(requests[1].method, "GET");
  EXPECT_EQ(names(requests[1]), (std::set<std::string>{"host"}));
}

TEST_F(TransportHttpsTest, CookieHandlingRequestsShareTheProcessJar) {
  auto& storage = HTTPCookieStorage::sharedHTTPCookieStorage();
  storage.deleteAllCookies();
  storage.setCookieAcceptPolicy(HTTPCookieAcceptPolicy::Always);
  exchange(request("/cookies"), true);  // handles cookies by default
  exchange(request("/plain"), true);
  URLRequest without = request("/plain");
  without.HTTPShouldHandleCookies = false;
  exchange(without, true);

  storage.deleteAllCookies();
  storage.setCookieAcceptPolicy(HTTPCookieAcceptPolicy::Never);
  exchange(request("/cookies"), true);
  exchange(request("/plain"), true);
  storage.setCookieAcceptPolicy(HTTPCookieAcceptPolicy::Always);

  auto requests = server_->requests();
  ASSERT_EQ(requests.size(), 5u);
  EXPECT_FALSE(requests[0].hasHeader("Cookie"));
  EXPECT_EQ(requests[1].header("Cookie"), "telvoUUID=last");
  EXPECT_FALSE(requests[2].hasHeader("Cookie"));
  EXPECT_FALSE(requests[4].hasHeader("Cookie"));
}

TEST_F(TransportHttpsTest, ConcurrentRequestsEachCompleteExactlyOnce) {
  constexpr int kThreads = 4;
  constexpr int kPerThread = 50;
  auto delegate = std::make_shared<TestTransportDelegate>(true);
  std::vector<std::thread> senders;
  for (int t = 0; t < kThreads; ++t) {
    senders.emplace_back([&, t] {
      for (int i = 0; i < kPerThread; ++i) {
        transport_->sendRequest(request(i % 2 ? "/plain" : "/wrapped"), t * kPerThread + i,
                                delegate);
      }
    });
  }
  for (auto& sender : senders) sender.join();
  ASSERT_TRUE(transport_->waitUntilIdle(kWait));
  EXPECT_TRUE(delegate->failures().empty());
  std::multiset<std::int32_t> contexts;
  for (const auto& result : delegate->results()) {
    EXPECT_TRUE(result.result.has_value());
    contexts.insert(result.context);
  }
  ASSERT_EQ(contexts.size(), static_cast<size_t>(kThreads * kPerThread));
  for (int c = 0; c < kThreads * kPerThread; ++c) EXPECT_EQ(contexts.count(c), 1u) << c;
  // Connections per host are limited, so 200 requests did not open 200.
  EXPECT_LE(server_->connectionCount(), 10u);
}

TEST_F(TransportHttpsTest, SequentialRequestsReuseOneConnection) {
  constexpr int kRequests = 40;
  for (int i = 0; i < kRequests; ++i) {
    ASSERT_EQ(exchange(request("/plain"), true)->results().size(), 1u);
  }
  EXPECT_EQ(server_->requestCount(), static_cast<size_t>(kRequests));
  EXPECT_LE(server_->connectionCount(), 2u);
}

TEST_F(TransportHttpsTest, ThrowingDelegateIsLoggedAndTheTransportGoesOn) {
  std::vector<std::string> lines;
  std::mutex linesMutex;
  setLogSink([&](const std::string& line) {
    std::lock_guard<std::mutex> lock(linesMutex);
    lines.push_back(line);
  });
  auto thrower = std::make_shared<TestTransportDelegate>(true);
  thrower->onResult = [](const TestTransportDelegate::Result&) {
    throw std::runtime_error("delegate bug");
  };
  transport_->sendRequest(request("/plain"), 3, thrower);
  ASSERT_TRUE(transport_->waitUntilIdle(kWait));
  EXPECT_EQ(exchange(request("/plain"), true)->results().size(), 1u);
  setLogSink(nullptr);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].find("delegate bug"), std::string::npos);
}

TEST_F(TransportHttpsTest, ReleasingTheTransportCancelsWhatIsLeftAtTheDeadline) {
  auto slow = std::make_shared<TestTransportDelegate>(true);
  transport_->sendRequest(request("/slow"), 3, slow);
  ASSERT_TRUE(server_->waitForRequests(1, kWait));
  auto started = std::chrono::steady_clock::now();
  transport_.reset();
  EXPECT_LT(Seconds(std::chrono::steady_clock::now() - started).count(), 1.9);
  ASSERT_EQ(slow->failures().size(), 1u);
  EXPECT_EQ(slow->failures()[0].domain, "telvo.transport");

  // A completion may drop the last reference to its own transport.
  TelvoTransport::Options options;
  options.caFile = server_->certificateFile();
  auto holder =
      std::make_shared<std::shared_ptr<TelvoTransport>>(TelvoTransport::makeCurlTransport(options));
  auto released = std::make_shared<std::promise<void>>();
  auto done = released->get_future();
  auto releasing = std::make_shared<TestTransportDelegate>(true);
  releasing->onResult = [holder, released](const TestTransportDelegate::Result&) {
    holder->reset();
    released->set_value();
  };
  (*holder)->sendRequest(request("/plain"), 3, releasing);
  releasing.reset();  // the request in flight keeps it
  ASSERT_EQ(done.wait_for(Seconds(kWait)), std::future_status::ready);
  EXPECT_FALSE(*holder);
}

TEST_F(TransportHttpsTest, ReleaseGivesUpOnACompletionThatDoesNotReturn) {
  // A delegate that holds the transport's thread far past the deadline.
  auto entered = std::make_shared<std::promise<void>>();
  auto inside = entered->get_future();
  auto stuck = std::make_shared<TestTransportDelegate>(true);
  stuck->onResult = [entered](const TestTransportDelegate::Result&) {
    entered->set_value();
    std::this_thread::sleep_for(std::chrono::seconds(4));
  };
  transport_->sendRequest(request("/plain"), 3, stuck);
  stuck.reset();
  ASSERT_EQ(inside.wait_for(Seconds(kWait)), std::future_status::ready);
  CapturedLog log;
  const auto started = std::chrono::steady_clock::now();
  transport_.reset();
  EXPECT_LT(Seconds(std::chrono::steady_clock::now() - started).count(), 2.5);
  EXPECT_EQ(log.lines().size(), 1u);  // the thread is left to finish on its own
}

// A host store that fails when the service's cookie is kept.
class FailingStore : public MemoryUserDefaults {
 public:
  void setObject(const Json&, const std::string&) override { throw std::runtime_error("disk full"); }
};

TEST_F(TransportHttpsTest, AnExceptionInACompletionEndsOnlyThatCompletion) {
  CapturedLog log;
  auto failing = std::make_shared<TestTransportDelegate>(true);
  failing->store = std::make_shared<FailingStore>();
  transport_->sendRequest(request("/cookies"), 3, failing);
  ASSERT_TRUE(transport_->waitUntilIdle(kWait));
  EXPECT_EQ(log.lines().size(), 1u);
  // The thread goes on: the next request completes as usual.
  auto next = exchange(request("/plain"), true);
  ASSERT_EQ(next->results().size(), 1u);
  EXPECT_EQ(*next->results()[0].result, (Json{{"a", 1}}));
}

TEST_F(TransportHttpsTest, ARequestAfterShutdownStillGetsItsOutcome) {
  auto curl = std::dynamic_pointer_cast<CurlTransport>(transport_);
  ASSERT_TRUE(curl);
  curl->shutdown(0);
  CapturedLog log;
  auto late = std::make_shared<TestTransportDelegate>(true);
  curl->sendRequest(request("/plain"), 3, late);
  ASSERT_EQ(late->failures().size(), 1u);  // at once, on this thread
  EXPECT_EQ(late->failures()[0].domain, "telvo.transport");
  EXPECT_EQ(late->failures()[0].code, 42);  // CURLE_ABORTED_BY_CALLBACK: cancelled
  EXPECT_TRUE(curl->waitUntilIdle(0));
}

TEST_F(TransportHttpsTest, SharedTransportIsOneInstanceUntilReplaced) {
  TelvoTransport::Options options;
  options.caFile = server_->certificateFile();
  TelvoTransport::setOptions(options);
  TelvoTransport::setSharedTransport(nullptr);
  // Made now, the shared transport keeps cookies in the standard store.
  UserDefaults::setStandardUserDefaults(defaults_);
  auto shared = TelvoTransport::sharedTransport();
  EXPECT_EQ(shared, TelvoTransport::sharedTransport());
  auto delegate = std::make_shared<TestTransportDelegate>(true);
  shared->sendRequest(request("/wrapped"), 0, delegate);
  ASSERT_TRUE(shared->waitUntilIdle(kWait));
  ASSERT_EQ(delegate->results().size(), 1u);

  TelvoTransport::setSharedTransport(transport_);
  EXPECT_EQ(TelvoTransport::sharedTransport(), transport_);
  TelvoTransport::setSharedTransport(nullptr);
  TelvoTransport::setOptions({});
  UserDefaults::setStandardUserDefaults(nullptr);
}

}  // namespace
}  // namespace telvo
