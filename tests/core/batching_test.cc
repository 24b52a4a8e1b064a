// The batch timer and the flush.
#include <gtest/gtest.h>

#include "support/client_fixture.h"

namespace telvo {
namespace {

const char* kRefusal = "Telvo not initialized yet - cannot start timer or timer exists";

TEST(BatchTimer, StartsOnHelloWithTheBatchAmountAsInterval) {
  VirtualPlatform platform;
  auto client = initializedClient(platform);
  auto timer = client->batchTimer();
  ASSERT_TRUE(timer);
  EXPECT_EQ(timer->timeInterval(), 5.0);

  CapturedLog log;
  client->setDebug(true);
  client->startTimer();
  EXPECT_EQ(client->batchTimer(), timer);
  EXPECT_TRUE(log.contains(kRefusal));

  client->sendEvent("a", Json::object());
  platform.main->advance(4.9);
  EXPECT_TRUE(platform.transport->withContext(3).empty());
  platform.main->advance(0.2);
  EXPECT_EQ(platform.transport->withContext(3).size(), 1u);
  EXPECT_TRUE(log.contains("Dumping events on timer"));
}

TEST(BatchTimer, RefusedBeforeHelloAndFlooredForBadIntervals) {
  VirtualPlatform platform;
  CapturedLog log;
  auto fresh = Telvo::create(testConfig(), "web", "prod", platform.record());
  fresh->setDebug(true);
  fresh->startTimer();
  EXPECT_FALSE(fresh->batchTimer());
  EXPECT_TRUE(log.contains(kRefusal));

  auto zero = initializedClient(platform, configDocument({{"batchModeAmount", 0}}));
  ASSERT_TRUE(zero->batchTimer());
  EXPECT_EQ(zero->batchTimer()->timeInterval(), kMinimumTimerInterval);
}

TEST(BatchTimer, FollowsTheApplicationInCountModeTooAndStoppingDoesNotFlush) {
  VirtualPlatform platform;
  auto client = initializedClient(
      platform, configDocument({{"batchMode", "count"}, {"batchModeAmount", 50}}));
  EXPECT_FALSE(client->batchTimer());  // count mode: no timer from hello
  CapturedLog log;
  client->setDebug(true);

  platform.center->postNotificationName(UIApplicationWillEnterForegroundNotification);
  ASSERT_TRUE(client->batchTimer());
  EXPECT_EQ(client->batchTimer()->timeInterval(), 50.0);

  client->sendEvent("a", Json::object());
  platform.settle();
  platform.center->postNotificationName(UIApplicationDidEnterBackgroundNotification);
  EXPECT_FALSE(client->batchTimer());
  EXPECT_TRUE(log.contains("Telvo timer - invalidating and nullifying"));
  platform.main->advance(200);
  EXPECT_TRUE(platform.transport->withContext(3).empty());
  EXPECT_EQ(client->batch().size(), 1u);

  platform.center->postNotificationName(UIApplicationWillTerminateNotification);
  EXPECT_TRUE(log.contains("Telvo timer already nil."));
  EXPECT_TRUE(
      log.contains("[TELVO::stopTimer:] - Stopping timer on instance: " + client->description()));
}

TEST(Flush, SendsEventsInTimestampOrderAndEmptiesTheQueueFirst) {
  VirtualPlatform platform;
  auto client = initializedClient(platform);
  std::vector<Event> events(4);
  events[0].setName("late");
  events[0].setTimestamp(300);
  events[0].setData(R"({"n":3})");
  events[1].setName("bad \"data\"");
  events[1].setTimestamp(100);
  events[1].setData("not json");
  events[2].setName("middle");
  events[2].setTimestamp(200);
  events[2].setData(R"({"n":2})");
  events[3].setName("also middle");  // equal times keep their queue order
  events[3].setTimestamp(200);
  events[3].setData(R"({"n":22})");
  client->setBatch(events);
  client->setBatch(client->batch());  // a round trip keeps the foreign data foreign

  client->dumpEvents();
  platform.main->runPending();
  EXPECT_TRUE(client->batch().empty());
  auto sent = platform.transport->withContext(3);
  ASSERT_EQ(sent.size(), 1u);
  const URLRequest& request = sent[0].request;
  EXPECT_EQ(request.url->absoluteString(), "https://svc.example.test/api/batch.json");
  EXPECT_EQ(request.HTTPMethod, "POST");
  EXPECT_EQ(request.valueForHTTPHeaderField("Content-Type"), "application/x-gzip");
  EXPECT_EQ(request.valueForHTTPHeaderField("Content-Encoding"), "gzip");
  EXPECT_EQ(request.cachePolicy, 4);
  EXPECT_EQ(request.timeoutInterval, 30.0);
  EXPECT_EQ(RecordingTransport::decodedBody(request),
            (Json{{"sessionId", "S-1"},
                  {"events",
                   {{{"eventType", "bad \"data\""}, {"eventData", Json::object()}},
                    {{"eventType", "middle"}, {"eventData", {{"n", 2}}}},
                    {{"eventType", "also middle"}, {"eventData", {{"n", 22}}}},
                    {{"eventType", "late"}, {"eventData", {{"n", 3}}}}}}}));

  // A failed post loses its events; an empty queue sends nothing.
  platform.transport->fail(platform.transport->count() - 1);
  client->dumpEvents();
  platform.main->runPending();
  EXPECT_EQ(platform.transport->withContext(3).size(), 1u);
}

TEST(Flush, JoinsTheAddressAsItStands) {
  VirtualPlatform platform;
  auto client = initializedClient(
      platform, configDocument({{"servicesUrl", "http://svc.example.test/v1"}, {"batchApi", "b"}}));
  client->sendEvent("error", Json{{"k", "v"}});
  platform.settle();
  auto sent = platform.transport->withContext(3);
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].request.url->absoluteString(), "https://svc.example.test/v1b.json");
  const Json body = RecordingTransport::decodedBody(sent[0].request);
  EXPECT_EQ(body["events"][0]["eventData"]["k"], "v");
  EXPECT_TRUE(body["events"][0]["eventData"]["timestamp"].is_number_integer());
}

TEST(Flush, ALocationOfANullSettingOrOfCharactersNoURLHoldsGivesNoAddress) {
  // A JSON null shows as <null> in the location, which no URL holds; so do
  // quotes and angle brackets, though libcurl's parser lets them through.
  for (const Json& batchApi : {Json(nullptr), Json("/api/\"b\""), Json("/api/<b>")}) {
    SCOPED_TRACE(batchApi.dump());
    VirtualPlatform platform;
    auto client = initializedClient(
        platform,
        configDocument({{"servicesUrl", "http://svc.example.test/v1"}, {"batchApi", batchApi}}));
    client->sendEvent("error", Json{{"k", "v"}});
    platform.settle();
    auto sent = platform.transport->withContext(3);
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_FALSE(sent[0].request.url) << sent[0].request.url->absoluteString();
  }
}

TEST(Flush, AnEventOfANullSessionDescribesItAsNull) {
  VirtualPlatform platform;
  auto client = initializedClient(platform, configDocument(),
                                  {{"sessionId", nullptr}, {"timestamp", 1700000000000.0}});
  client->sendEvent("play", Json{{"k", "v"}});
  const auto batch = client->batch();
  ASSERT_EQ(batch.size(), 1u);
  EXPECT_NE(batch[0].description().find("session: <null>,"), std::string::npos)
      << batch[0].description();
}

}  // namespace
}  // namespace telvo
