// flush and telvo::shutdown against a real HTTPS service on 127.0.0.1: what
// flush promises when the service answers and when it never does, and that
// shutdown keeps its deadline with a request hanging.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <future>
#include <string>
#include <thread>

#include "support/captured_log.h"
#include "support/curl_platform.h"
#include "support/launcher.h"
#include "support/local_service.h"
#include "support/test_platform.h"
#include "telvo/envelope.h"
#include "telvo/notification_center.h"
#include "telvo/telvo.h"
#include "telvo/thread_executor.h"
#include "telvo/user_defaults.h"

namespace telvo {
namespace {

using namespace std::chrono_literals;
using test::LocalService;
using test::waitFor;
using SteadyClock = std::chrono::steady_clock;

// A client on its own queues and libcurl transport, initialised.
struct OwnClient {
  explicit OwnClient(LocalService& service, const ClientOptions& bounds = {})
      : platform(test::curlPlatform(service.caFile())) {
    platform.mainQueue = std::make_shared<ThreadExecutor>();
    platform.backgroundQueue = std::make_shared<ThreadExecutor>();
    client = Telvo::create(service.config(), "web", "prod", platform, bounds);
  }
  Platform platform;
  std::shared_ptr<Telvo> client;
};

TEST(Flush, FailsWhenAPostItCoversWasRefusedOrAnEventDropped) {
  LocalService service;
  ClientOptions bounds;
  bounds.maxQueuedBytes = 4096;
  OwnClient setup(service, bounds);
  auto& client = *setup.client;
  ASSERT_TRUE(waitFor([&] { return client.isInitialized(); }));

  // The service refuses the batch (as a collector refuses a body too large).
  service.server().route("POST", "/api/batch.json", [](const httplib::Request&, httplib::Response& response) {
    response.status = 413;
    response.set_content("too large", "text/plain");
  });
  for (int i = 0; i < 5; ++i) client.sendEvent("e", {{"i", i}});
  EXPECT_FALSE(client.flush(10s));
  Stats stats = client.stats();
  EXPECT_EQ(stats.eventsFailed, 5u);
  EXPECT_EQ(stats.postsFailed, 1u);

  // Accepted again: a flush with nothing lost since the last one succeeds.
  service.server().route("POST", "/api/batch.json", [](const httplib::Request&, httplib::Response& response) {
    response.set_content("{}", "application/json");
  });
  client.sendEvent("e", {{"i", 5}});
  EXPECT_TRUE(client.flush(10s));

  // Events dropped by the queue's bound fail the flush that covers them.
  for (int i = 0; i < 200; ++i) client.sendEvent("e", {{"i", i}});
  EXPECT_FALSE(client.flush(10s));
  stats = client.stats();
  EXPECT_GT(stats.eventsDroppedQueueFull, 0u);
  EXPECT_EQ(stats.eventsAccepted,
            stats.eventsPosted + stats.eventsDropped() + stats.eventsFailed + stats.eventsQueued);
  EXPECT_EQ(stats.eventsQueued, 0u);
}

TEST(Flush, DeliversEverythingAcceptedBeforeItWasCalled) {
  LocalService service;
  OwnClient setup(service);
  auto& client = *setup.client;
  ASSERT_TRUE(waitFor([&] { return client.isInitialized(); }));

  // Nothing accepted yet: nothing to wait for.
  EXPECT_TRUE(client.flush(5s));

  // Events from two threads and error reports, then one flush: when it
  // returns, the service has every one of them.
  std::thread other([&] {
    for (int i = 0; i < 200; ++i) client.sendEvent("other", Json{{"i", i}});
  });
  for (int i = 0; i < 200; ++i) client.sendEvent("main", Json{{"i", i}});
  other.join();
  for (int code = 0; code < 3; ++code) client.sendError(code);
  ASSERT_TRUE(client.flush(10s));

  const Json events = service.postedEvents();
  ASSERT_EQ(events.size(), 400u);
  int last = -1;
  for (const auto& event : events) {
    if (event["eventType"] != "main") continue;
    EXPECT_EQ(event["eventData"]["i"], last + 1);  // in order, none missing
    last = event["eventData"]["i"].get<int>();
  }
  EXPECT_EQ(last, 199);
  EXPECT_EQ(service.errorPosts(), 3u);

  // On the main queue's own thread it cannot wait: it schedules the flush
  // and says so at once.
  client.sendEvent("late");
  std::promise<bool> onMainQueue;
  setup.platform.mainQueue->post([&] { onMainQueue.set_value(client.flush(10s)); });
  auto answer = onMainQueue.get_future();
  ASSERT_EQ(answer.wait_for(5s), std::future_status::ready);
  EXPECT_FALSE(answer.get());
  EXPECT_TRUE(waitFor([&] { return service.postedEvents().size() == 401u; }));
}

TEST(Flush, ReturnsFalseWithinItsTimeoutWhenTheServiceNeverAnswers) {
  LocalService service;
  OwnClient setup(service);
  auto& client = *setup.client;
  ASSERT_TRUE(waitFor([&] { return client.isInitialized(); }));
  service.hold();

  client.sendEvent("stuck", Json{{"n", 1}});
  client.sendError("E1");
  const auto start = SteadyClock::now();
  EXPECT_FALSE(client.flush(300ms));
  const auto took = SteadyClock::now() - start;
  EXPECT_GE(took, 300ms);
  EXPECT_LT(took, 2s);  // the deadline, not the transfer's time-out

  // Once the service answers, everything completes.
  service.release();
  EXPECT_TRUE(client.flush(10s));
  EXPECT_EQ(service.postedEvents().size(), 1u);
  EXPECT_EQ(service.errorPosts(), 1u);
}

// Runs in a child process (shutdown stops the process's own queues and
// transports for good). Returns 0 when every expectation held.
int shutdownScenario() {
  auto fail = [](const char* what) {
    std::fprintf(stderr, "shutdown scenario: %s\n", what);
    return 1;
  };
  LocalService service;
  TelvoTransport::Options options;
  options.caFile = service.caFile();
  TelvoTransport::setOptions(options);
  // The default queues and shared transport; only the stores are private.
  Platform platform;
  platform.notificationCenter = std::make_shared<NotificationCenter>();
  platform.userDefaults = std::make_shared<MemoryUserDefaults>();
  platform.device = std::make_shared<FixedDevice>();
  auto client = Telvo::create(service.config(), "web", "prod", platform);
  if (!waitFor([&] { return client->isInitialized(); })) return fail("not initialised");

  // A batch post hangs at the service.
  service.hold();
  client->sendEvent("hanging");
  client->dumpEvents();
  if (!waitFor([&] { return !service.postedEvents().empty(); })) return fail("no post arrived");

  auto start = SteadyClock::now();
  const bool stopped = shutdown(1000ms);
  const auto took = SteadyClock::now() - start;
  if (!stopped) return fail("a library thread did not end");
  if (took > 1300ms) return fail("shutdown overran its deadline");

  // Clients alive afterwards refuse new work without a word; a second stop
  // has nothing left to do.
  CapturedLog log;
  client->sendEvent("after");
  client->sendError("E2");
  client->dumpEvents();
  client->startTimer();
  start = SteadyClock::now();
  if (client->flush(5s)) return fail("flush after shutdown claimed success");
  if (!shutdown(5000ms)) return fail("a second shutdown failed");
  if (SteadyClock::now() - start > 200ms) return fail("calls after shutdown waited");
  if (!log.lines().empty()) return fail("calls after shutdown logged");
  service.release();
  return 0;
}

TEST(Shutdown, ReturnsWithinItsDeadlineWithARequestHanging) {
  // An emulated test cannot start its own program again: it forks instead.
  GTEST_FLAG_SET(death_test_style, test::underEmulator() ? "fast" : "threadsafe");
  EXPECT_EXIT(std::_Exit(shutdownScenario()), testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace telvo
