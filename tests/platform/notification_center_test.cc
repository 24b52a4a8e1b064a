#include "telvo/notification_center.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "support/captured_log.h"

namespace telvo {
namespace {

TEST(NotificationCenter, HandlersRemovingObserversDuringAPost) {
  NotificationCenter center;
  std::vector<std::string> calls;
  int a = 0, b = 0, c = 0;
  center.addObserver(&a, "n", [&](const Notification&) {
    calls.push_back("a");
    center.removeObserver(&a);  // itself
  });
  center.addObserver(&b, "n", [&](const Notification&) {
    calls.push_back("b");
    center.removeObserver(&c);  // one not yet called in this post
  });
  center.addObserver(&c, "n", [&](const Notification&) { calls.push_back("c"); });

  center.postNotificationName("n");
  EXPECT_EQ(calls, (std::vector<std::string>{"a", "b"}));
  calls.clear();
  center.postNotificationName("n");
  EXPECT_EQ(calls, (std::vector<std::string>{"b"}));
}

TEST(NotificationCenter, NamesObjectsAndRemovalOfAllRegistrations) {
  NotificationCenter center;
  int observer = 0, other = 0;
  std::vector<std::string> calls;
  center.addObserver(&observer, UIApplicationDidEnterBackgroundNotification,
                     [&](const Notification& n) { calls.push_back(n.name); });
  center.addObserver(&observer, TelvoSessionIDReceivedNotification,
                     [&](const Notification& n) { calls.push_back(n.object.get<std::string>()); });
  center.addObserver(&other, TelvoSessionIDReceivedNotification, [&](const Notification& n) {
    calls.push_back("other:" + n.object.get<std::string>());
    // Added during a post: first called by the next post.
    center.addObserver(&other, "late", [&](const Notification&) { calls.push_back("late"); });
  });

  center.postNotificationName(TelvoSessionIDReceivedNotification, "S1");
  center.postNotificationName(UIApplicationDidEnterBackgroundNotification);
  center.postNotificationName("unobserved");
  center.removeObserver(&observer);
  center.postNotificationName(TelvoSessionIDReceivedNotification, "S2");
  center.postNotificationName(UIApplicationDidEnterBackgroundNotification);
  center.postNotificationName("late");
  EXPECT_EQ(calls,
            (std::vector<std::string>{"S1", "other:S1", UIApplicationDidEnterBackgroundNotification,
                                      "other:S2", "late", "late"}));
}

TEST(NotificationCenter, ThrowingHandlerDoesNotStopTheOthers) {
  CapturedLog logs;
  NotificationCenter center;
  int first = 0, second = 0;
  bool secondCalled = false;
  center.addObserver(&first, "n", [](const Notification&) { throw std::runtime_error("x"); });
  center.addObserver(&second, "n", [&](const Notification&) { secondCalled = true; });
  center.postNotificationName("n");
  EXPECT_TRUE(secondCalled);
  EXPECT_EQ(logs.lines().size(), 1u);
}

TEST(NotificationCenter, ConcurrentPostsAndRegistrationChanges) {
  auto center = std::make_shared<NotificationCenter>();
  std::atomic<int> calls{0};
  std::atomic<bool> stop{false};
  int stable = 0;
  center->addObserver(&stable, "n", [&](const Notification&) { ++calls; });
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t) {
    threads.emplace_back([&] {
      while (!stop) center->postNotificationName("n", 1);
    });
  }
  threads.emplace_back([&] {
    // Posts are under way before the registrations change (on a busy
    // machine the loop below could otherwise end before any post began).
    while (calls == 0) std::this_thread::yield();
    for (int i = 0; i < 2000; ++i) {
      int transient = 0;
      center->addObserver(&transient, "n", [&](const Notification&) { ++calls; });
      center->removeObserver(&transient);
    }
    stop = true;
  });
  for (auto& t : threads) t.join();
  EXPECT_GT(calls.load(), 0);
  EXPECT_EQ(&*NotificationCenter::defaultCenter(), &*NotificationCenter::defaultCenter());
}

}  // namespace
}  // namespace telvo
