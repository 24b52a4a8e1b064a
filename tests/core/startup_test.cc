// The configuration fetch, the hello request and the handling of answers.
#include <gtest/gtest.h>

#include "support/client_fixture.h"
#include "telvo/http_cookie.h"

namespace telvo {
namespace {

struct RecordingDelegate : TelvoDelegate {
  bool respondsToTelvoInitialized() const override { return responds; }
  void telvoInitialized() override { ++calls; }
  bool responds = true;
  int calls = 0;
};

TEST(Startup, DisabledConfigurationSendsNoHello) {
  VirtualPlatform platform;
  auto client = initializedClient(platform, configDocument({{"enabled", false}}));
  EXPECT_EQ(platform.transport->count(), 1u);
  ASSERT_TRUE(client->masterConfig());
  EXPECT_FALSE(client->isInitialized());
}

TEST(Startup, UnreadableConfigurationIsLoggedAndLeavesTheClientUnconfigured) {
  VirtualPlatform platform;
  CapturedLog log;
  auto document = configDocument({}, {{"prod", {{"noSuchSetting", 1}}}});
  auto client = initializedClient(platform, document);
  EXPECT_FALSE(client->masterConfig());
  EXPECT_EQ(platform.transport->count(), 1u);
  EXPECT_EQ(log.lines().size(), 1u);
}

TEST(Startup, HelloCarriesTheDescriptionOfAppAndDevice) {
  VirtualPlatform platform;
  auto plain = Telvo::create(testConfig(), "web", "prod", platform.record());
  platform.transport->answerJson(0, configDocument());
  auto withToken = Telvo::create(testConfig(), "web", "prod", platform.record());
  platform.transport->answerJson(2, configDocument({{"telvoUserIdEnabled", "true"}}));

  const auto hello = platform.transport->at(1);
  EXPECT_EQ(hello.context, 2);
  EXPECT_EQ(hello.request.url->absoluteString(), "https://svc.example.test/api/hello");
  EXPECT_EQ(hello.request.HTTPMethod, "POST");
  EXPECT_EQ(hello.request.valueForHTTPHeaderField("Content-Type"), "application/x-gzip");
  EXPECT_EQ(hello.request.valueForHTTPHeaderField("Content-Encoding"), "gzip");
  EXPECT_TRUE(hello.request.HTTPShouldHandleCookies);
  EXPECT_EQ(hello.request.cachePolicy, 4);
  EXPECT_EQ(hello.request.timeoutInterval, 30.0);
  EXPECT_EQ(RecordingTransport::decodedBody(hello.request),
            (Json{{"propertyName", "web"},
                  {"applicationName", "Player"},
                  {"applicationVersion", "2.1"},
                  {"platformName", "linux"},
                  {"deviceType", "settop"},
                  {"deviceVersion", "armv7l"},
                  {"clientDeviceId", "0A1B2C3D-0000-4000-8000-00000000ABCD"},
                  {"deviceModel", "Set-top box"}}));
  const Json nine = RecordingTransport::decodedBody(platform.transport->at(3).request);
  EXPECT_EQ(nine.size(), 9u);
  EXPECT_EQ(nine["telvoUUIDToken"], "517telvoUID517");
  EXPECT_EQ(HTTPCookieStorage::sharedHTTPCookieStorage().cookieAcceptPolicy(),
            HTTPCookieAcceptPolicy::Always);
}

TEST(Startup, StoredCookieReplacesEveryHeader) {
  VirtualPlatform platform;
  platform.defaults->setObject(
      {{"Name", "uid"}, {"Value", "abc"}, {"Domain", "svc.example.test"}, {"Path", "/"}},
      TelvoUUIDCookieKey);
  initializedClient(platform);
  const URLRequest hello = platform.transport->at(1).request;
  EXPECT_EQ(hello.allHTTPHeaderFields, (HTTPHeaderFields{{"Cookie", "uid=abc"}}));
  EXPECT_FALSE(hello.HTTPShouldHandleCookies);

  // A cookie that cannot be rebuilt is skipped, with a line saying so.
  CapturedLog log;
  platform.defaults->setObject({{"Name", "uid"}}, TelvoUUIDCookieKey);
  auto client = initializedClient(platform);
  EXPECT_EQ(platform.transport->at(3).request.valueForHTTPHeaderField("Content-Type"),
            "application/x-gzip");
  EXPECT_TRUE(client->isInitialized());
  EXPECT_EQ(log.lines().size(), 1u);
}

TEST(Startup, AbsentHelloValueKeepsTheClientUninitialised) {
  VirtualPlatform platform;
  CapturedLog log;
  auto config = testConfig();
  config->setAppVersion(std::nullopt);
  auto client = initializedClient(platform, configDocument(), {{"sessionId", "S"}}, config);
  EXPECT_EQ(platform.transport->count(), 1u);
  EXPECT_FALSE(client->isInitialized());
  EXPECT_EQ(log.lines().size(), 1u);
}

TEST(Startup, HelloAnswerNotifiesBeforeTheClientBecomesInitialised) {
  VirtualPlatform platform;
  auto client = Telvo::create(testConfig(), "web", "prod", platform.record());
  auto delegate = std::make_shared<RecordingDelegate>();
  client->setDelegate(delegate);
  platform.transport->answerJson(0, configDocument());

  std::vector<std::string> seen;
  platform.center->addObserver(this, TelvoSessionIDReceivedNotification,
                               [&](const Notification& n) {
                                 seen.push_back(n.object.get<std::string>());
                                 EXPECT_FALSE(client->isInitialized());
                                 EXPECT_EQ(client->timeStampDelta(), 0);
                                 EXPECT_EQ(client->sessionID(), n.object);
                               });
  CapturedLog log;
  client->setDebug(true);
  // Device 1000.5 ms ahead of the service: the delta rounds away from zero.
  platform.transport->answerJson(
      1, {{"sessionId", "S-9"}, {"throttled", true}, {"timestamp", 1700000000000.0 - 1000.5}});
  EXPECT_EQ(seen, std::vector<std::string>{"S-9"});
  EXPECT_TRUE(client->isInitialized());
  EXPECT_TRUE(client->isThrottled());
  EXPECT_EQ(client->timeStampDelta(), 1001);
  EXPECT_EQ(delegate->calls, 1);
  EXPECT_TRUE(client->batchTimer());
  EXPECT_TRUE(log.contains("Received Hello response"));
  EXPECT_TRUE(log.contains(R"(Received response: {"sessionId":"S-9","throttled":true,)"
                           R"("timestamp":1699999998999.5})"));
  platform.center->removeObserver(this);

  // A delegate without the operation hears nothing.
  auto other = Telvo::create(testConfig(), "web", "prod", platform.record());
  auto silent = std::make_shared<RecordingDelegate>();
  silent->responds = false;
  other->setDelegate(silent);
  platform.transport->answerJson(2, configDocument());
  platform.transport->answerJson(3, {{"sessionId", "S-10"}});
  EXPECT_TRUE(other->isInitialized());
  EXPECT_EQ(silent->calls, 0);
}

TEST(Startup, HelloAnswerWithoutSessionIdChangesNothing) {
  VirtualPlatform platform;
  CapturedLog log;
  auto client = Telvo::create(testConfig(), "web", "prod", platform.record());
  client->setDebug(true);
  platform.transport->answerJson(0, configDocument());
  platform.transport->answerJson(1, {{"throttled", true}});
  EXPECT_FALSE(client->isInitialized());
  EXPECT_FALSE(client->isThrottled());
  EXPECT_EQ(client->sessionID(), Json(""));
  EXPECT_FALSE(client->batchTimer());
  EXPECT_TRUE(log.contains("Telvo not initialized yet - cannot start timer or timer exists"));
}

TEST(Startup, NullSessionIdCountsAndClockBehindGivesNegativeDelta) {
  VirtualPlatform platform;
  auto client =
      initializedClient(platform, configDocument(),
                        {{"sessionId", nullptr}, {"timestamp", 1700000000000.0 + 1000.5}});
  EXPECT_TRUE(client->isInitialized());
  EXPECT_TRUE(client->sessionID().is_null());
  EXPECT_EQ(client->timeStampDelta(), -1001);
  EXPECT_FALSE(client->isThrottled());

  // Later answers of other contexts are only logged.
  client->sendError("x");
  platform.settle();
  platform.transport->answerJson(platform.transport->count() - 1, {{"sessionId", "other"}});
  EXPECT_TRUE(client->sessionID().is_null());
}

}  // namespace
}  // namespace telvo
