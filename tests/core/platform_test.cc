// A client lives on the platform record it was made with: two clients in one
// process on two platforms share nothing, and a record's empty members come
// from the process defaults at creation.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <thread>

#include "support/client_fixture.h"
#include "telvo/clock.h"
#include "telvo/executor.h"

namespace telvo {
namespace {

TEST(Platform, TwoClientsOnTwoPlatformsInOneProcess) {
  VirtualPlatform first, second;
  second.clock->setNow(1800000000.0);
  second.device = std::make_shared<FixedDevice>("12", "aarch64", "TV",
                                                "FFFFFFFF-0000-4000-8000-000000000002");
  const HTTPHeaderFields cookie = {{"Set-Cookie", "telvoUUID=second; Path=/"}};

  auto a = initializedClient(first);
  auto b = Telvo::create(testConfig(), "web", "prod", second.record());
  second.transport->answerJson(0, configDocument());
  second.transport->answerJson(
      1, {{"sessionId", "S-2"}, {"timestamp", 1800000000000.0 - 5000}}, cookie);
  second.settle();
  ASSERT_TRUE(a->isInitialized());
  ASSERT_TRUE(b->isInitialized());

  // Each client's requests went to its own transport, with its own device.
  ASSERT_EQ(first.transport->count(), 2u);
  ASSERT_EQ(second.transport->count(), 2u);
  EXPECT_EQ(RecordingTransport::decodedBody(second.transport->at(1).request)["deviceVersion"],
            "aarch64");
  EXPECT_EQ(RecordingTransport::decodedBody(first.transport->at(1).request)["deviceVersion"],
            "armv7l");
  // The cookie went to the store of the platform whose hello read it.
  EXPECT_EQ(second.defaults->objectForKey(TelvoUUIDCookieKey)->at("Value"), "second");
  EXPECT_FALSE(first.defaults->objectForKey(TelvoUUIDCookieKey));
  // Each clock gave its own offset.
  EXPECT_EQ(a->timeStampDelta(), 0);
  EXPECT_EQ(b->timeStampDelta(), 5000);

  // Capture and the flush run on each platform's own main queue.
  a->sendEvent("one", Json{{"n", 1}});
  b->sendEvent("two", Json{{"n", 2}});
  a->dumpEvents();
  b->dumpEvents();
  first.main->runPending();
  ASSERT_EQ(first.transport->count(), 3u);
  EXPECT_EQ(second.transport->count(), 2u);
  second.main->runPending();
  ASSERT_EQ(second.transport->count(), 3u);
  const Json sent = RecordingTransport::decodedBody(second.transport->at(2).request);
  EXPECT_EQ(sent["events"][0]["eventType"], "two");
  EXPECT_EQ(sent["events"][0]["eventData"]["timestamp"], 1800000000000 - 5000);

  // The application notifications of one centre reach only its clients.
  first.center->postNotificationName(UIApplicationDidEnterBackgroundNotification);
  EXPECT_FALSE(a->batchTimer());
  EXPECT_TRUE(b->batchTimer());
}

TEST(Platform, EmptyMembersComeFromTheProcessDefaultsAtCreation) {
  VirtualPlatform fakes;
  Platform partial;
  partial.transport = fakes.transport;
  partial.device = fakes.device;
  partial.userDefaults = fakes.defaults;  // the file store is left alone
  const Platform filled = partial.withDefaults();
  EXPECT_EQ(filled.transport, fakes.transport);
  EXPECT_EQ(filled.device, fakes.device);
  EXPECT_EQ(filled.userDefaults, fakes.defaults);
  EXPECT_EQ(filled.mainQueue, mainQueue());
  EXPECT_EQ(filled.backgroundQueue, backgroundQueue());
  EXPECT_EQ(filled.clock, Clock::defaultClock());
  EXPECT_EQ(filled.notificationCenter, NotificationCenter::defaultCenter());
}

// The names a device team sees in `top -H` for the library's threads.
TEST(Platform, EveryThreadTheLibraryStartsIsNamed) {
  auto names = [] {
    std::set<std::string> found;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
      std::ifstream comm(task.path() / "comm");
      std::string name;
      std::getline(comm, name);
      found.insert(name);
    }
    return found;
  };
  ASSERT_TRUE(drain(*mainQueue(), 5));
  ASSERT_TRUE(drain(*backgroundQueue(), 5));
  auto transport = TelvoTransport::makeCurlTransport(TelvoTransport::Options{});
  bool named = false;
  for (int i = 0; i < 200 && !named; ++i) {
    const auto found = names();
    named = found.count("telvo-main") && found.count("telvo-reports") &&
            found.count("telvo-transport");
    if (!named) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_TRUE(named);
}

}  // namespace
}  // namespace telvo
