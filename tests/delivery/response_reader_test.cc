// The response reader every transport completes through (error, cookie
// keeping, stripping, parsing, delivery), driven directly without a network.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>

#include "delivery/response_reader.h"
#include "delivery/transport_test_delegate.h"
#include "telvo/http_cookie.h"
#include "telvo/telvo_transport.h"
#include "telvo/user_defaults.h"

namespace telvo {
namespace {

using test::TestTransportDelegate;

Bytes bytesOf(const std::string& text) { return Bytes(text.begin(), text.end()); }
std::string textOf(const Bytes& bytes) { return std::string(bytes.begin(), bytes.end()); }

// A transport that sends nothing: for the design's strip operation.
class NullTransport : public TelvoTransport {
 public:
  void sendRequest(URLRequest, std::int32_t, std::shared_ptr<TelvoTransportDelegate>) override {}
  bool waitUntilIdle(double) override { return true; }
};

class CountingDefaults : public MemoryUserDefaults {
 public:
  bool synchronize() override {
    ++synchronized;
    return MemoryUserDefaults::synchronize();
  }
  std::atomic<int> synchronized{0};
};

class ResponseReaderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    defaults_ = std::make_shared<CountingDefaults>();
    request_ = URLRequest(URL::fromString("https://svc.example.com/api/hello"));
  }

  // Reads one canned answer on the calling thread, keeping the cookie in
  // `defaults_` and the jar `jar_`.
  void answer(const URLRequest& request, std::int32_t context,
              const std::shared_ptr<TelvoTransportDelegate>& delegate, const std::string& body,
              const HTTPHeaderFields& headers = {}, std::optional<Error> error = std::nullopt) {
    delivery::HttpResponse response;
    response.error = std::move(error);
    response.status = 200;
    response.headers = headers;
    response.body = bytesOf(body);
    delivery::readResponse(request, context, delegate, response,
                           delivery::ResponseSinks{&jar_, defaults_, 1763800000});
  }

  std::shared_ptr<CountingDefaults> defaults_;
  HTTPCookieStorage jar_;
  NullTransport transport_;
  URLRequest request_;
};

TEST_F(ResponseReaderTest, StripsCallbackWrappersByTheTextRules) {
  struct Case {
    const char* body;
    const char* stripped;
  };
  const Case cases[] = {
      {R"(cb({"a":1});)", R"({"a":1})"},
      {R"({"a":1})", R"({"a":1})"},
      // "(" without ");": the received text, not the text after "(".
      {R"(cb({"a":1}))", R"(cb({"a":1}))"},
      {R"({"s":"x(y"})", R"({"s":"x(y"})"},
      // After the first "(", up to the last ");", inner ones kept.
      {R"({"s":"a(b);c"})", "b"},
      {"f(g(1);2);3", "g(1);2"},
      {"no wrapper);", "no wrapper"},  // no "(": the ");" still ends it
      {"", ""},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(textOf(transport_.dataWithStrippedJSONCallback(bytesOf(c.body))), c.stripped)
        << c.body;
  }
  // Bytes that are not UTF-8 make no text at all.
  EXPECT_TRUE(
      transport_.dataWithStrippedJSONCallback(Bytes{'c', 'b', '(', 0xFF, ')', ';'}).empty());
}

TEST_F(ResponseReaderTest, DeliversObjectsAndArraysWithRequestAndContext) {
  auto delegate = std::make_shared<TestTransportDelegate>(true);
  answer(request_, 2, delegate, R"(jsonp({"sessionId":"s1","n":[1,2]});)");
  answer(request_, 3, delegate, "[1,2,3]");
  auto results = delegate->results();
  ASSERT_EQ(results.size(), 2u);
  EXPECT_TRUE(delegate->failures().empty());
  EXPECT_EQ(results[0].context, 2);
  EXPECT_EQ(results[0].request.url, request_.url);
  EXPECT_EQ(*results[0].result, (Json{{"sessionId", "s1"}, {"n", {1, 2}}}));
  EXPECT_EQ(results[1].context, 3);
  EXPECT_EQ(*results[1].result, Json::array({1, 2, 3}));
}

TEST_F(ResponseReaderTest, UnparseableBodiesFailOrArriveEmpty) {
  const std::string bodies[] = {
      "",                   // empty
      R"(cb({"a":1}))",     // bare ")": passed unstripped
      R"({"s":"a(b);c"})",  // cut to "b"
      "42",
      R"("text")",
      "null",  // fragments are not documents
      "{\"a\":1} trailing",
      std::string("{\"a\":\"\xC3\x28\"}"),  // not UTF-8
      "{\"sessionId\":" + std::string(100000, '[') + std::string(100000, ']') + "}",  // too deep
  };
  for (const auto& body : bodies) {
    auto failing = std::make_shared<TestTransportDelegate>(true);
    answer(request_, 3, failing, body);
    ASSERT_EQ(failing->failures().size(), 1u) << body;
    EXPECT_EQ(failing->failures()[0].domain, "telvo.json");
    EXPECT_TRUE(failing->results().empty());

    auto plain = std::make_shared<TestTransportDelegate>(false);
    answer(request_, 3, plain, body);
    ASSERT_EQ(plain->results().size(), 1u) << body;
    EXPECT_FALSE(plain->results()[0].result.has_value());
    EXPECT_EQ(plain->results()[0].context, 3);
  }
}

TEST_F(ResponseReaderTest, TransferErrorReachesOnlyDelegatesThatWantIt) {
  const HTTPHeaderFields headers = {{"Set-Cookie", "telvo=abc"}};
  const Error error{"telvo.transport", 7, "refused"};
  auto failing = std::make_shared<TestTransportDelegate>(true);
  answer(request_, 0, failing, R"({"a":1})", headers, error);
  ASSERT_EQ(failing->failures().size(), 1u);
  EXPECT_EQ(failing->failures()[0].code, 7);
  EXPECT_TRUE(failing->results().empty());

  auto plain = std::make_shared<TestTransportDelegate>(false);
  answer(request_, 0, plain, R"({"a":1})", headers, error);
  EXPECT_EQ(plain->calls(), 0u);
  // No cookie is read from a failed transfer.
  EXPECT_FALSE(defaults_->objectForKey(TelvoUUIDCookieKey).has_value());
}

TEST_F(ResponseReaderTest, KeepsTheLastCookieBeforeDelivering) {
  auto delegate = std::make_shared<TestTransportDelegate>(true);
  std::optional<Json> storedDuringDelivery;
  delegate->onResult = [&](const TestTransportDelegate::Result&) {
    storedDuringDelivery = defaults_->objectForKey(TelvoUUIDCookieKey);
  };
  answer(request_, 2, delegate, "{}",
                    {{"Set-Cookie", "first=1; Path=/"},
                     {"Content-Type", "application/json"},
                     {"set-cookie", "telvoUUID=u-2; Secure; HttpOnly"}});
  ASSERT_TRUE(storedDuringDelivery.has_value());
  EXPECT_EQ(*storedDuringDelivery, (Json{{"Name", "telvoUUID"},
                                         {"Value", "u-2"},
                                         {"Domain", "svc.example.com"},
                                         {"Path", "/api"},
                                         {"Secure", "TRUE"},
                                         {"HttpOnly", "TRUE"}}));
  EXPECT_EQ(defaults_->synchronized.load(), 1);

  // A response without cookies, or with one that does not parse, leaves it.
  answer(request_, 2, delegate, "{}", {{"Content-Type", "application/json"}});
  answer(request_, 2, delegate, "{}", {{"Set-Cookie", "no-equals-sign"}});
  EXPECT_EQ(defaults_->objectForKey(TelvoUUIDCookieKey)->at("Value"), "u-2");
  EXPECT_EQ(defaults_->synchronized.load(), 1);

  // A body that does not parse still has its cookie kept.
  answer(request_, 2, delegate, "", {{"Set-Cookie", "telvoUUID=u-3"}});
  EXPECT_EQ(defaults_->objectForKey(TelvoUUIDCookieKey)->at("Value"), "u-3");
}

TEST_F(ResponseReaderTest, RequestWithoutDelegateStillKeepsTheCookie) {
  answer(request_, 0, nullptr, "{}", {{"Set-Cookie", "a=b"}});
  EXPECT_EQ(defaults_->objectForKey(TelvoUUIDCookieKey)->at("Name"), "a");
}

// A delegate that names its own store gets the cookie there.
TEST_F(ResponseReaderTest, TheCookieGoesWhereTheDelegateSaysAndTheJarOnlyWhenAsked) {
  auto delegate = std::make_shared<TestTransportDelegate>(false);
  delegate->store = std::make_shared<MemoryUserDefaults>();
  auto store = delegate->cookieStore();
  std::shared_ptr<UserDefaults> chosen = store ? store : defaults_;
  delivery::HttpResponse response;
  response.headers = {{"Set-Cookie", "telvoUUID=u-9; Path=/"}};
  response.body = bytesOf("{}");
  URLRequest plain = request_;
  plain.HTTPShouldHandleCookies = false;
  delivery::readResponse(plain, 2, delegate, response,
                         delivery::ResponseSinks{&jar_, chosen, 1763800000});
  EXPECT_EQ(delegate->store->objectForKey(TelvoUUIDCookieKey)->at("Value"), "u-9");
  EXPECT_FALSE(defaults_->objectForKey(TelvoUUIDCookieKey).has_value());
  // The request does not handle cookies: the jar stays empty.
  EXPECT_TRUE(jar_.cookiesForURL(*request_.url).empty());

  answer(request_, 2, delegate, "{}", {{"Set-Cookie", "jarred=1; Path=/"}});
  auto jarred = jar_.cookiesForURL(*request_.url);
  ASSERT_EQ(jarred.size(), 1u);
  EXPECT_EQ(jarred[0].name(), "jarred");
}

}  // namespace
}  // namespace telvo
