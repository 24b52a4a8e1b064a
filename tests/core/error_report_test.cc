// Error reports.
#include <gtest/gtest.h>

#include <cmath>

#include "support/client_fixture.h"

namespace telvo {
namespace {

Json lastErrorBody(VirtualPlatform& platform) {
  auto sent = platform.transport->withContext(3);
  return sent.empty() ? Json() : RecordingTransport::decodedBody(sent.back().request);
}

TEST(ErrorReport, PostsAtOnceWithDetailsWinning) {
  VirtualPlatform platform;
  auto client = initializedClient(
      platform, configDocument({{"servicesUrl", "http://svc.example.test/v1"}}),
      {{"sessionId", "S-1"}, {"timestamp", 1700000000000.0 + 1000}});  // delta -1000
  CapturedLog log;
  client->setDebug(true);
  platform.clock->setNow(1700000100.0);
  client->sendError(42, Json{{"K", "V"}});
  EXPECT_TRUE(log.contains("Reporting error: 42"));
  EXPECT_TRUE(platform.transport->withContext(3).empty());  // built on the background queue
  platform.background->runPending();

  auto sent = platform.transport->withContext(3);
  ASSERT_EQ(sent.size(), 1u);
  const URLRequest& request = sent[0].request;
  EXPECT_EQ(request.url->absoluteString(), "https://svc.example.test/v1/api/postEvent/error");
  EXPECT_EQ(request.HTTPMethod, "POST");
  EXPECT_EQ(request.valueForHTTPHeaderField("Content-Type"), "application/x-gzip");
  EXPECT_EQ(request.valueForHTTPHeaderField("Content-Encoding"), "gzip");
  EXPECT_EQ(request.cachePolicy, 4);
  EXPECT_EQ(request.timeoutInterval, 30.0);
  const Json expected = {{"sessionId", "S-1"},
                         {"data",
                          {{"applicationName", "Player"},
                           {"timestamp", 1700000101000},
                           {"errorCode", 42},
                           {"K", "V"}}}};
  EXPECT_EQ(RecordingTransport::decodedBody(request), expected);
  EXPECT_TRUE(log.contains("Payload: " + expected.dump()));

  client->sendError(1, Json{{"errorCode", "mine"}, {"applicationName", "other"}});
  client->sendError("bare");
  platform.settle();
  auto bodies = platform.transport->withContext(3);
  ASSERT_EQ(bodies.size(), 3u);
  const Json replaced = RecordingTransport::decodedBody(bodies[1].request)["data"];
  EXPECT_EQ(replaced["errorCode"], "mine");
  EXPECT_EQ(replaced["applicationName"], "other");
  EXPECT_EQ(lastErrorBody(platform)["data"].size(), 3u);
}

TEST(ErrorReport, ThrottledStillSendsUninitialisedIsSilent) {
  VirtualPlatform platform;
  auto throttled =
      initializedClient(platform, configDocument(), {{"sessionId", "S"}, {"throttled", true}});
  auto fresh = Telvo::create(testConfig(), "web", "prod", platform.record());
  CapturedLog log;
  fresh->setDebug(true);
  fresh->sendError(7);
  throttled->sendError(8);
  platform.settle();
  EXPECT_EQ(platform.transport->withContext(3).size(), 1u);
  EXPECT_EQ(lastErrorBody(platform)["data"]["errorCode"], 8);
  EXPECT_TRUE(log.lines().empty());
}

TEST(ErrorReport, SendsANullCodeAsItIsAndRejectsDetailsThatAreNotObjects) {
  VirtualPlatform platform;
  auto client = initializedClient(platform);
  EXPECT_THROW(client->sendError(1, Json("text")), UsageError);
  CapturedLog log;
  client->sendError(nullptr, Json{{"K", "V"}});
  platform.settle();
  ASSERT_EQ(platform.transport->withContext(3).size(), 1u);
  const Json data = lastErrorBody(platform)["data"];
  ASSERT_TRUE(data.contains("errorCode"));
  EXPECT_TRUE(data["errorCode"].is_null());
  EXPECT_EQ(data["K"], "V");
  EXPECT_TRUE(log.lines().empty());
}

TEST(ErrorReport, FieldDetailsSendTheJsonPathsPayload) {
  VirtualPlatform platform;
  auto client = initializedClient(platform);
  client->sendError(42, {{"K", "V"},
                         {"errorCode", "mine"},
                         {"errorCode", "second"},
                         {"odd", std::nan("")},
                         {"raw", RawJson(R"({"n": [1e308, 2]})")}});
  client->sendError(42, Json{{"K", "V"},
                             {"errorCode", "mine"},
                             {"errorCode", "second"},
                             {"odd", std::nan("")},
                             {"raw", {{"n", {1e308, 2}}}}});
  client->sendError(7, {});
  EXPECT_THROW(client->sendError(1, {{"r", RawJson("nope")}}), UsageError);
  platform.settle();

  auto sent = platform.transport->withContext(3);
  ASSERT_EQ(sent.size(), 3u);
  const Json flat = RecordingTransport::decodedBody(sent[0].request);
  EXPECT_EQ(flat, RecordingTransport::decodedBody(sent[1].request));
  EXPECT_EQ(flat["data"]["errorCode"], "mine");
  EXPECT_EQ(flat["data"]["odd"], nullptr);
  EXPECT_EQ(flat["data"].size(), 6u);
  EXPECT_EQ(lastErrorBody(platform)["data"].size(), 3u);
}

}  // namespace
}  // namespace telvo
