// The spool seen from the client: what waits on disk survives the client (a
// restart), goes out under the session it was captured in, and is forgotten
// once delivered; one process per folder.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "support/client_fixture.h"

namespace telvo {
namespace {

class SpoolingTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern =
        (std::filesystem::temp_directory_path() / "telvo-spooling-XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    folder_ = pattern;
  }
  void TearDown() override { std::filesystem::remove_all(folder_); }

  ClientOptions options() const {
    ClientOptions options;
    options.retry = true;
    options.retrySeed = 7;
    options.spoolPath = folder_ + "/spool";
    return options;
  }
  std::shared_ptr<Telvo> make(VirtualPlatform& platform) {
    return Telvo::create(testConfig(), "web", "prod", platform.record(), options());
  }
  // Answers the start-up of the client just made with `session`, the
  // service `behindMs` behind the device.
  static void start(VirtualPlatform& platform, const std::string& session, double behindMs = 0) {
    const std::size_t first = platform.transport->count() - 1;
    platform.transport->answerJson(first, configDocument());
    platform.transport->answerJson(
        first + 1,
        {{"sessionId", session}, {"timestamp", platform.clock->now() * 1000 - behindMs}});
    platform.settle();
  }
  static Json body(VirtualPlatform& platform, std::size_t index) {
    return RecordingTransport::decodedBody(platform.transport->at(index).request);
  }

  std::string folder_;
};

TEST_F(SpoolingTest, UndeliveredEventsGoOutAfterARestartUnderTheirSession) {
  {
    VirtualPlatform platform;
    auto client = make(platform);
    start(platform, "S-1");
    platform.clock->setNow(1700000100.0);
    client->sendEvent("play", {{"n", 1}});
    client->sendEvent("pause", Json{{"n", 2}});
    client->sendError("E1");
    platform.main->advance(1.0);  // on disk within a second
    platform.settle();
    EXPECT_EQ(client->stats().spooled, 3u);
    client->dumpEvents();
    platform.settle();
    // No answer ever comes: the process ends with both posts unanswered.
    platform.transport->clear();
  }
  VirtualPlatform platform;
  CapturedLog log;
  auto client = make(platform);
  start(platform, "S-2");
  platform.settle();
  ASSERT_EQ(platform.transport->count(), 4u);
  // In the order they reached the disk: the events under the session they
  // were captured in, with their stamps, then the report as it was built.
  EXPECT_EQ(body(platform, 3)["data"]["errorCode"], "E1");
  const Json replayed = body(platform, 2);
  EXPECT_EQ(replayed["sessionId"], "S-1");
  ASSERT_EQ(replayed["events"].size(), 2u);
  EXPECT_EQ(replayed["events"][0]["eventType"], "play");
  EXPECT_EQ(replayed["events"][0]["eventData"]["timestamp"], 1700000100000);
  EXPECT_EQ(replayed["events"][1]["eventData"]["n"], 2);
  EXPECT_EQ(client->stats().replayed, 3u);
  EXPECT_EQ(log.count("from the spool sent again"), 1u);
  platform.transport->answerJson(2, Json::object());
  platform.transport->answerJson(3, Json::object());
  const Stats stats = client->stats();
  EXPECT_EQ(stats.eventsAccepted,
            stats.eventsPosted + stats.eventsDropped() + stats.eventsFailed + stats.eventsQueued);
  client.reset();
  platform.settle();

  // Delivered: forgotten.
  VirtualPlatform again;
  auto third = make(again);
  start(again, "S-3");
  EXPECT_EQ(again.transport->count(), 2u);
  EXPECT_EQ(third->stats().replayed, 0u);
}

TEST_F(SpoolingTest, EventsFromBeforeAnySessionTakeTheFirstOneAndItsClock) {
  {
    VirtualPlatform platform;
    auto client = make(platform);  // the network is not up: no answer
    platform.clock->setNow(1700000000.5);
    client->sendEvent("boot", {{"cold", true}});
    platform.main->advance(1.0);
    platform.settle();
    EXPECT_EQ(client->stats().spooled, 1u);
    platform.transport->clear();
  }
  VirtualPlatform platform;
  auto client = make(platform);
  start(platform, "S-9", 4000);
  ASSERT_EQ(platform.transport->count(), 3u);
  const Json replayed = body(platform, 2);
  EXPECT_EQ(replayed["sessionId"], "S-9");
  EXPECT_EQ(replayed["events"][0]["eventType"], "boot");
  EXPECT_EQ(replayed["events"][0]["eventData"]["timestamp"], 1700000000500 - 4000);
}

TEST_F(SpoolingTest, ItsBoundDropsTheOldestAndSaysSo) {
  VirtualPlatform platform;
  ClientOptions bounded = options();
  bounded.maxSpoolBytes = 16 * 1024;
  auto client = Telvo::create(testConfig(), "web", "prod", platform.record(), bounded);
  for (int i = 0; i < 200; ++i) client->sendEvent("e", {{"pad", std::string(200, 'x')}, {"i", i}});
  platform.main->advance(1.0);
  platform.settle();
  const Stats stats = client->stats();
  EXPECT_EQ(stats.spooled, 200u);
  EXPECT_GT(stats.spoolDroppedOldest, 0u);
  // In memory they are all still there.
  EXPECT_EQ(stats.eventsQueued, 200u);
}

TEST_F(SpoolingTest, OneClientPerFolderAndProcess) {
  VirtualPlatform platform;
  auto first = make(platform);
  ASSERT_TRUE(first);
  CapturedLog log;
  EXPECT_FALSE(make(platform));
  ASSERT_EQ(log.lines().size(), 1u);
  EXPECT_NE(log.lines()[0].find(folder_ + "/spool"), std::string::npos) << log.lines()[0];
  first.reset();
  platform.settle();
  platform.transport->clear();
  EXPECT_TRUE(make(platform));  // free again once the first is gone
}

}  // namespace
}  // namespace telvo
