// Clients over real libcurl and HTTPS on 127.0.0.1, with the real main queue:
// configuration fetch, hello with a callback wrapper and a cookie, timer
// batches, error reports, and a second client that sends the stored cookie.
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <string>
#include <thread>

#include "support/curl_platform.h"
#include "support/https_test_server.h"
#include "support/test_platform.h"
#include "telvo/clock.h"
#include "telvo/device.h"
#include "telvo/envelope.h"
#include "telvo/notification_center.h"
#include "telvo/telvo.h"
#include "telvo/user_defaults.h"

namespace telvo {
namespace {

using test::HttpsTestServer;
using test::RecordedRequest;
constexpr double kWait = 20;  // upper bound for anything the test waits on
constexpr double kServiceBehindMs = 60000;

double nowMs() { return SystemClock().now() * 1000.0; }

bool waitUntil(const std::function<bool()>& done) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(kWait);
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

std::vector<RecordedRequest> requestsTo(const HttpsTestServer& server, const std::string& path) {
  std::vector<RecordedRequest> out;
  for (auto& request : server.requests()) {
    if (request.path == path) out.push_back(std::move(request));
  }
  return out;
}

Json decoded(const RecordedRequest& request) {
  DecodedEnvelope envelope = decodeTelvoJsonParameter(request.body);
  EXPECT_TRUE(envelope.ok()) << envelope.message;
  return envelope.document;
}

TEST(EndToEnd, ClientsTalkToTheServiceOverHttps) {
  HttpsTestServer server;
  const std::string document = Json{{"default",
                                     {{"enabled", true},
                                      {"batchMode", "timer"},
                                      {"batchModeAmount", 1},
                                      {"servicesUrl", server.url()},
                                      {"helloApi", "/api/hello"},
                                      {"batchApi", "/api/batch"}}}}
                                   .dump();
  server.route("GET", "/config/Player/den/telvoanalytics.json",
               [&](const httplib::Request&, httplib::Response& response) {
                 response.set_content(document, "application/json");
               });
  server.route("POST", "/api/hello", [](const httplib::Request&, httplib::Response& response) {
    const Json answer = {{"sessionId", "S-42"},
                         {"throttled", false},
                         {"timestamp", std::round(nowMs() - kServiceBehindMs)}};
    response.headers.emplace("Set-Cookie", "telvoUUID=u-1; Path=/");
    response.set_content("telvoCallback(" + answer.dump() + ");", "application/javascript");
  });
  for (const char* path : {"/api/batch.json", "/api/postEvent/error"}) {
    server.route("POST", path, [](const httplib::Request&, httplib::Response& response) {
      response.set_content("{}", "application/json");
    });
  }

  // The real queues and clock; libcurl against the local server.
  const Platform platform = test::curlPlatform(server.certificateFile());
  const auto defaults = platform.userDefaults;
  auto config = [&] {
    return std::make_shared<TelvoConfig>("linux", "12", "den", "3.0", "Player",
                                         server.url("/config/"));
  };

  auto client = Telvo::create(config(), "web", "prod", platform);
  ASSERT_TRUE(waitUntil([&] { return client->isInitialized(); }));
  EXPECT_EQ(client->sessionID(), Json("S-42"));
  EXPECT_NEAR(client->timeStampDelta(), kServiceBehindMs, 5000);

  const auto fetch = requestsTo(server, "/config/Player/den/telvoanalytics.json");
  ASSERT_EQ(fetch.size(), 1u);
  EXPECT_EQ(fetch[0].method, "GET");
  auto hello = requestsTo(server, "/api/hello");
  ASSERT_EQ(hello.size(), 1u);
  EXPECT_EQ(hello[0].header("Content-Type"), "application/x-gzip");
  EXPECT_EQ(hello[0].header("Content-Encoding"), "gzip");
  const Json helloBody = decoded(hello[0]);
  EXPECT_EQ(helloBody.size(), 9u);
  EXPECT_EQ(helloBody["propertyName"], "web");
  EXPECT_EQ(helloBody["deviceType"], "settop");

  // Three events, flushed together by the one-second timer.
  client->sendEvent("first", Json{{"n", 1}});
  client->sendEvent("second");
  client->sendEvent("third", Json{{"n", 3}, {"nested", {{"a", {1, 2}}}}});
  ASSERT_TRUE(waitUntil([&] { return !requestsTo(server, "/api/batch.json").empty(); }));
  auto batch = requestsTo(server, "/api/batch.json")[0];
  EXPECT_EQ(batch.header("Content-Type"), "application/x-gzip");
  EXPECT_EQ(batch.header("Content-Encoding"), "gzip");
  const Json payload = decoded(batch);
  EXPECT_EQ(payload["sessionId"], "S-42");
  ASSERT_EQ(payload["events"].size(), 3u);
  std::int64_t previous = 0;
  for (const auto& event : payload["events"]) {
    const Json& data = event["eventData"];
    if (event["eventType"] == "second") {
      EXPECT_EQ(data, (Json{{"applicationName", "Player"}}));
      continue;
    }
    const std::int64_t stamp = data["timestamp"].get<std::int64_t>();
    EXPECT_NEAR(static_cast<double>(stamp), nowMs() - kServiceBehindMs, 10000);
    EXPECT_GE(stamp, previous);
    previous = stamp;
  }
  EXPECT_EQ(payload["events"][0]["eventType"], "first");
  EXPECT_EQ(payload["events"][2]["eventData"]["nested"], (Json{{"a", {1, 2}}}));

  client->sendError(42, Json{{"K", "V"}});
  ASSERT_TRUE(waitUntil([&] { return !requestsTo(server, "/api/postEvent/error").empty(); }));
  const Json error = decoded(requestsTo(server, "/api/postEvent/error")[0]);
  EXPECT_EQ(error["sessionId"], "S-42");
  EXPECT_EQ(error["data"]["errorCode"], 42);
  EXPECT_EQ(error["data"]["K"], "V");
  EXPECT_EQ(error["data"]["applicationName"], "Player");

  // The hello answer's cookie was kept; a second client sends it and nothing else.
  ASSERT_TRUE(defaults->objectForKey(TelvoUUIDCookieKey));
  auto second = Telvo::create(config(), "web", "prod", platform);
  ASSERT_TRUE(waitUntil([&] { return second->isInitialized(); }));
  hello = requestsTo(server, "/api/hello");
  ASSERT_EQ(hello.size(), 2u);
  EXPECT_EQ(hello[1].header("Cookie"), "telvoUUID=u-1");
  EXPECT_NE(hello[1].header("Content-Type"), "application/x-gzip");
  EXPECT_FALSE(hello[1].hasHeader("Content-Encoding"));
  EXPECT_EQ(decoded(hello[1])["propertyName"], "web");

  client.reset();
  second.reset();
  EXPECT_TRUE(platform.transport->waitUntilIdle(kWait));
}

}  // namespace
}  // namespace telvo
