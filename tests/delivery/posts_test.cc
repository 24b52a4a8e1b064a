// The batch and error posts and the flush rules, as value-level steps with
// plain values.
#include <gtest/gtest.h>

#include <cmath>
#include <deque>
#include <limits>
#include <string>
#include <string_view>
#include <vector>

#include "delivery/batch_payload.h"
#include "delivery/error_post.h"
#include "delivery/flush_order.h"
#include "delivery/flush_rules.h"
#include "telvo/envelope.h"

namespace telvo {
namespace {

using delivery::BatchPayload;
using delivery::BatchTimerRules;
using delivery::CaptureFlush;
using delivery::ErrorPost;
using delivery::QueuedEvent;

Json decoded(const URLRequest& request) {
  const Bytes& body = *request.HTTPBody;
  auto envelope = decodeTelvoJsonParameter(
      std::string_view(reinterpret_cast<const char*>(body.data()), body.size()));
  return envelope.ok() ? envelope.document : Json();
}

QueuedEvent queued(std::string_view name, std::string_view data, bool compact) {
  return *QueuedEvent::make(name, data, compact, 1.0, nullptr);
}

TEST(BatchPost, SplicesTheClientsTextAndRewritesForeignText) {
  std::deque<QueuedEvent> events;
  events.push_back(queued("play", R"({"timestamp":5,"t":"x"})", true));
  events.push_back(queued("na\"me", R"( { "a" : [1, 2] } )", false));  // rewritten compactly
  events.push_back(queued("odd", "42", false));                        // not an object: {}
  events.push_back(queued("broken", "{", false));
  const std::string text = BatchPayload::write(Json{{"id", 7}}, events);
  EXPECT_EQ(text,
            R"({"sessionId":{"id":7},"events":[{"eventType":"play","eventData":{"timestamp":5,"t":"x"}},)"
            R"({"eventType":"na\"me","eventData":{"a":[1,2]}},{"eventType":"odd","eventData":{}},)"
            R"({"eventType":"broken","eventData":{}}]})");
  EXPECT_EQ(BatchPayload::write("s", {}), R"({"sessionId":"s","events":[]})");
}

TEST(BatchPost, SplitsUnderASizeBoundIntoWholePayloadsCoveringEveryEvent) {
  std::deque<QueuedEvent> events;
  for (int i = 0; i < 10; ++i) {
    events.push_back(queued(i == 4 ? "huge" : "e", i == 4 ? R"({"pad":")" + std::string(300, 'x') + R"("})"
                                                           : R"({"i":)" + std::to_string(i) + "}",
                            true));
  }
  const std::size_t bound = 120;
  std::vector<std::string> seen;
  std::size_t oversized = 0;
  for (std::size_t next = 0; next < events.size();) {
    auto part = BatchPayload::write("s", events, next, bound);
    ASSERT_GT(part.next, next);  // always moves on
    next = part.next;
    oversized += part.oversized;
    EXPECT_LE(part.json.size(), bound);
    const Json body = Json::parse(part.json);
    EXPECT_EQ(body["sessionId"], "s");
    EXPECT_EQ(body["events"].size(), part.events);
    for (const Json& event : body["events"]) seen.push_back(event["eventData"].dump());
  }
  EXPECT_EQ(oversized, 1u);  // the one event too large to fit alone
  ASSERT_EQ(seen.size(), 9u);
  EXPECT_EQ(seen.front(), R"({"i":0})");
  EXPECT_EQ(seen[4], R"({"i":5})");
  EXPECT_EQ(seen.back(), R"({"i":9})");
  // Without a bound, one payload holds them all.
  auto whole = BatchPayload::write("s", events, 0, std::string::npos);
  EXPECT_EQ(whole.events, 10u);
  EXPECT_EQ(whole.json, BatchPayload::write("s", events));
}

TEST(BatchPost, GoesToServicesUrlAndBatchApiInTheEnvelope) {
  auto request = BatchPayload::request("http://svc.test", "/api/batch", R"({"x":1})");
  ASSERT_TRUE(request.url);
  EXPECT_EQ(request.url->absoluteString(), "https://svc.test/api/batch.json");
  EXPECT_EQ(request.HTTPMethod, "POST");
  EXPECT_EQ(request.valueForHTTPHeaderField("Content-Encoding"), kEnvelopeContentEncoding);
  EXPECT_EQ(decoded(request), (Json{{"x", 1}}));
  // An absent part reads "(null)", which makes no URL here.
  EXPECT_FALSE(BatchPayload::request("(null)", "/api/batch", "{}").url);
}

TEST(ErrorPost, DetailsWinAndOddValuesStayValidJson) {
  const std::string text =
      ErrorPost::write("S", "Player", 1700000000123, Json("E42"),
                       Json{{"errorCode", "mine"}, {"where", "player"}, {"bad", "\xFF"},
                            {"nan", std::numeric_limits<double>::quiet_NaN()}});
  const Json payload = Json::parse(text);
  EXPECT_EQ(payload["sessionId"], "S");
  const Json& data = payload["data"];
  EXPECT_EQ(data["applicationName"], "Player");
  EXPECT_EQ(data["timestamp"], 1700000000123);
  EXPECT_EQ(data["errorCode"], "mine");
  EXPECT_EQ(data["where"], "player");
  EXPECT_EQ(data["bad"], "\xEF\xBF\xBD");
  EXPECT_TRUE(data["nan"].is_null());

  auto request = ErrorPost::request("https://svc.test", text);
  EXPECT_EQ(request.url->absoluteString(), "https://svc.test/api/postEvent/error");
  EXPECT_EQ(decoded(request), payload);
}

TEST(FlushRules, TimerStartsOnlyOnceInitialisedAndConfigured) {
  EXPECT_TRUE(BatchTimerRules::mayStart(false, true, true));
  EXPECT_FALSE(BatchTimerRules::mayStart(true, true, true));
  EXPECT_FALSE(BatchTimerRules::mayStart(false, false, true));
  EXPECT_FALSE(BatchTimerRules::mayStart(false, true, false));
  EXPECT_EQ(BatchTimerRules::interval(5), 5.0);
}

TEST(FlushRules, WhatOneCapturedEventTriggers) {
  const std::optional<std::vector<std::string>> none, empty = std::vector<std::string>{},
                                                       list = std::vector<std::string>{
                                                           "buy", "login", "buy"};
  struct Case {
    const char* name;
    const std::optional<std::vector<std::string>>& priorities;
    bool countBatching;
    std::int64_t amount, count;
    int flushes;
    bool counted;
    std::int64_t newCount;
  };
  const Case cases[] = {
      {"buy", list, true, 3, 2, 2, false, 0},    // named twice: two flushes, no counting
      {"error", list, true, 3, 2, 0, false, 0},  // the list switches the "error" rule off
      {"error", none, true, 3, 2, 1, false, 0},
      {"error", empty, false, 3, 0, 1, false, 0},
      {"tick", none, true, 3, 1, 0, true, 2},
      {"tick", none, true, 3, 2, 1, true, 0},  // the count reaches the amount
      {"tick", none, true, 0, 5, 0, true, 6},  // an amount never reached
      {"tick", none, false, 3, 2, 0, false, 0},
  };
  for (const auto& c : cases) {
    auto decision = CaptureFlush::decide(c.name, c.priorities, c.countBatching, c.amount, c.count);
    EXPECT_EQ(decision.flushes, c.flushes) << c.name << " " << c.count;
    EXPECT_EQ(decision.counted, c.counted) << c.name << " " << c.count;
    if (c.counted) {
      EXPECT_EQ(decision.postCount, c.newCount) << c.name << " " << c.count;
    }
    EXPECT_EQ(decision.onCount, c.counted && c.flushes == 1);
  }
}

TEST(FlushRules, EventsLeaveInTimestampOrderTiesInQueueOrder) {
  auto at = [](std::string_view name, double timestamp) {
    return *QueuedEvent::make(name, "{}", true, timestamp, nullptr);
  };
  auto names = [](const std::deque<QueuedEvent>& events) {
    std::string text;
    for (const auto& event : events) text.append(event.name()).append(" ");
    return text;
  };
  std::deque<QueuedEvent> events;
  for (const auto& [name, timestamp] : std::initializer_list<std::pair<const char*, double>>{
           {"c", 30}, {"a1", 10}, {"d", 40}, {"a2", 10}, {"b", 20}, {"a3", 10}, {"e", -5}}) {
    events.push_back(at(name, timestamp));
  }
  delivery::sortByTimestamp(events);
  EXPECT_EQ(names(events), "e a1 a2 a3 b c d ");
  delivery::sortByTimestamp(events);  // already in order: left as it is
  EXPECT_EQ(names(events), "e a1 a2 a3 b c d ");
  EXPECT_EQ(events[1].data(), "{}");

  // A long run out of order: equal timestamps keep their queue order.
  std::deque<QueuedEvent> many;
  for (int i = 0; i < 5000; ++i) many.push_back(at(std::to_string(i), (i * 7919) % 97));
  delivery::sortByTimestamp(many);
  for (std::size_t i = 1; i < many.size(); ++i) {
    ASSERT_LE(many[i - 1].timestamp(), many[i].timestamp());
    if (many[i - 1].timestamp() == many[i].timestamp()) {
      ASSERT_LT(std::stoi(std::string(many[i - 1].name())), std::stoi(std::string(many[i].name())));
    }
  }
  std::deque<QueuedEvent> none;
  delivery::sortByTimestamp(none);
  EXPECT_TRUE(none.empty());
}

}  // namespace
}  // namespace telvo
