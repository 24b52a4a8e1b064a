// The start-up exchange: configuration fetch, hello, and every transport
// answer.
#include <cmath>
#include <cstdio>

#include "core/json_text.h"
#include "telvo/clock.h"
#include "telvo/device.h"
#include "telvo/envelope.h"
#include "telvo/http_cookie.h"
#include "telvo/log.h"
#include "telvo/notification_center.h"
#include "telvo/telvo.h"
#include "telvo/url.h"
#include "telvo/user_defaults.h"

namespace telvo {

void Telvo::getConfigs() {
  auto currentConfig = config();
  std::optional<URL> location;
  if (currentConfig) location = currentConfig->configURL();
  _transport->sendRequest(URLRequest(std::move(location), kRequestCachePolicy, kRequestTimeout), 0,
                          shared_from_this());
}

void Telvo::sendHello() {
  std::shared_ptr<const TelvoConfig> currentConfig;
  std::shared_ptr<const TelvoMasterConfig> master;
  std::string propertyName;
  {
    std::lock_guard<std::mutex> lock(_mutex);
    currentConfig = _config;
    master = _masterConfig;
    propertyName = _property;
  }
  if (!currentConfig || !master) {
    log("Telvo: hello not sent: no configuration yet");
    return;
  }
  const std::string vendorId = _device->identifierForVendor();
  const std::string machine = _device->machine();

  // Every hello value is text the service needs; an absent one would make a
  // payload the service cannot use, so the client stays uninitialised instead.
  const char* missing = nullptr;
  if (!currentConfig->appName())
    missing = "appName";
  else if (!currentConfig->appVersion())
    missing = "appVersion";
  else if (!currentConfig->platform())
    missing = "platform";
  else if (vendorId.empty())
    missing = "the device's vendor identifier";
  else if (master->telvoUserIdEnabled() && !master->telvoUserIdHash())
    missing = "telvoUserIdHash";
  if (missing) {
    log(std::string("Telvo: hello not sent: ") + missing + " is not set; the client stays " +
        "uninitialised");
    return;
  }

  Json payload = Json::object();
  payload["propertyName"] = propertyName;
  payload["applicationName"] = *currentConfig->appName();
  payload["applicationVersion"] = *currentConfig->appVersion();
  payload["platformName"] = *currentConfig->platform();
  // A fixed device class, whatever the device is: the service expects it.
  payload["deviceType"] = "settop";
  // The hardware model code goes in "deviceVersion", the model name in "deviceModel".
  payload["deviceVersion"] = machine;
  payload["clientDeviceId"] = vendorId;
  payload["deviceModel"] = _device->model();
  if (master->telvoUserIdEnabled()) payload["telvoUUIDToken"] = *master->telvoUserIdHash();

  const std::string json = core::dumpJson(payload);
  if (debug()) log("Hello call payload: " + json);

  HTTPCookieStorage::sharedHTTPCookieStorage().setCookieAcceptPolicy(
      HTTPCookieAcceptPolicy::Always);

  URLRequest request = envelopeRequest(
      core::textOrNull(master->servicesUrl()) + core::textOrNull(master->helloApi()), json);
  request.HTTPShouldHandleCookies = true;

  if (auto stored = _userDefaults->objectForKey(TelvoUUIDCookieKey)) {
    if (auto cookie = HTTPCookie::cookieWithProperties(*stored)) {
      // The stored cookie replaces every header set above: such a hello goes
      // out with the "Cookie" field alone.
      request.HTTPShouldHandleCookies = false;
      request.setAllHTTPHeaderFields(HTTPCookie::requestHeaderFieldsWithCookies({*cookie}));
    } else {
      log("Telvo: the stored service cookie cannot be rebuilt; hello is sent without it");
    }
  }
  _transport->sendRequest(std::move(request), 2, shared_from_this());
}

void Telvo::requestDidReceiveResult(const URLRequest&, const std::optional<Json>& result,
                                    std::int32_t context) {
  // The transport's thread: nothing may escape from here.
  try {
    if (context == 0) {
      handleConfiguration(result);
      return;
    }
    if (context == 2) handleHello(result);
    if (debug()) log("Received response: " + core::jsonOrNull(result));
  } catch (const std::exception& e) {
    log(std::string("Telvo: answer to request ") + std::to_string(context) +
        " dropped: " + e.what());
  } catch (...) {
    log("Telvo: answer to request " + std::to_string(context) + " dropped");
  }
}

void Telvo::handleConfiguration(const std::optional<Json>& result) {
  std::shared_ptr<const TelvoMasterConfig> master;
  try {
    master = TelvoMasterConfig::configFromDictionary(result, environment());
  } catch (const std::exception& e) {
    log(std::string("Telvo: the configuration document cannot be read: ") + e.what() +
        "; the client stays unconfigured");
    return;
  }
  setMasterConfig(master);
  if (debug()) log("Master Config: " + master->description());
  if (master->enabled()) sendHello();
}

void Telvo::handleHello(const std::optional<Json>& result) {
  if (result && result->is_object() && result->contains("sessionId")) {
    const Json& answer = *result;
    auto session = std::make_shared<const Json>(answer.at("sessionId"));
    {
      std::lock_guard<std::mutex> lock(_mutex);
      _sessionID = session;
    }
    auto throttled = answer.find("throttled");
    _throttled.store(throttled != answer.end() && core::truthValue(*throttled),
                     std::memory_order_release);

    // Observers see the new session id before the clock offset and the
    // initialised flag change.
    try {
      _notificationCenter->postNotificationName(TelvoSessionIDReceivedNotification, *session);
    } catch (const std::exception& e) {
      log(std::string("Telvo: a TelvoSessionIDReceived observer threw: ") + e.what());
    }
    if (debug()) {
      log("Hello result: " + core::dumpJson(answer));
      char text[64];
      std::snprintf(text, sizeof text, "Now timestamp from telvo lib: %f", _clock->now() * 1000.0);
      log(text);
    }
    auto timestamp = answer.find("timestamp");
    const double service = timestamp == answer.end() ? 0.0 : core::numberValue(*timestamp);
    _timeStampDelta.store(std::round(_clock->now() * 1000.0 - service), std::memory_order_release);
    _initialized.store(true, std::memory_order_release);

    if (auto host = delegate()) {
      if (host->respondsToTelvoInitialized()) {
        try {
          host->telvoInitialized();
        } catch (const std::exception& e) {
          log(std::string("Telvo: the delegate's telvoInitialized threw: ") + e.what());
        }
      }
    }
  }
  auto master = masterConfig();
  if (master && master->batchMode() == 0) startTimer(nullptr);
  if (debug()) log("Received Hello response");
}

}  // namespace telvo
