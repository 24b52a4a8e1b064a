// What a hostile or broken service, or a failing host queue, can do to a
// client: nothing worse than the design's outcome for an answer that does
// not parse or a value that is absent.
#include <gtest/gtest.h>

#include <limits>
#include <stdexcept>
#include <string>

#include "support/client_fixture.h"

namespace telvo {
namespace {

std::string nested(std::size_t depth) {
  return std::string(depth, '[') + std::string(depth, ']');
}

TEST(HostileAnswers, ADeeplyNestedHelloAnswerDoesNotParseAndLeavesTheClientUninitialised) {
  VirtualPlatform platform;
  auto client = Telvo::create(testConfig(), "web", "prod", platform.record());
  platform.transport->answerJson(0, configDocument());
  // 100,000 levels: copying or walking such a value would overflow the stack.
  platform.transport->answer(1, "{\"sessionId\":" + nested(100000) + "}");
  platform.settle();
  EXPECT_FALSE(client->isInitialized());
  EXPECT_EQ(client->sessionID(), Json(""));

  // A document just within the limit is taken as it is.
  auto shallow = Telvo::create(testConfig(), "web", "prod", platform.record());
  platform.transport->answerJson(2, configDocument());
  platform.transport->answer(3, "{\"sessionId\":" + nested(127) + "}");
  platform.settle();
  EXPECT_TRUE(shallow->isInitialized());
}

TEST(HostileAnswers, AServiceTimeThatIsNoTimeLeavesEventsOnTheDeviceClock) {
  const double now = 1700000000.0;  // the platform's test clock
  for (const Json& timestamp :
       {Json(1e300), Json(-1e300), Json("nan"), Json("1e400"), Json("-inf"), Json(9.1e15)}) {
    VirtualPlatform platform;
    CapturedLog log;
    auto client =
        initializedClient(platform, configDocument(), {{"sessionId", "S"}, {"timestamp", timestamp}});
    ASSERT_TRUE(client->isInitialized()) << timestamp;
    EXPECT_EQ(client->timeStampDelta(), 0) << timestamp;
    EXPECT_EQ(log.lines().size(), 1u) << timestamp;

    client->sendEvent("play", Json{{"n", 1}});
    client->sendError("E1");
    client->dumpEvents();
    platform.settle();
    const auto posts = platform.transport->withContext(kPostContext);
    ASSERT_EQ(posts.size(), 2u) << timestamp;
    for (const auto& post : posts) {
      const Json body = RecordingTransport::decodedBody(post.request);
      const Json& stamp = body.contains("events") ? body["events"][0]["eventData"]["timestamp"]
                                                  : body["data"]["timestamp"];
      EXPECT_EQ(stamp, static_cast<std::int64_t>(now * 1000)) << timestamp;
    }
  }
}

TEST(HostileAnswers, AServiceTimeAtTheEdgeOfTheRangeIsStillUsed) {
  VirtualPlatform platform;
  auto client = initializedClient(platform, configDocument(),
                                  {{"sessionId", "S"}, {"timestamp", -9007199254740992.0}});
  EXPECT_EQ(client->timeStampDelta(), 1700000000000.0 + 9007199254740992.0);
  client->sendEvent("play", Json{{"n", 1}});
  client->dumpEvents();
  platform.settle();
  const Json body =
      RecordingTransport::decodedBody(platform.transport->withContext(kPostContext)[0].request);
  EXPECT_EQ(body["events"][0]["eventData"]["timestamp"], -9007199254740992LL);
}

// A host executor that refuses work while `refusing` is set.
class RefusingExecutor : public Executor {
 public:
  explicit RefusingExecutor(std::shared_ptr<Executor> inner) : inner_(std::move(inner)) {}
  void post(std::function<void()> work) override {
    if (refusing) throw std::runtime_error("queue full");
    inner_->post(std::move(work));
  }
  std::shared_ptr<Timer> scheduleRepeating(double interval, std::function<void()> fire) override {
    return inner_->scheduleRepeating(interval, std::move(fire));
  }
  bool refusing = false;

 private:
  std::shared_ptr<Executor> inner_;
};

TEST(HostileAnswers, AMainQueueThatRefusesACaptureDoesNotStopLaterCaptures) {
  VirtualPlatform platform;
  auto refusing = std::make_shared<RefusingExecutor>(platform.main);
  Platform record = platform.record();
  record.mainQueue = refusing;
  auto client = Telvo::create(testConfig(), "web", "prod", record);
  // Every event asks for a flush, so each one posts its capture at once.
  platform.transport->answerJson(0, configDocument({{"batchMode", "count"}, {"batchModeAmount", 1}}));
  platform.transport->answerJson(1, {{"sessionId", "S"}});
  platform.settle();
  ASSERT_TRUE(client->isInitialized());

  CapturedLog log;
  refusing->refusing = true;
  EXPECT_NO_THROW(client->sendEvent("first", Json{{"n", 1}}));
  EXPECT_EQ(log.lines().size(), 1u);
  refusing->refusing = false;
  client->sendEvent("second", Json{{"n", 2}});
  platform.settle();
  // Both were captured, in order, by the drain the second call scheduled,
  // and posted by the flushes they asked for.
  ASSERT_EQ(platform.transport->count(), 3u);
  const Json events = RecordingTransport::decodedBody(platform.transport->at(2).request)["events"];
  ASSERT_EQ(events.size(), 2u);
  EXPECT_EQ(events[0]["eventType"], "first");
  EXPECT_EQ(events[1]["eventType"], "second");
}

TEST(HostileAnswers, AStoredCookieWithoutAUsablePathIsSkipped) {
  for (const char* path : {"", "relative"}) {
    VirtualPlatform platform;
    CapturedLog log;
    platform.defaults->setObject(
        {{"Name", "telvoUUID"}, {"Value", "u"}, {"Domain", "svc.example.test"}, {"Path", path}},
        TelvoUUIDCookieKey);
    auto client = initializedClient(platform);
    EXPECT_TRUE(client->isInitialized()) << path;
    const auto hello = platform.transport->at(1).request;
    EXPECT_FALSE(hello.valueForHTTPHeaderField("Cookie")) << path;
    EXPECT_EQ(hello.valueForHTTPHeaderField("Content-Type"), "application/x-gzip") << path;
    EXPECT_EQ(log.lines().size(), 1u) << path;
  }
}

TEST(NullSettings, ANullTextSettingGoesOutAsNull) {
  VirtualPlatform platform;
  auto config = TelvoConfig::telvoConfigWithDictionary(
      {{"platform", "linux"}, {"site", "den"}, {"appVersion", "2.1"}, {"appName", nullptr},
       {"configBaseUrl", "https://cdn.example.test/config/"}});
  ASSERT_TRUE(config);
  EXPECT_EQ(config->configURL(), std::nullopt);
  auto client = initializedClient(
      platform, configDocument({{"telvoUserIdEnabled", "true"}, {"telvoUserIdHash", nullptr}}),
      {{"sessionId", "S"}, {"timestamp", 1700000000000.0}}, config);
  // The location carries the null as the platform prints it, <null>, which
  // no URL holds: the fetch has no address (a real transport fails it; this
  // one is answered below all the same).
  EXPECT_FALSE(platform.transport->at(0).request.url);
  ASSERT_TRUE(client->isInitialized());
  const Json hello = RecordingTransport::decodedBody(platform.transport->at(1).request);
  EXPECT_EQ(hello["applicationName"], nullptr);
  EXPECT_EQ(hello["telvoUUIDToken"], nullptr);
  EXPECT_EQ(hello.size(), 9u);

  client->sendEvent("bare");
  client->sendError("E1");
  client->dumpEvents();
  platform.settle();
  for (const auto& post : platform.transport->withContext(kPostContext)) {
    const Json body = RecordingTransport::decodedBody(post.request);
    if (body.contains("events")) {
      EXPECT_EQ(body["events"][0]["eventData"], (Json{{"applicationName", nullptr}}));
    } else {
      EXPECT_EQ(body["data"]["applicationName"], nullptr);
    }
  }
  EXPECT_EQ(platform.transport->withContext(kPostContext).size(), 2u);
}

}  // namespace
}  // namespace telvo
