// The retrying delivery a host opts into: start-up that waits for the
// network, events kept before initialisation, posts sent again; in virtual
// time, with the jitter seeded.
#include <gtest/gtest.h>

#include <string>

#include "support/client_fixture.h"

namespace telvo {
namespace {

ClientOptions retrying() {
  ClientOptions options;
  options.retry = true;
  options.retryInitialSeconds = 1;
  options.retryMaxSeconds = 8;
  options.retrySeed = 42;
  return options;
}

std::shared_ptr<Telvo> retryingClient(VirtualPlatform& platform,
                                      const ClientOptions& options = retrying()) {
  return Telvo::create(testConfig(), "web", "prod", platform.record(), options);
}

std::size_t last(VirtualPlatform& platform) { return platform.transport->count() - 1; }

Json body(VirtualPlatform& platform, std::size_t index) {
  return RecordingTransport::decodedBody(platform.transport->at(index).request);
}

// Runs virtual time forward until the transport has `count` requests, at
// most `seconds`.
bool advanceUntil(VirtualPlatform& platform, std::size_t count, double seconds) {
  for (double waited = 0; waited < seconds && platform.transport->count() < count; waited += 0.1) {
    platform.main->advance(0.1);
    platform.settle();
  }
  return platform.transport->count() >= count;
}

TEST(Retrying, StartUpIsTriedAgainUntilTheServiceAnswers) {
  VirtualPlatform platform;
  CapturedLog log;
  auto client = retryingClient(platform);
  platform.transport->fail(0);  // no network yet
  EXPECT_EQ(platform.transport->count(), 1u);
  ASSERT_TRUE(advanceUntil(platform, 2, 1.05));  // the first retry waits at most 1 s
  EXPECT_EQ(platform.transport->at(1).context, kConfigurationContext);
  platform.transport->answer(1, "busy", {}, 503);
  ASSERT_TRUE(advanceUntil(platform, 3, 2.05));
  platform.transport->answer(2, "<html>a captive portal</html>");  // does not parse
  ASSERT_TRUE(advanceUntil(platform, 4, 4.05));
  platform.transport->answerJson(3, configDocument());
  ASSERT_EQ(platform.transport->count(), 5u);
  EXPECT_EQ(platform.transport->at(4).context, kHelloContext);
  platform.transport->answer(4, "{}", {}, 429);
  ASSERT_TRUE(advanceUntil(platform, 6, 1.05));  // the hello's own first retry
  platform.transport->answerJson(5, {{"sessionId", "S-1"}});
  platform.settle();
  EXPECT_TRUE(client->isInitialized());
  EXPECT_EQ(client->stats().retries, 4u);
  EXPECT_EQ(log.count("trying again in"), 4u);
}

TEST(Retrying, TheMasterConfigurationBoundsAndSpacesHelloRetries) {
  VirtualPlatform platform;
  auto client = retryingClient(platform);
  platform.transport->answerJson(0, configDocument({{"helloRetryCount", 2}, {"helloRetryTime", 7}}));
  platform.transport->fail(1);
  platform.main->advance(6.9);
  EXPECT_EQ(platform.transport->count(), 2u);  // spaced by helloRetryTime, not the backoff
  ASSERT_TRUE(advanceUntil(platform, 3, 0.3));
  platform.transport->fail(2);
  ASSERT_TRUE(advanceUntil(platform, 4, 7.2));
  CapturedLog log;
  platform.transport->fail(3);
  platform.main->advance(60);
  platform.settle();
  EXPECT_EQ(platform.transport->count(), 4u);  // two retries, then no more
  EXPECT_EQ(log.count("as many as \"helloRetryCount\" allows"), 1u);
  EXPECT_FALSE(client->isInitialized());
}

TEST(Retrying, ANetworkThatComesBackIsTriedAtOnce) {
  VirtualPlatform platform;
  ClientOptions options = retrying();
  options.retryInitialSeconds = options.retryMaxSeconds = 300;
  auto client = retryingClient(platform, options);
  platform.transport->fail(0);
  platform.settle();
  EXPECT_EQ(platform.transport->count(), 1u);
  client->networkAvailable();
  platform.settle();
  ASSERT_EQ(platform.transport->count(), 2u);
  // Nothing waits any more: the timer went with it.
  platform.main->advance(600);
  EXPECT_EQ(platform.transport->count(), 2u);
}

TEST(Retrying, EventsBeforeTheHelloKeepTheirTimeAndTakeItsSession) {
  VirtualPlatform platform;
  platform.clock->setNow(1700000000.0);
  auto client = retryingClient(platform);
  client->sendEvent("launch", {{"cold", true}});
  platform.clock->setNow(1700000000.25);
  client->sendEvent("menu", Json{{"n", 1}});
  EXPECT_EQ(platform.main->pendingCount(), 0u);
  EXPECT_TRUE(client->batch().empty());  // waiting for a session
  EXPECT_EQ(client->stats().eventsAccepted, 2u);

  // The service's clock runs 5 s behind the device's.
  platform.clock->setNow(1700000003.0);
  platform.transport->answerJson(0, configDocument());
  platform.transport->answerJson(1, {{"sessionId", "S-9"}, {"timestamp", 1700000003000.0 - 5000}});
  platform.settle();
  ASSERT_EQ(platform.transport->count(), 3u);  // posted as soon as the hello answered
  const Json sent = body(platform, 2);
  EXPECT_EQ(sent["sessionId"], "S-9");
  ASSERT_EQ(sent["events"].size(), 2u);
  EXPECT_EQ(sent["events"][0]["eventType"], "launch");
  EXPECT_EQ(sent["events"][0]["eventData"]["timestamp"], 1700000000000 - 5000);
  EXPECT_EQ(sent["events"][1]["eventData"]["timestamp"], 1700000000250 - 5000);
}

TEST(Retrying, EventsBeforeTheHelloAreDroppedWhenReportingIsOffOrThrottled) {
  {
    VirtualPlatform platform;
    CapturedLog log;
    auto client = retryingClient(platform);
    client->sendEvent("early", {{"n", 1}});
    platform.transport->answerJson(0, configDocument({{"enabled", false}}));
    platform.settle();
    client->sendEvent("late", {{"n", 2}});
    const Stats stats = client->stats();
    EXPECT_EQ(stats.eventsDroppedRefused, 1u);
    EXPECT_EQ(stats.eventsRefusedDisabled, 1u);
    EXPECT_EQ(log.count("the configuration disables reporting"), 1u);
  }
  {
    VirtualPlatform platform;
    auto client = retryingClient(platform);
    client->sendEvent("early", {{"n", 1}});
    platform.transport->answerJson(0, configDocument());
    platform.transport->answerJson(1, {{"sessionId", "S"}, {"throttled", true}});
    platform.settle();
    EXPECT_EQ(platform.transport->count(), 2u);
    EXPECT_EQ(client->stats().eventsDroppedRefused, 1u);
  }
}

TEST(Retrying, AFailedPostIsSentAgainAndOthersWaitTheirTurn) {
  VirtualPlatform platform;
  auto client = retryingClient(platform);
  platform.transport->answerJson(0, configDocument());
  platform.transport->answerJson(1, {{"sessionId", "S"}});
  platform.settle();

  client->sendEvent("first", {{"n", 1}});
  client->dumpEvents();
  platform.settle();
  ASSERT_EQ(platform.transport->count(), 3u);
  const Json firstBody = body(platform, 2);
  platform.transport->answer(2, "down", {}, 502);
  // A later flush waits behind the retry.
  client->sendEvent("second", {{"n", 2}});
  client->sendError("E1");
  client->dumpEvents();
  platform.settle();
  EXPECT_EQ(platform.transport->count(), 3u);
  ASSERT_TRUE(advanceUntil(platform, 4, 1.05));
  EXPECT_EQ(body(platform, 3), firstBody);  // the same post, the same stamps
  platform.transport->answerJson(3, Json::object());
  platform.settle();
  // Then the others, one at a time, in order.
  ASSERT_EQ(platform.transport->count(), 5u);
  EXPECT_EQ(body(platform, 4)["events"][0]["eventType"], "second");
  platform.transport->answerJson(4, Json::object());
  platform.settle();
  ASSERT_EQ(platform.transport->count(), 6u);
  EXPECT_EQ(body(platform, 5)["data"]["errorCode"], "E1");
  platform.transport->answerJson(5, Json::object());
  platform.settle();

  // A refusal that will not change is not tried again.
  client->sendEvent("third", {{"n", 3}});
  client->dumpEvents();
  platform.settle();
  platform.transport->answer(last(platform), "no", {}, 400);
  platform.main->advance(60);
  platform.settle();
  EXPECT_EQ(platform.transport->count(), 7u);
  const Stats stats = client->stats();
  EXPECT_EQ(stats.eventsPosted, 2u);
  EXPECT_EQ(stats.eventsFailed, 1u);
  EXPECT_EQ(stats.errorsSent, 1u);
  EXPECT_EQ(stats.retries, 1u);
  EXPECT_EQ(stats.eventsQueued, 0u);
}

TEST(Retrying, AClientReleasedWhileARetryWaitsLeavesNoTimerBehind) {
  VirtualPlatform platform;
  auto client = retryingClient(platform);
  platform.transport->fail(0);
  EXPECT_EQ(platform.main->activeTimerCount(), 1u);
  client.reset();
  platform.main->advance(30);
  platform.settle();
  EXPECT_EQ(platform.main->activeTimerCount(), 0u);
  EXPECT_EQ(platform.transport->count(), 1u);
}

TEST(Retrying, OffByDefaultNothingIsKeptOrRepeated) {
  VirtualPlatform platform;
  auto client = Telvo::create(testConfig(), "web", "prod", platform.record());
  client->sendEvent("early", {{"n", 1}});
  platform.transport->fail(0);
  platform.main->advance(600);
  platform.settle();
  EXPECT_EQ(platform.transport->count(), 1u);
  EXPECT_EQ(client->stats().eventsRefusedNotInitialized, 1u);
  EXPECT_EQ(client->stats().eventsAccepted, 0u);
}

}  // namespace
}  // namespace telvo
