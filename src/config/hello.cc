#include "config/hello.h"

#include <cmath>

#include "encoding/envelope_request.h"
#include "encoding/json_text.h"
#include "telvo/envelope.h"
#include "telvo/http_cookie.h"

namespace telvo {
namespace configuration {

using encoding::textOrNull;

namespace {

// A present setting as a hello member: its text, or JSON null.
Json member(const std::optional<std::string>& value) {
  return value ? Json(*value) : Json(nullptr);
}

}  // namespace

std::optional<URL> configurationLocation(const TelvoConfig& config) {
  return URLWithURLStringConversion(
      textOrNull(config.configBaseUrl(), config.holdsNull("configBaseUrl")) +
      textOrNull(config.appName(), config.holdsNull("appName")) + "/" +
      textOrNull(config.site(), config.holdsNull("site")) + "/" + TelvoConfigFile);
}

URLRequest configurationRequest(std::optional<URL> location) {
  return URLRequest(std::move(location), kRequestCachePolicy, kRequestTimeout);
}

HelloRequest makeHelloRequest(const std::string& property, const TelvoConfig& config,
                              const TelvoMasterConfig& master, const DeviceDescription& device,
                              const std::optional<Json>& storedCookie) {
  HelloRequest hello;
  // Every hello value is text the service needs; an absent one would make a
  // payload the service cannot use.
  // A setting that holds a JSON null is present: it goes out as null.
  auto absent = [&config](const char* property, const std::optional<std::string>& value) {
    return !value && !config.holdsNull(property);
  };
  if (absent("appName", config.appName()))
    hello.missing = "appName";
  else if (absent("appVersion", config.appVersion()))
    hello.missing = "appVersion";
  else if (absent("platform", config.platform()))
    hello.missing = "platform";
  else if (device.identifierForVendor.empty())
    hello.missing = "the device's vendor identifier";
  else if (master.telvoUserIdEnabled() && !master.telvoUserIdHash() &&
           !master.holdsNull("telvoUserIdHash"))
    hello.missing = "telvoUserIdHash";
  if (!hello.missing.empty()) return hello;

  Json payload = Json::object();
  payload["propertyName"] = property;
  payload["applicationName"] = member(config.appName());
  payload["applicationVersion"] = member(config.appVersion());
  payload["platformName"] = member(config.platform());
  // A fixed device class, whatever the device is: the service expects it.
  payload["deviceType"] = "settop";
  // The hardware model code goes in "deviceVersion", the model name in "deviceModel".
  payload["deviceVersion"] = device.machine;
  payload["clientDeviceId"] = device.identifierForVendor;
  payload["deviceModel"] = device.model;
  if (master.telvoUserIdEnabled()) payload["telvoUUIDToken"] = member(master.telvoUserIdHash());
  hello.payload = encoding::dumpJson(payload);

  URLRequest request = encoding::envelopeRequest(
      textOrNull(master.servicesUrl(), master.holdsNull("servicesUrl")) +
          textOrNull(master.helloApi(), master.holdsNull("helloApi")),
      hello.payload);
  request.HTTPShouldHandleCookies = true;
  if (storedCookie) {
    if (auto cookie = HTTPCookie::cookieWithProperties(*storedCookie)) {
      // The stored cookie replaces every header set above: such a hello goes
      // out with the "Cookie" field alone.
      request.HTTPShouldHandleCookies = false;
      request.setAllHTTPHeaderFields(HTTPCookie::requestHeaderFieldsWithCookies({*cookie}));
    } else {
      hello.storedCookieSkipped = true;
    }
  }
  hello.request = std::move(request);
  return hello;
}

std::optional<HelloAnswer> readHelloAnswer(const std::optional<Json>& result) {
  if (!result || !result->is_object()) return std::nullopt;
  auto session = result->find("sessionId");
  if (session == result->end()) return std::nullopt;
  HelloAnswer answer;
  answer.sessionId = std::make_shared<const Json>(*session);
  auto throttled = result->find("throttled");
  answer.throttled = throttled != result->end() && encoding::truthValue(*throttled);
  auto timestamp = result->find("timestamp");
  const double service = timestamp == result->end() ? 0.0 : encoding::numberValue(*timestamp);
  if (!std::isfinite(service) || std::fabs(service) > kMaxServiceMilliseconds) {
    answer.serviceMilliseconds = std::nullopt;
  } else {
    answer.serviceMilliseconds = service;
  }
  return answer;
}

double timeStampDelta(double nowSeconds, double serviceMilliseconds) {
  const double delta = std::round(nowSeconds * 1000.0 - serviceMilliseconds);
  return std::isfinite(delta) ? delta : 0.0;
}

}  // namespace configuration
}  // namespace telvo
