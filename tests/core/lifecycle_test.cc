// Creation, start values, properties and destruction of a client.
#include <gtest/gtest.h>

#include "support/client_fixture.h"

namespace telvo {
namespace {

TEST(Lifecycle, StartValuesAndConfigurationFetch) {
  VirtualPlatform platform;
  auto client = Telvo::create(testConfig(), "web", "prod", platform.record());
  ASSERT_TRUE(client);
  EXPECT_FALSE(client->isInitialized());
  EXPECT_FALSE(client->isThrottled());
  EXPECT_EQ(client->sessionID(), Json(""));
  EXPECT_EQ(client->timeStampDelta(), 0);
  EXPECT_EQ(client->postCount(), 0);
  EXPECT_FALSE(client->debug());
  EXPECT_FALSE(client->masterConfig());
  EXPECT_FALSE(client->batchTimer());
  EXPECT_TRUE(client->batch().empty());
  EXPECT_EQ(client->property(), "web");
  EXPECT_EQ(client->environment(), "prod");

  ASSERT_EQ(platform.transport->count(), 1u);
  const auto fetch = platform.transport->at(0);
  EXPECT_EQ(fetch.context, 0);
  EXPECT_EQ(fetch.request.HTTPMethod, "GET");
  EXPECT_TRUE(fetch.request.allHTTPHeaderFields.empty());
  EXPECT_FALSE(fetch.request.HTTPBody);
  EXPECT_EQ(fetch.request.cachePolicy, 4);
  EXPECT_EQ(fetch.request.timeoutInterval, 30.0);
  ASSERT_TRUE(fetch.request.url);
  EXPECT_EQ(fetch.request.url->absoluteString(),
            "https://cdn.example.test/mdrv/telvo/config/Player/living-room/telvoanalytics.json");
  EXPECT_EQ(client->config()->configURL(), fetch.request.url);
}

TEST(Lifecycle, ConfigurationLocationJoinsPartsAsTheyStand) {
  VirtualPlatform platform;
  auto config = testConfig();
  config->setConfigBaseUrl("http://cdn.example.test/base");
  config->setSite(std::nullopt);
  auto client = Telvo::create(config, "web", "prod", platform.record());
  ASSERT_TRUE(config->configURL());
  EXPECT_EQ(config->configURL()->absoluteString(),
            "https://cdn.example.test/basePlayer/(null)/telvoanalytics.json");
}

TEST(Lifecycle, NullConfigurationGivesAClientWithoutConfiguration) {
  VirtualPlatform platform;
  CapturedLog log;
  auto client = Telvo::create(nullptr, "web", "prod", platform.record());
  ASSERT_TRUE(client);  // the initialiser validates nothing
  EXPECT_FALSE(client->config());
  EXPECT_TRUE(log.lines().empty());  // debug is off
  // The fetch goes out without a location and fails; the client stays as made.
  ASSERT_EQ(platform.transport->count(), 1u);
  EXPECT_FALSE(platform.transport->at(0).request.url);
  platform.transport->fail(0);
  client->sendEvent("play", Json{{"n", 1}});
  client->sendError("E1");
  platform.settle();
  EXPECT_FALSE(client->isInitialized());
  EXPECT_EQ(platform.transport->count(), 1u);
}

TEST(Lifecycle, DescriptionsShowTextAsItIs) {
  Event event;
  event.setName("play");
  event.setSession("S-1");
  event.setData(R"({"n":1})");
  EXPECT_EQ(event.description(), R"(name: play, session: S-1, data: {"n":1})");
  event.setSession(Json{{"id", 7}});
  EXPECT_EQ(event.description(), R"(name: play, session: {"id":7}, data: {"n":1})");

  VirtualPlatform platform;
  auto client = initializedClient(platform);
  client->setDebug(true);
  CapturedLog log;
  client->sendError("E42");
  EXPECT_TRUE(log.contains("Reporting error: E42"));
}

TEST(Lifecycle, HostSlotsAndDelegateAreKeptAsGiven) {
  VirtualPlatform platform;
  auto client = Telvo::create(testConfig(), "web", "prod", platform.record());
  auto object = std::make_shared<int>(7);
  client->setManagedObjectContext(object);
  client->setManagedObjectModel(object);
  client->setPersistentStoreCoordinator(object);
  client->setNSMOCLock(object);
  client->setNSPSCLock(object);
  EXPECT_EQ(client->managedObjectContext(), object);
  EXPECT_EQ(client->managedObjectModel(), object);
  EXPECT_EQ(client->persistentStoreCoordinator(), object);
  EXPECT_EQ(client->NSMOCLock(), object);
  EXPECT_EQ(client->NSPSCLock(), object);

  auto delegate = std::make_shared<TelvoDelegate>();
  client->setDelegate(delegate);
  EXPECT_EQ(client->delegate(), delegate);
  delegate.reset();  // held weakly
  EXPECT_FALSE(client->delegate());
}

TEST(Lifecycle, InFlightRequestKeepsClientAliveAndDestructionStopsEverything) {
  VirtualPlatform platform;
  auto client = initializedClient(platform);
  ASSERT_TRUE(client->isInitialized());
  ASSERT_TRUE(client->batchTimer());
  std::weak_ptr<Telvo> weak = client;

  client->sendError("E1");  // queued work holds the client
  client.reset();
  EXPECT_FALSE(weak.expired());
  platform.settle();  // the error post is now in flight
  EXPECT_FALSE(weak.expired());
  platform.transport->answerJson(platform.transport->count() - 1, Json::object());
  EXPECT_TRUE(weak.expired());

  // The timer and the observers went with it.
  EXPECT_EQ(platform.main->activeTimerCount(), 0u);
  const std::size_t before = platform.transport->count();
  platform.center->postNotificationName(UIApplicationWillEnterForegroundNotification);
  platform.main->advance(60);
  EXPECT_EQ(platform.transport->count(), before);
}

}  // namespace
}  // namespace telvo
