// What capture costs the device and what it keeps: paced events that wake
// no thread, the bounds on queued bytes, posts, the backlog and pending
// error reports, and the counters that say what became of everything.
#include <gtest/gtest.h>

#include <string>

#include "support/client_fixture.h"

namespace telvo {
namespace {

// A client of `platform` made with `options`, initialised by `document`.
std::shared_ptr<Telvo> boundedClient(VirtualPlatform& platform, const ClientOptions& options,
                                     const Json& document = configDocument()) {
  const std::size_t first = platform.transport->count();
  auto client = Telvo::create(testConfig(), "web", "prod", platform.record(), options);
  platform.transport->answerJson(first, document);
  platform.transport->answerJson(first + 1, {{"sessionId", "S-1"}, {"timestamp", 1700000000000.0}});
  platform.settle();
  return client;
}

std::vector<URLRequest> batchPosts(VirtualPlatform& platform) {
  std::vector<URLRequest> requests;
  for (const auto& sent : platform.transport->withContext(3)) requests.push_back(sent.request);
  return requests;
}

std::size_t lastIndex(VirtualPlatform& platform) { return platform.transport->count() - 1; }

// A 100-character text, so that events have a known size.
const std::string kPadding(100, 'x');

TEST(PacedCapture, EventsWaitForTheTimerWithoutWakingTheMainQueue) {
  VirtualPlatform platform;
  auto client = initializedClient(platform);
  for (int i = 0; i < 50; ++i) {
    platform.clock->setNow(1700000000.0 + i * 0.01);
    client->sendEvent("tick", {{"i", i}});
  }
  // Nothing asked for a flush: no work is waiting on the main queue.
  EXPECT_EQ(platform.main->pendingCount(), 0u);
  EXPECT_TRUE(batchPosts(platform).empty());

  platform.main->advance(5);
  platform.settle();
  const auto posts = batchPosts(platform);
  ASSERT_EQ(posts.size(), 1u);
  const Json events = RecordingTransport::decodedBody(posts[0])["events"];
  ASSERT_EQ(events.size(), 50u);
  for (int i = 0; i < 50; ++i) {
    EXPECT_EQ(events[i]["eventData"]["i"], i);
    // Stamped at the call, not when the timer captured it.
    EXPECT_EQ(events[i]["eventData"]["timestamp"], 1700000000000 + i * 10);
  }
}

TEST(PacedCapture, AFlushAskedForByAnEventIsScheduledAtOnce) {
  VirtualPlatform platform;
  auto counting = initializedClient(
      platform, configDocument({{"batchMode", "count"}, {"batchModeAmount", 3}}));
  counting->sendEvent("a", {{"n", 1}});
  counting->sendEvent("b", {{"n", 2}});
  EXPECT_EQ(platform.main->pendingCount(), 0u);
  EXPECT_EQ(counting->postCount(), 2);
  counting->sendEvent("c", {{"n", 3}});
  // The count is decided at the call; the capture and flush follow at once.
  EXPECT_EQ(counting->postCount(), 0);
  EXPECT_EQ(platform.main->pendingCount(), 1u);
  platform.settle();
  ASSERT_EQ(batchPosts(platform).size(), 1u);
  EXPECT_EQ(RecordingTransport::decodedBody(batchPosts(platform)[0])["events"].size(), 3u);

  // "error" flushes too, and a host's list of high-priority names.
  counting->sendEvent("error", Json{{"n", 4}});
  EXPECT_EQ(platform.main->pendingCount(), 1u);
  platform.settle();
  EXPECT_EQ(batchPosts(platform).size(), 2u);

  auto config = testConfig();
  config->setHighPriorityEvents(std::vector<std::string>{"login"});
  auto priority = initializedClient(platform, configDocument(),
                                    {{"sessionId", "S-2"}, {"timestamp", 1700000000000.0}}, config);
  priority->sendEvent("error", Json{{"n", 5}});  // the list switches "error" off
  EXPECT_EQ(platform.main->pendingCount(), 0u);
  priority->sendEvent("login", Json{{"n", 6}});
  EXPECT_EQ(platform.main->pendingCount(), 1u);
  platform.settle();
  const auto posts = batchPosts(platform);
  ASSERT_EQ(posts.size(), 3u);
  EXPECT_EQ(RecordingTransport::decodedBody(posts[2])["events"].size(), 2u);
}

TEST(PacedCapture, BatchAndANewSessionCaptureWhatIsPendingFirst) {
  VirtualPlatform platform;
  auto client = initializedClient(platform);
  client->sendEvent("one", {{"n", 1}});
  client->sendEvent("two", Json{{"n", 2}});
  const auto batch = client->batch();
  ASSERT_EQ(batch.size(), 2u);
  EXPECT_EQ(batch[0].name(), "one");
  EXPECT_EQ(batch[1].name(), "two");

  // A second hello: events accepted before it keep the session they were
  // accepted in.
  client->sendEvent("three", {{"n", 3}});
  client->sendHello();
  platform.transport->answerJson(lastIndex(platform), {{"sessionId", "S-2"}});
  platform.settle();
  client->sendEvent("four", {{"n", 4}});
  const auto later = client->batch();
  ASSERT_EQ(later.size(), 4u);
  EXPECT_EQ(later[2].session(), Json("S-1"));
  EXPECT_EQ(later[3].session(), Json("S-2"));
}

TEST(Bounds, AFullQueueDropsNewEventsAndLogsOncePerEpisode) {
  VirtualPlatform platform;
  ClientOptions options;
  options.maxQueuedBytes = 2000;
  auto client = boundedClient(platform, options);
  CapturedLog log;
  for (int i = 0; i < 30; ++i) client->sendEvent("e", {{"pad", kPadding}, {"i", i}});
  Stats stats = client->stats();
  EXPECT_EQ(stats.eventsAccepted, 30u);
  EXPECT_GT(stats.eventsDroppedQueueFull, 0u);
  EXPECT_LT(stats.eventsDroppedQueueFull, 30u);
  const std::uint64_t kept = 30 - stats.eventsDroppedQueueFull;
  EXPECT_EQ(stats.eventsQueued, kept);
  EXPECT_EQ(log.count("the event queue is full"), 1u);
  // The events kept are the first ones, in order.
  const auto batch = client->batch();
  ASSERT_EQ(batch.size(), kept);
  EXPECT_EQ(Json::parse(batch.back().data())["i"], kept - 1);

  // A flush makes room; the next episode logs again.
  client->dumpEvents();
  platform.settle();
  platform.transport->answerJson(lastIndex(platform), Json::object());
  client->sendEvent("e", {{"pad", kPadding}});
  EXPECT_EQ(client->stats().eventsDroppedQueueFull, stats.eventsDroppedQueueFull);
  for (int i = 0; i < 30; ++i) client->sendEvent("e", {{"pad", kPadding}});
  EXPECT_EQ(log.count("the event queue is full"), 2u);

  // Json events count too (by a guess at the call, by their size once
  // captured).
  const auto before = client->stats().eventsDroppedQueueFull;
  for (int i = 0; i < 30; ++i) client->sendEvent("j", Json{{"pad", kPadding}});
  EXPECT_GT(client->stats().eventsDroppedQueueFull, before);
}

TEST(Bounds, AFullQueueStaysOneEpisodeUntilHalfOfItIsFreeAgain) {
  VirtualPlatform platform;
  ClientOptions options;
  options.maxQueuedBytes = 4000;
  auto client = boundedClient(platform, options);
  CapturedLog log;
  // Json events are guessed larger at the call than they are once
  // captured: each capture frees a little room, which a flood takes at once.
  for (int round = 0; round < 20; ++round) {
    for (int i = 0; i < 20; ++i) client->sendEvent("j", Json{{"a", i}});
    EXPECT_FALSE(client->batch().empty());  // captures what is pending
  }
  const Stats stats = client->stats();
  EXPECT_GT(stats.eventsDroppedQueueFull, 200u);
  EXPECT_GT(stats.eventsQueued, 20u);
  EXPECT_EQ(log.count("the event queue is full"), 1u);

  // Emptied by a flush, it is a new episode.
  client->dumpEvents();
  platform.settle();
  platform.transport->answerJson(lastIndex(platform), Json::object());
  for (int i = 0; i < 200; ++i) client->sendEvent("j", Json{{"a", i}});
  EXPECT_EQ(log.count("the event queue is full"), 2u);
}

TEST(Bounds, AFlushBeyondOnePostSplitsIntoWholePostsInTimestampOrder) {
  VirtualPlatform platform;
  ClientOptions options;
  options.maxPostBytes = 1000;
  auto client = boundedClient(platform, options);
  // Captured out of order: the split follows the timestamps.
  for (int i = 0; i < 30; ++i) {
    platform.clock->setNow(1700000000.0 + (i % 2 == 0 ? i : 100 + i));
    client->sendEvent("e", {{"pad", kPadding}, {"i", i}});
  }
  client->dumpEvents();
  platform.settle();
  const auto posts = batchPosts(platform);
  ASSERT_GT(posts.size(), 3u);
  std::int64_t previous = 0;
  std::size_t total = 0;
  for (const URLRequest& request : posts) {
    const Json body = RecordingTransport::decodedBody(request);
    EXPECT_LE(body.dump().size(), 1000u);
    EXPECT_EQ(body.size(), 2u);
    EXPECT_EQ(body["sessionId"], "S-1");
    for (const Json& event : body["events"]) {
      const std::int64_t stamp = event["eventData"]["timestamp"];
      EXPECT_GE(stamp, previous);
      previous = stamp;
      ++total;
    }
  }
  EXPECT_EQ(total, 30u);
  EXPECT_EQ(client->stats().postsMade, posts.size());

  // An event that cannot fit in any post is dropped at the call, or (a Json
  // whose size the call only guesses) at the flush.
  CapturedLog log;
  client->sendEvent("huge", {{"pad", std::string(2000, 'y')}});
  client->sendEvent("huge", {{"pad", std::string(2000, 'y')}});
  EXPECT_EQ(client->stats().eventsDroppedTooLarge, 2u);
  EXPECT_EQ(log.count("larger than one post may be"), 1u);
  client->sendEvent("huge", Json{{"pad", std::string(2000, 'y')}});
  client->sendEvent("fits", {{"n", 1}});
  client->dumpEvents();
  platform.settle();
  EXPECT_EQ(client->stats().eventsDroppedTooLarge, 3u);
  const auto last = batchPosts(platform).back();
  EXPECT_EQ(RecordingTransport::decodedBody(last)["events"][0]["eventType"], "fits");
}

TEST(Bounds, PostsBeyondTheBacklogAreDroppedWhileOneIsUnderWay) {
  VirtualPlatform platform;
  ClientOptions options;
  options.maxBacklogBytes = 1;
  auto client = boundedClient(platform, options);
  CapturedLog log;
  client->sendEvent("first", {{"n", 1}});
  client->dumpEvents();
  platform.settle();
  // Unanswered, the first post fills the backlog: the next one is dropped.
  client->sendEvent("second", {{"n", 2}});
  client->sendEvent("third", {{"n", 3}});
  client->dumpEvents();
  platform.settle();
  EXPECT_EQ(batchPosts(platform).size(), 1u);
  Stats stats = client->stats();
  EXPECT_EQ(stats.eventsDroppedBacklog, 2u);
  EXPECT_EQ(stats.postsMade, 1u);
  EXPECT_EQ(log.count("backlog is full"), 1u);

  // Once it is answered there is room again.
  platform.transport->answerJson(lastIndex(platform), Json::object());
  client->sendEvent("fourth", {{"n", 4}});
  client->dumpEvents();
  platform.settle();
  EXPECT_EQ(batchPosts(platform).size(), 2u);
  stats = client->stats();
  EXPECT_EQ(stats.eventsPosted, 1u);
  EXPECT_EQ(stats.eventsQueued, 1u);  // the fourth, under way
}

TEST(Bounds, ErrorReportsWaitingToBeBuiltAreBounded) {
  VirtualPlatform platform;
  ClientOptions options;
  options.maxPendingErrorReports = 2;
  auto client = boundedClient(platform, options);
  CapturedLog log;
  for (int i = 0; i < 5; ++i) client->sendError(i, Json{{"n", i}});
  Stats stats = client->stats();
  EXPECT_EQ(stats.errorsAccepted, 5u);
  EXPECT_EQ(stats.errorsDropped, 3u);
  EXPECT_EQ(log.count("error reports wait to be sent"), 1u);
  platform.settle();
  const auto sent = platform.transport->withContext(3);
  ASSERT_EQ(sent.size(), 2u);
  platform.transport->answerJson(lastIndex(platform) - 1, Json::object());
  platform.transport->answer(lastIndex(platform), "busy", {}, 503);
  stats = client->stats();
  EXPECT_EQ(stats.errorsSent, 1u);
  EXPECT_EQ(stats.errorsFailed, 1u);
}

TEST(Stats, CountRefusalsByReasonAndOutcomesOfEveryPost) {
  VirtualPlatform platform;
  auto fresh = Telvo::create(testConfig(), "web", "prod", platform.record());
  fresh->sendEvent("early", {{"n", 1}});
  // A disabled configuration sends no hello: only a host can mark it
  // initialised.
  auto disabled = initializedClient(platform, configDocument({{"enabled", false}}));
  disabled->setInitialized(true);
  disabled->sendEvent("off", Json{{"n", 1}});
  auto throttled =
      initializedClient(platform, configDocument(), {{"sessionId", "S"}, {"throttled", true}});
  throttled->sendEvent("slow", {{"n", 1}});
  throttled->sendEvent("slow", {{"n", 2}});
  EXPECT_EQ(fresh->stats().eventsRefusedNotInitialized, 1u);
  EXPECT_EQ(disabled->stats().eventsRefusedDisabled, 1u);
  EXPECT_EQ(throttled->stats().eventsRefusedThrottled, 2u);
  EXPECT_EQ(throttled->stats().eventsAccepted, 0u);

  auto client = initializedClient(platform);
  auto post = [&](int events) {
    for (int i = 0; i < events; ++i) client->sendEvent("e", {{"i", i}});
    client->dumpEvents();
    platform.settle();
    return lastIndex(platform);
  };
  platform.transport->answerJson(post(3), Json::object());        // delivered
  platform.transport->answer(post(2), "{}", {}, 500);             // a server error
  platform.transport->fail(post(4));                              // no answer
  platform.transport->answer(post(1), "not json", {}, 204);       // answered, unparsed
  client->sendEvent("e", {{"nan", std::nan("")}});                // cannot be written
  client->sendEvent("left", {{"n", 1}});
  const Stats stats = client->stats();
  EXPECT_EQ(stats.eventsAccepted, 12u);
  EXPECT_EQ(stats.eventsPosted, 4u);
  EXPECT_EQ(stats.eventsFailed, 6u);
  EXPECT_EQ(stats.eventsDroppedUnwritable, 1u);
  EXPECT_EQ(stats.eventsQueued, 1u);
  EXPECT_EQ(stats.postsMade, 4u);
  EXPECT_EQ(stats.postsFailed, 2u);
  EXPECT_EQ(stats.eventsAccepted,
            stats.eventsPosted + stats.eventsDropped() + stats.eventsFailed + stats.eventsQueued);
}

}  // namespace
}  // namespace telvo
