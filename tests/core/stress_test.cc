// Host threads sending events and errors while the timer flushes and the
// application comes and goes: every accepted event reaches exactly one post.
// Meant to run under ThreadSanitizer as well.
#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <thread>

#include "support/recording_transport.h"
#include "support/test_platform.h"
#include "telvo/device.h"
#include "telvo/notification_center.h"
#include "telvo/telvo.h"
#include "telvo/user_defaults.h"

namespace telvo {
namespace {

TEST(Stress, EveryAcceptedEventReachesExactlyOnePost) {
  auto transport = std::make_shared<RecordingTransport>();
  // Answers the start-up requests at once; posts are answered too, so that
  // the clients are released as the real transport would.
  transport->setSendHook([](RecordingTransport& self, std::size_t index) {
    const auto sent = self.at(index);
    if (sent.context == 0) {
      self.answerJson(index, {{"default",
                               {{"enabled", true},
                                {"batchMode", "timer"},
                                {"batchModeAmount", 0},  // the floor: a flush every 0.1 s
                                {"servicesUrl", "https://svc.test"},
                                {"helloApi", "/hello"},
                                {"batchApi", "/batch"}}}});
    } else if (sent.context == 2) {
      self.answerJson(index, {{"sessionId", "S"}, {"timestamp", 0}});
    } else {
      self.answerJson(index, Json::object());
    }
  });
  auto center = std::make_shared<NotificationCenter>();
  // The real main and background queues and clock; the rest fakes.
  Platform platform;
  platform.transport = transport;
  platform.notificationCenter = center;
  platform.userDefaults = std::make_shared<MemoryUserDefaults>();
  platform.device = std::make_shared<FixedDevice>();

  auto client = Telvo::create(
      std::make_shared<TelvoConfig>("linux", "12", "s", "1", "App", "https://cdn.test/"), "p",
      "prod", platform);
  ASSERT_TRUE(client->isInitialized());

  constexpr int kThreads = 4, kEvents = 1500, kErrors = 20;
  std::atomic<bool> running{true};
  std::thread lifecycle([&] {
    while (running) {
      center->postNotificationName(UIApplicationDidEnterBackgroundNotification);
      center->postNotificationName(UIApplicationWillEnterForegroundNotification);
      std::this_thread::sleep_for(std::chrono::milliseconds(3));
    }
  });
  std::vector<std::thread> hosts;
  for (int t = 0; t < kThreads; ++t) {
    hosts.emplace_back([&, t] {
      for (int i = 0; i < kEvents; ++i) {
        const char* name = i % 50 == 0 ? "error" : "tick";
        // Half the hosts give their data as fields, half as Json trees.
        if (t % 2 == 0) {
          client->sendEvent(name, Json{{"t", t}, {"i", i}});
        } else {
          client->sendEvent(name, {{"t", t}, {"i", i}});
        }
        if (i % (kEvents / kErrors) == 0) {
          if (t % 2 == 0) {
            client->sendError(i, Json{{"t", t}});
          } else {
            client->sendError(i, {{"t", t}});
          }
        }
        if (i % 300 == 0) std::this_thread::sleep_for(std::chrono::milliseconds(20));
      }
    });
  }
  for (auto& host : hosts) host.join();
  running = false;
  lifecycle.join();

  ASSERT_TRUE(drain(*mainQueue(), 30));
  client->dumpEvents();
  ASSERT_TRUE(drain(*mainQueue(), 30));
  ASSERT_TRUE(drain(*backgroundQueue(), 30));
  client.reset();

  std::map<std::pair<int, int>, int> seen;
  std::size_t batches = 0, errors = 0;
  for (const auto& sent : transport->withContext(3)) {
    const Json body = RecordingTransport::decodedBody(sent.request);
    if (body.contains("events")) {
      ++batches;
      for (const auto& event : body["events"]) {
        ++seen[{event["eventData"]["t"].get<int>(), event["eventData"]["i"].get<int>()}];
      }
    } else {
      ++errors;
    }
  }
  EXPECT_GT(batches, 1u);
  EXPECT_EQ(errors, static_cast<std::size_t>(kThreads * kErrors));
  EXPECT_EQ(seen.size(), static_cast<std::size_t>(kThreads * kEvents));
  for (const auto& [key, count] : seen) EXPECT_EQ(count, 1) << key.first << "/" << key.second;
}

}  // namespace
}  // namespace telvo
