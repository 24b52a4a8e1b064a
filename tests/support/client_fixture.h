// Test support for client tests in virtual time: a platform record of fakes
// (manual main and background queues, a test clock, a recording transport, a
// private notification centre, in-memory user defaults, a fixed device) for
// clients made with record(). The process defaults are left alone.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "support/captured_log.h"
#include "support/manual_executor.h"
#include "support/recording_transport.h"
#include "support/test_platform.h"
#include "telvo/log.h"
#include "telvo/notification_center.h"
#include "telvo/platform.h"
#include "telvo/telvo.h"
#include "telvo/user_defaults.h"

namespace telvo {

struct VirtualPlatform {
  std::shared_ptr<ManualExecutor> main = std::make_shared<ManualExecutor>();
  std::shared_ptr<ManualExecutor> background = std::make_shared<ManualExecutor>();
  std::shared_ptr<TestClock> clock = std::make_shared<TestClock>(1700000000.0);
  std::shared_ptr<RecordingTransport> transport = std::make_shared<RecordingTransport>();
  std::shared_ptr<NotificationCenter> center = std::make_shared<NotificationCenter>();
  std::shared_ptr<MemoryUserDefaults> defaults = std::make_shared<MemoryUserDefaults>();
  std::shared_ptr<FixedDevice> device = std::make_shared<FixedDevice>(
      "12", "armv7l", "Set-top box", "0A1B2C3D-0000-4000-8000-00000000ABCD");

  ~VirtualPlatform() {
    // Queued work and unanswered requests hold their clients, which hold the
    // queues and the transport: run the one and drop the other.
    settle();
    transport->clear();
  }

  // The record a client of this platform is made with.
  Platform record() const {
    Platform platform;
    platform.mainQueue = main;
    platform.backgroundQueue = background;
    platform.clock = clock;
    platform.transport = transport;
    platform.notificationCenter = center;
    platform.userDefaults = defaults;
    platform.device = device;
    return platform;
  }

  // Runs both queues until neither has work left.
  void settle() {
    while (main->runPending() + background->runPending() > 0) {
    }
  }
};

inline std::shared_ptr<TelvoConfig> testConfig() {
  return std::make_shared<TelvoConfig>("linux", "12", "living-room", "2.1", "Player",
                                       "http://cdn.example.test/mdrv/telvo/config/");
}

// A configuration document whose "default" section is `defaults` laid over
// an enabled, timer-batching setup with a 5-second interval.
inline Json configDocument(const Json& defaults = Json::object(),
                           const Json& extra = Json::object()) {
  Json section = {{"enabled", true},
                  {"batchMode", "timer"},
                  {"batchModeAmount", 5},
                  {"servicesUrl", "http://svc.example.test"},
                  {"helloApi", "/api/hello"},
                  {"batchApi", "/api/batch"},
                  {"telvoUserIdEnabled", "false"}};
  for (const auto& [key, value] : defaults.items()) section[key] = value;
  Json document = {{"default", section}};
  for (const auto& [key, value] : extra.items()) document[key] = value;
  return document;
}

// Creates a client and answers its configuration fetch and its hello, so it
// is initialised (when the answers allow). The requests are the transport's
// first two.
inline std::shared_ptr<Telvo> initializedClient(
    VirtualPlatform& platform, const Json& document = configDocument(),
    const Json& hello = {{"sessionId", "S-1"}, {"timestamp", 1700000000000.0}},
    std::shared_ptr<TelvoConfig> config = testConfig(), const std::string& environment = "prod") {
  const std::size_t first = platform.transport->count();
  auto client = Telvo::create(std::move(config), "web", environment, platform.record());
  platform.transport->answerJson(first, document);
  if (platform.transport->count() > first + 1) platform.transport->answerJson(first + 1, hello);
  platform.settle();
  return client;
}

}  // namespace telvo
