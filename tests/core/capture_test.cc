// Event capture: acceptance, the event record, and the flush decision.
#include <gtest/gtest.h>

#include <cmath>

#include "support/client_fixture.h"

namespace telvo {
namespace {

// Batch posts sent so far.
std::size_t posts(VirtualPlatform& platform) { return platform.transport->withContext(3).size(); }

Json countMode(std::int64_t amount) {
  return configDocument({{"batchMode", "count"}, {"batchModeAmount", amount}});
}

TEST(Capture, StampsServiceClockTimeAsWholeMilliseconds) {
  VirtualPlatform platform;
  // Service clock 250 ms behind the device: delta 250.
  platform.clock->setNow(1000000.0);
  auto client = initializedClient(platform, configDocument(),
                                  {{"sessionId", "S"}, {"timestamp", 1000000000.0 - 250}});
  ASSERT_EQ(client->timeStampDelta(), 250);

  platform.clock->setNow(1000000.4004);
  client->sendEvent("play", Json{{"title", "x"}, {"timestamp", "host value"}});
  platform.main->runPending();
  auto batch = client->batch();
  ASSERT_EQ(batch.size(), 1u);
  EXPECT_EQ(batch[0].data(), R"({"timestamp":1000000150,"title":"x"})");
  EXPECT_EQ(batch[0].timestamp(), 1000000150.0);
  EXPECT_EQ(batch[0].name(), "play");
  EXPECT_EQ(batch[0].session(), Json("S"));
}

TEST(Capture, NoDataCarriesOnlyTheApplicationName) {
  VirtualPlatform platform;
  auto client = initializedClient(platform);
  CapturedLog log;
  client->setDebug(true);
  client->sendEvent("launch");
  platform.main->runPending();
  ASSERT_EQ(client->batch().size(), 1u);
  EXPECT_EQ(client->batch()[0].data(), R"({"applicationName":"Player"})");
  EXPECT_TRUE(log.contains("Queueing up event: launch with data: (null)"));
}

TEST(Capture, DropsSilentlyUnlessInitialisedEnabledAndUnthrottled) {
  VirtualPlatform platform;
  auto fresh = Telvo::create(testConfig(), "web", "prod", platform.record());
  auto disabled = initializedClient(platform, configDocument({{"enabled", false}}));
  auto throttled =
      initializedClient(platform, configDocument(), {{"sessionId", "S"}, {"throttled", true}});
  ASSERT_TRUE(throttled->isThrottled());
  CapturedLog log;
  for (auto& client : {fresh, disabled, throttled}) {
    client->setDebug(true);
    client->sendEvent("play", Json::object());
  }
  platform.settle();
  for (auto& client : {fresh, disabled, throttled}) EXPECT_TRUE(client->batch().empty());
  EXPECT_TRUE(log.lines().empty());
}

TEST(Capture, CountModeFlushesOnExactCountAndErrorsDoNotCount) {
  VirtualPlatform platform;
  auto client = initializedClient(platform, countMode(3));
  CapturedLog log;
  client->setDebug(true);
  std::vector<std::int64_t> counts;
  for (const char* name : {"a", "b", "c", "error", "d", "e", "f"}) {
    client->sendEvent(name, Json::object());
    platform.settle();
    counts.push_back(client->postCount());
  }
  EXPECT_EQ(counts, (std::vector<std::int64_t>{1, 2, 0, 0, 1, 2, 0}));
  EXPECT_EQ(posts(platform), 3u);  // after "c", after "error", after "f"
  EXPECT_TRUE(log.contains("Dumping events on count"));
  EXPECT_TRUE(log.contains("Post count: 2"));
  EXPECT_TRUE(log.contains("Post count: 0"));
}

TEST(Capture, CountBelowOneNeverTriggers) {
  VirtualPlatform platform;
  auto client = initializedClient(platform, countMode(0));
  for (int i = 0; i < 5; ++i) client->sendEvent("a", Json::object());
  platform.settle();
  EXPECT_EQ(client->postCount(), 5);
  EXPECT_EQ(posts(platform), 0u);
}

TEST(Capture, HighPriorityListTakesPrecedence) {
  VirtualPlatform platform;
  auto config = testConfig();
  config->setHighPriorityEvents(std::vector<std::string>{"a", "x", "a"});
  auto client = initializedClient(platform, countMode(1), {{"sessionId", "S"}}, config);

  client->sendEvent("b", Json::object());
  client->sendEvent("error", Json::object());
  platform.settle();
  EXPECT_EQ(client->postCount(), 0);
  EXPECT_EQ(posts(platform), 0u);
  EXPECT_EQ(client->batch().size(), 2u);

  client->sendEvent("a", Json::object());  // listed twice: two flushes, the second finds nothing
  platform.settle();
  EXPECT_EQ(posts(platform), 1u);
  EXPECT_EQ(RecordingTransport::decodedBody(platform.transport->withContext(3)[0].request)["events"]
                .size(),
            3u);
}

TEST(Capture, EmptyHighPriorityListLeavesTheOtherRules) {
  VirtualPlatform platform;
  auto config = testConfig();
  config->setHighPriorityEvents(std::vector<std::string>{});
  auto client = initializedClient(platform, countMode(2), {{"sessionId", "S"}}, config);
  for (const char* name : {"error", "a", "b"}) {
    client->sendEvent(name, Json::object());
    platform.settle();
  }
  EXPECT_EQ(posts(platform), 2u);
  EXPECT_EQ(client->postCount(), 0);
}

TEST(Capture, RejectsDataThatIsNotAnObjectAndDropsNonFiniteNumbers) {
  VirtualPlatform platform;
  auto client = initializedClient(platform);
  EXPECT_THROW(client->sendEvent("a", Json::array({1})), UsageError);
  CapturedLog log;
  client->sendEvent("nan", Json{{"v", std::nan("")}});
  client->sendEvent("ok", Json{{"v", 1.5}});
  platform.settle();
  ASSERT_EQ(client->batch().size(), 1u);
  EXPECT_EQ(client->batch()[0].name(), "ok");
  EXPECT_EQ(log.lines().size(), 1u);
}

}  // namespace
}  // namespace telvo
