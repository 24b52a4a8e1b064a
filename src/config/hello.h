// The start-up exchange as value-level steps: where the configuration
// document lives, the request that fetches it, the hello request built from
// the configurations, the device and the stored cookie, and the hello answer
// read into a value. Pure functions of their arguments; any thread.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "telvo/telvo_config.h"
#include "telvo/telvo_master_config.h"
#include "telvo/types.h"
#include "telvo/url.h"
#include "telvo/url_request.h"

namespace telvo {
namespace configuration {

// configBaseUrl + appName + "/" + site + "/" + TelvoConfigFile, an absent
// part reading "(null)"; "http://" becomes "https://". Nothing where that is
// not a URL.
std::optional<URL> configurationLocation(const TelvoConfig& config);

// The GET of the configuration document (no URL where `location` is none).
URLRequest configurationRequest(std::optional<URL> location);

// What the hello reports about the device.
struct DeviceDescription {
  std::string machine;              // hardware model code
  std::string model;                // model name
  std::string identifierForVendor;  // empty: not known
};

struct HelloRequest {
  // Set when the hello can be sent.
  std::optional<URLRequest> request;
  // The JSON text the request carries.
  std::string payload;
  // Otherwise, the name of the absent value that stops it.
  std::string missing;
  // A stored cookie was given but could not be rebuilt; the hello goes
  // without it.
  bool storedCookieSkipped = false;
};

// The hello for `property`: {"propertyName", "applicationName",
// "applicationVersion", "platformName", "deviceType": "settop",
// "deviceVersion": machine, "clientDeviceId": vendor identifier,
// "deviceModel": model, and "telvoUUIDToken" when the user identifier is
// enabled}, posted to servicesUrl + helloApi with cookie handling on. A
// stored cookie that can be rebuilt replaces every header field with its
// "Cookie" field and turns cookie handling off.
HelloRequest makeHelloRequest(const std::string& property, const TelvoConfig& config,
                              const TelvoMasterConfig& master, const DeviceDescription& device,
                              const std::optional<Json>& storedCookie);

// Service times beyond this many milliseconds from 1970 (about 285,000
// years; the largest range in which every whole millisecond is exact) are
// not times.
inline constexpr double kMaxServiceMilliseconds = 9007199254740992.0;  // 2^53

// A hello answer the client takes: an object with a "sessionId".
struct HelloAnswer {
  std::shared_ptr<const Json> sessionId;
  // "throttled" read as a truth value; false when absent.
  bool throttled = false;
  // "timestamp": the service's clock in milliseconds (a number, or text
  // holding one); 0 when absent. Nothing where it is not a finite number
  // within kMaxServiceMilliseconds of 1970 (NaN, 1e300, "1e400"): the
  // client then keeps its own clock.
  std::optional<double> serviceMilliseconds = 0.0;
};

// Nothing where the result is not an object with a "sessionId".
std::optional<HelloAnswer> readHelloAnswer(const std::optional<Json>& result);

// Device milliseconds minus service milliseconds, rounded half away from 0;
// 0 where the result would not be a finite number.
double timeStampDelta(double nowSeconds, double serviceMilliseconds);

}  // namespace configuration
}  // namespace telvo
