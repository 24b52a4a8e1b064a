// Event capture: acceptance, the event record, and the flush decision.
#include <gtest/gtest.h>

#include <cmath>
#include <deque>
#include <random>

#include "support/client_fixture.h"
#include "telvo/envelope.h"

namespace telvo {
namespace {

// Batch posts sent so far.
std::size_t posts(VirtualPlatform& platform) { return platform.transport->withContext(3).size(); }

Json countMode(std::int64_t amount) {
  return configDocument({{"batchMode", "count"}, {"batchModeAmount", amount}});
}

TEST(Capture, StampsServiceClockTimeAsWholeMilliseconds) {
  VirtualPlatform platform;
  // Service clock 250 ms behind the device: delta 250.
  platform.clock->setNow(1000000.0);
  auto client = initializedClient(platform, configDocument(),
                                  {{"sessionId", "S"}, {"timestamp", 1000000000.0 - 250}});
  ASSERT_EQ(client->timeStampDelta(), 250);

  platform.clock->setNow(1000000.4004);
  client->sendEvent("play", Json{{"title", "x"}, {"timestamp", "host value"}});
  platform.main->runPending();
  auto batch = client->batch();
  ASSERT_EQ(batch.size(), 1u);
  EXPECT_EQ(batch[0].data(), R"({"timestamp":1000000150,"title":"x"})");
  EXPECT_EQ(batch[0].timestamp(), 1000000150.0);
  EXPECT_EQ(batch[0].name(), "play");
  EXPECT_EQ(batch[0].session(), Json("S"));
}

TEST(Capture, NoDataCarriesOnlyTheApplicationName) {
  VirtualPlatform platform;
  auto client = initializedClient(platform);
  CapturedLog log;
  client->setDebug(true);
  client->sendEvent("launch");
  platform.main->runPending();
  ASSERT_EQ(client->batch().size(), 1u);
  EXPECT_EQ(client->batch()[0].data(), R"({"applicationName":"Player"})");
  EXPECT_TRUE(log.contains("Queueing up event: launch with data: (null)"));
}

TEST(Capture, DropsSilentlyUnlessInitialisedEnabledAndUnthrottled) {
  VirtualPlatform platform;
  auto fresh = Telvo::create(testConfig(), "web", "prod", platform.record());
  auto disabled = initializedClient(platform, configDocument({{"enabled", false}}));
  auto throttled =
      initializedClient(platform, configDocument(), {{"sessionId", "S"}, {"throttled", true}});
  ASSERT_TRUE(throttled->isThrottled());
  CapturedLog log;
  for (auto& client : {fresh, disabled, throttled}) {
    client->setDebug(true);
    client->sendEvent("play", Json::object());
  }
  platform.settle();
  for (auto& client : {fresh, disabled, throttled}) EXPECT_TRUE(client->batch().empty());
  EXPECT_TRUE(log.lines().empty());
}

TEST(Capture, CountModeFlushesOnExactCountAndErrorsDoNotCount) {
  VirtualPlatform platform;
  auto client = initializedClient(platform, countMode(3));
  CapturedLog log;
  client->setDebug(true);
  std::vector<std::int64_t> counts;
  for (const char* name : {"a", "b", "c", "error", "d", "e", "f"}) {
    client->sendEvent(name, Json::object());
    platform.settle();
    counts.push_back(client->postCount());
  }
  EXPECT_EQ(counts, (std::vector<std::int64_t>{1, 2, 0, 0, 1, 2, 0}));
  EXPECT_EQ(posts(platform), 3u);  // after "c", after "error", after "f"
  EXPECT_TRUE(log.contains("Dumping events on count"));
  EXPECT_TRUE(log.contains("Post count: 2"));
  EXPECT_TRUE(log.contains("Post count: 0"));
}

TEST(Capture, CountBelowOneNeverTriggers) {
  VirtualPlatform platform;
  auto client = initializedClient(platform, countMode(0));
  for (int i = 0; i < 5; ++i) client->sendEvent("a", Json::object());
  platform.settle();
  EXPECT_EQ(client->postCount(), 5);
  EXPECT_EQ(posts(platform), 0u);
}

TEST(Capture, HighPriorityListTakesPrecedence) {
  VirtualPlatform platform;
  auto config = testConfig();
  config->setHighPriorityEvents(std::vector<std::string>{"a", "x", "a"});
  auto client = initializedClient(platform, countMode(1), {{"sessionId", "S"}}, config);

  client->sendEvent("b", Json::object());
  client->sendEvent("error", Json::object());
  platform.settle();
  EXPECT_EQ(client->postCount(), 0);
  EXPECT_EQ(posts(platform), 0u);
  EXPECT_EQ(client->batch().size(), 2u);

  client->sendEvent("a", Json::object());  // listed twice: two flushes, the second finds nothing
  platform.settle();
  EXPECT_EQ(posts(platform), 1u);
  EXPECT_EQ(RecordingTransport::decodedBody(platform.transport->withContext(3)[0].request)["events"]
                .size(),
            3u);
}

TEST(Capture, EmptyHighPriorityListLeavesTheOtherRules) {
  VirtualPlatform platform;
  auto config = testConfig();
  config->setHighPriorityEvents(std::vector<std::string>{});
  auto client = initializedClient(platform, countMode(2), {{"sessionId", "S"}}, config);
  for (const char* name : {"error", "a", "b"}) {
    client->sendEvent(name, Json::object());
    platform.settle();
  }
  EXPECT_EQ(posts(platform), 2u);
  EXPECT_EQ(client->postCount(), 0);
}

TEST(Capture, RejectsDataThatIsNotAnObjectAndDropsNonFiniteNumbers) {
  VirtualPlatform platform;
  auto client = initializedClient(platform);
  EXPECT_THROW(client->sendEvent("a", Json::array({1})), UsageError);
  CapturedLog log;
  client->sendEvent("nan", Json{{"v", std::nan("")}});
  client->sendEvent("ok", Json{{"v", 1.5}});
  platform.settle();
  ASSERT_EQ(client->batch().size(), 1u);
  EXPECT_EQ(client->batch()[0].name(), "ok");
  EXPECT_EQ(log.lines().size(), 1u);
}

TEST(Capture, FieldsFollowTheCaptureRules) {
  VirtualPlatform platform;
  auto client = initializedClient(platform);
  platform.clock->setNow(1700000000.0);
  CapturedLog log;
  client->sendEvent("play",
                    {{"title", "Intro"}, {"position", 12}, {"live", false}, {"bitrate", 4.5}});
  client->sendEvent("dup", {{"k", 1},
                            {"timestamp", "host"},
                            {"k", 2},
                            {"none", nullptr},
                            {"nested", Json{{"a", {1, 2}}}},
                            {"raw", RawJson(R"( [1, {"b": true}] )")}});
  const std::vector<Field> bound = {{"via", "pointer"}, {"n", 7u}};
  client->sendEvent("binding", bound.data(), bound.size());
  client->sendEvent("empty", {});
  client->sendEvent("nan", {{"v", std::nan("")}});
  EXPECT_THROW(client->sendEvent("bad", {{"r", RawJson(R"({"a":)")}}), UsageError);
  EXPECT_THROW(client->sendEvent("deep", {{"r", RawJson(std::string(129, '['))}}), UsageError);
  platform.settle();

  const auto batch = client->batch();
  ASSERT_EQ(batch.size(), 4u);
  EXPECT_EQ(
      batch[0].data(),
      R"({"timestamp":1700000000000,"title":"Intro","position":12,"live":false,"bitrate":4.5})");
  EXPECT_EQ(Json::parse(batch[1].data()), (Json{{"timestamp", 1700000000000},
                                                {"k", 1},
                                                {"none", nullptr},
                                                {"nested", {{"a", {1, 2}}}},
                                                {"raw", Json::parse(R"([1,{"b":true}])")}}));
  EXPECT_EQ(Json::parse(batch[2].data()),
            (Json{{"timestamp", 1700000000000}, {"via", "pointer"}, {"n", 7}}));
  EXPECT_EQ(batch[3].data(), R"({"applicationName":"Player"})");
  EXPECT_EQ(log.lines().size(), 1u);  // the NaN event

  // Refused events cost nothing: not even their RawJson is looked at.
  auto fresh = Telvo::create(testConfig(), "web", "prod", platform.record());
  fresh->sendEvent("bad", {{"r", RawJson("{")}});
  fresh->sendEvent("nan", {{"v", std::nan("")}});
  platform.settle();
  EXPECT_TRUE(fresh->batch().empty());
  EXPECT_EQ(log.lines().size(), 1u);
}

TEST(Capture, KeysThatDifferOnlyInIllFormedBytesWriteOneMember) {
  // "\xFF", "\xFE" and U+FFFD itself all write the name U+FFFD: the key whose
  // bytes sort first wins on both paths, at every level.
  VirtualPlatform platform;
  auto client = initializedClient(platform);
  platform.clock->setNow(1700000000.0);
  const Json nested{{"\xFF", 1}, {"\xFE", 2}, {"\xEF\xBF\xBD", 3}};
  client->sendEvent("flat", {{"\xFF", 1}, {"\xFE", 2}, {"n", nested}, {"\xFF", 4}});
  client->sendEvent("tree", Json{{"\xFF", 1}, {"\xFE", 2}, {"n", nested}});
  platform.settle();
  const auto batch = client->batch();
  ASSERT_EQ(batch.size(), 2u);
  EXPECT_EQ(batch[0].data(),
            "{\"timestamp\":1700000000000,\"\xEF\xBF\xBD\":2,\"n\":{\"\xEF\xBF\xBD\":3}}");
  EXPECT_EQ(batch[1].data(),
            "{\"timestamp\":1700000000000,\"n\":{\"\xEF\xBF\xBD\":3},\"\xEF\xBF\xBD\":2}");

  // The same for an error report's details, flat and as a tree.
  client->sendError(5, {{"\xFF", 1}, {"\xFE", 2}});
  client->sendError(5, Json{{"\xFF", 1}, {"\xFE", 2}});
  platform.settle();
  const auto reports = platform.transport->withContext(3);
  ASSERT_EQ(reports.size(), 2u);
  for (const auto& report : reports) {
    const auto& body = *report.request.HTTPBody;
    const std::string text =
        decodeTelvoJsonParameter(
            std::string_view(reinterpret_cast<const char*>(body.data()), body.size()))
            .json;
    EXPECT_NE(text.find("\"\xEF\xBF\xBD\":2"), std::string::npos) << text;
    EXPECT_EQ(text.find("\"\xEF\xBF\xBD\":1"), std::string::npos) << text;
  }
}

// A random field list and, beside it, the Json a host would build from the
// same braced list.
struct RandomData {
  std::deque<std::string> storage;  // what the fields view
  std::deque<Json> nested;
  std::vector<Field> fields;
  Json json = Json::object();

  explicit RandomData(std::mt19937_64& random) {
    // The last five write the same two names once ill-formed UTF-8 is
    // replaced by U+FFFD.
    static const char* const kKeys[] = {"title",
                                        "timestamp",
                                        "a",
                                        "\xC3\xA9t\xC3\xA9",
                                        "q\"uote",
                                        "line\nbreak",
                                        "",
                                        "position",
                                        "k1",
                                        "k2",
                                        "k3",
                                        "\xE2\x82\xAC",
                                        "\xFF",
                                        "\xFE",
                                        "\xEF\xBF\xBD",
                                        "k\xC3",
                                        "k\xE2\x82"};
    static const char* const kPieces[] = {"a",
                                          " ",
                                          "\"",
                                          "\\",
                                          "\n",
                                          "\x01",
                                          "\x7f",
                                          "\xC3\xA9",
                                          "\xC3",
                                          "\xFF",
                                          "\xE2\x82\xAC",
                                          "\xF0\x9F\x98\x80",
                                          "\xED\xA0\x80",
                                          "/"};
    static const char* const kRaw[] = {
        "[1, 2.5, {\"z\": null}]", " \"s\\u00e9\" ", "{\"a\":{\"b\":[]}}", "true", "-0", "1e2",
        "{\"d\":1,\"d\":2}"};
    auto pick = [&random](std::size_t n) { return static_cast<std::size_t>(random() % n); };
    const std::size_t count = pick(4) == 0 ? pick(40) : pick(10);
    for (std::size_t i = 0; i < count; ++i) {
      const std::string& key = storage.emplace_back(kKeys[pick(std::size(kKeys))]);
      Json value;
      switch (pick(9)) {
        case 0: {
          std::string& text = storage.emplace_back();
          for (std::size_t n = pick(12); n > 0; --n) text += kPieces[pick(std::size(kPieces))];
          fields.emplace_back(key, text);
          value = text;
          break;
        }
        case 1: {
          const auto number = static_cast<std::int64_t>(random()) >> pick(64);
          fields.emplace_back(key, number);
          value = number;
          break;
        }
        case 2: {
          const std::uint64_t number = random() | (std::uint64_t{1} << 63);
          fields.emplace_back(key, number);
          value = number;
          break;
        }
        case 3: {
          double number = std::ldexp(static_cast<double>(random() % 1000003) - 500000,
                                     static_cast<int>(pick(2000)) - 1000);
          if (pick(8) == 0) number = -0.0;
          fields.emplace_back(key, number);
          value = number;
          break;
        }
        case 4:
          fields.emplace_back(key, pick(2) == 1);
          value = fields.back().boolean();
          break;
        case 5:
          fields.emplace_back(key, nullptr);
          break;
        case 6:
          fields.emplace_back(key, static_cast<const char*>(nullptr));
          break;
        case 7: {
          const Json& tree = nested.emplace_back(Json{{"x", {1, "y\xC3"}}, {"e", Json::object()}});
          fields.emplace_back(key, tree);
          value = tree;
          break;
        }
        default: {
          const char* raw = kRaw[pick(std::size(kRaw))];
          fields.emplace_back(key, RawJson(raw));
          value = Json::parse(raw);
          break;
        }
      }
      json.emplace(key, std::move(value));  // the first of equal keys wins
    }
  }
};

TEST(Capture, FieldsParseAsTheJsonPathOnRandomLists) {
  VirtualPlatform platform;
  auto client = initializedClient(platform);
  std::mt19937_64 random(20261123);
  constexpr int kLists = 400;
  for (int i = 0; i < kLists; ++i) {
    RandomData data(random);
    // An empty list is no data, as sendEvent(name) is.
    if (data.fields.empty()) {
      client->sendEvent("e" + std::to_string(i));
    } else {
      client->sendEvent("e" + std::to_string(i), data.json);
    }
    client->sendEvent("e" + std::to_string(i), data.fields.data(), data.fields.size());
  }
  platform.settle();
  client->dumpEvents();
  platform.settle();
  ASSERT_EQ(posts(platform), 1u);
  const Json events =
      RecordingTransport::decodedBody(platform.transport->withContext(3)[0].request)["events"];
  ASSERT_EQ(events.size(), 2u * kLists);
  for (std::size_t i = 0; i < events.size(); i += 2) {
    EXPECT_EQ(events[i], events[i + 1]) << "list " << i / 2;
  }
}

}  // namespace
}  // namespace telvo
