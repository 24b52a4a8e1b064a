// The start-up exchange's value-level steps with plain values: the
// configuration location and fetch, the hello request, the hello answer.
#include "config/hello.h"

#include <gtest/gtest.h>

#include <string_view>

#include "telvo/envelope.h"

namespace telvo {
namespace {

using configuration::DeviceDescription;
using configuration::makeHelloRequest;
using configuration::readHelloAnswer;

TelvoConfig config() {
  return TelvoConfig("linux", "12", "den", "3.0", "Player", "http://cdn.example.test/config/");
}

TelvoMasterConfig master(bool userIdEnabled = false,
                         std::optional<std::string> hash = std::nullopt) {
  TelvoMasterConfig::Settings settings;
  settings.enabled = true;
  settings.servicesUrl = "http://svc.example.test";
  settings.helloApi = "/api/hello";
  settings.telvoUserIdEnabled = userIdEnabled;
  settings.telvoUserIdHash = std::move(hash);
  return TelvoMasterConfig(settings);
}

const DeviceDescription kDevice{"armv7l", "Set-top box", "0A1B2C3D-0000-4000-8000-00000000ABCD"};

Json decoded(const URLRequest& request) {
  const Bytes& body = *request.HTTPBody;
  auto envelope = decodeTelvoJsonParameter(
      std::string_view(reinterpret_cast<const char*>(body.data()), body.size()));
  return envelope.ok() ? envelope.document : Json();
}

TEST(ConfigurationFetch, LocationJoinsThePartsAndUpgradesToHttps) {
  TelvoConfig joined = config();
  EXPECT_EQ(configuration::configurationLocation(joined)->absoluteString(),
            "https://cdn.example.test/config/Player/den/telvoanalytics.json");
  joined.setSite(std::nullopt);
  EXPECT_EQ(configuration::configurationLocation(joined)->absoluteString(),
            "https://cdn.example.test/config/Player/(null)/telvoanalytics.json");

  URLRequest fetch = configuration::configurationRequest(configuration::configurationLocation(joined));
  EXPECT_EQ(fetch.HTTPMethod, "GET");
  EXPECT_EQ(fetch.cachePolicy, kRequestCachePolicy);
  EXPECT_EQ(fetch.timeoutInterval, kRequestTimeout);
  EXPECT_FALSE(fetch.HTTPBody);
  EXPECT_FALSE(configuration::configurationRequest(std::nullopt).url);
}

TEST(HelloRequest, CarriesTheIdentityAndTheTokenWhenEnabled) {
  auto plain = makeHelloRequest("web", config(), master(), kDevice, std::nullopt);
  ASSERT_TRUE(plain.request) << plain.missing;
  EXPECT_EQ(plain.request->url->absoluteString(), "https://svc.example.test/api/hello");
  EXPECT_EQ(plain.request->HTTPMethod, "POST");
  EXPECT_TRUE(plain.request->HTTPShouldHandleCookies);
  EXPECT_EQ(plain.request->valueForHTTPHeaderField("Content-Type"), kEnvelopeContentType);
  const Json expected = {{"propertyName", "web"},          {"applicationName", "Player"},
                         {"applicationVersion", "3.0"},     {"platformName", "linux"},
                         {"deviceType", "settop"},          {"deviceVersion", "armv7l"},
                         {"clientDeviceId", kDevice.identifierForVendor},
                         {"deviceModel", "Set-top box"}};
  EXPECT_EQ(decoded(*plain.request), expected);
  EXPECT_EQ(Json::parse(plain.payload), expected);

  auto withToken = makeHelloRequest("web", config(), master(true, "H"), kDevice, std::nullopt);
  ASSERT_TRUE(withToken.request);
  EXPECT_EQ(decoded(*withToken.request)["telvoUUIDToken"], "H");
}

TEST(HelloRequest, NamesTheFirstAbsentValue) {
  struct Case {
    const char* expected;
    std::function<void(TelvoConfig&)> change;
    DeviceDescription device;
    TelvoMasterConfig master;
  };
  const Case cases[] = {
      {"appName", [](TelvoConfig& c) { c.setAppName(std::nullopt); }, kDevice, master()},
      {"appVersion", [](TelvoConfig& c) { c.setAppVersion(std::nullopt); }, kDevice, master()},
      {"platform", [](TelvoConfig& c) { c.setPlatform(std::nullopt); }, kDevice, master()},
      {"the device's vendor identifier", [](TelvoConfig&) {}, {"x86_64", "Linux", ""}, master()},
      {"telvoUserIdHash", [](TelvoConfig&) {}, kDevice, master(true)},
  };
  for (const auto& c : cases) {
    TelvoConfig changed = config();
    c.change(changed);
    auto hello = makeHelloRequest("web", changed, c.master, c.device, std::nullopt);
    EXPECT_FALSE(hello.request) << c.expected;
    EXPECT_EQ(hello.missing, c.expected);
  }
}

TEST(HelloRequest, AStoredCookieReplacesEveryHeaderAndOneThatCannotBeRebuiltIsSkipped) {
  const Json stored = {{"Name", "telvoUUID"}, {"Value", "u-1"}, {"Domain", "svc"}, {"Path", "/"}};
  auto hello = makeHelloRequest("web", config(), master(), kDevice, stored);
  ASSERT_TRUE(hello.request);
  EXPECT_FALSE(hello.storedCookieSkipped);
  EXPECT_FALSE(hello.request->HTTPShouldHandleCookies);
  EXPECT_EQ(hello.request->allHTTPHeaderFields, (HTTPHeaderFields{{"Cookie", "telvoUUID=u-1"}}));
  EXPECT_EQ(decoded(*hello.request)["propertyName"], "web");

  auto broken = makeHelloRequest("web", config(), master(), kDevice, Json{{"Name", 5}});
  ASSERT_TRUE(broken.request);
  EXPECT_TRUE(broken.storedCookieSkipped);
  EXPECT_TRUE(broken.request->HTTPShouldHandleCookies);
  EXPECT_EQ(broken.request->allHTTPHeaderFields.size(), 2u);  // the content headers
}

TEST(HelloAnswer, ReadsSessionThrottlingAndServiceClock) {
  auto answer = readHelloAnswer(Json{{"sessionId", {{"n", 1}}},
                                     {"throttled", "Yes"},
                                     {"timestamp", "1700000000123.5"}});
  ASSERT_TRUE(answer);
  EXPECT_EQ(*answer->sessionId, (Json{{"n", 1}}));
  EXPECT_TRUE(answer->throttled);
  EXPECT_EQ(answer->serviceMilliseconds, 1700000000123.5);

  auto bare = readHelloAnswer(Json{{"sessionId", nullptr}});
  ASSERT_TRUE(bare);
  EXPECT_TRUE(bare->sessionId->is_null());
  EXPECT_FALSE(bare->throttled);
  EXPECT_EQ(bare->serviceMilliseconds, 0);
  for (const auto& throttled : {Json(0), Json("no"), Json("0"), Json::array()}) {
    EXPECT_FALSE(readHelloAnswer(Json{{"sessionId", "s"}, {"throttled", throttled}})->throttled)
        << throttled;
  }

  EXPECT_FALSE(readHelloAnswer(std::nullopt));
  EXPECT_FALSE(readHelloAnswer(Json::array({"sessionId"})));
  EXPECT_FALSE(readHelloAnswer(Json{{"session", "s"}}));
}

TEST(HelloAnswer, ClockOffsetRoundsHalfAwayFromZero) {
  EXPECT_EQ(configuration::timeStampDelta(1700000000.0, 1699999990000.0), 10000);
  EXPECT_EQ(configuration::timeStampDelta(1.0, 999.5), 1);   // 0.5 rounds up
  EXPECT_EQ(configuration::timeStampDelta(1.0, 1000.5), -1);  // -0.5 rounds down
}

}  // namespace
}  // namespace telvo
