// The start-up exchange: configuration fetch, hello, and every transport
// answer.
#include <cstdio>

#include "config/hello.h"
#include "core/telvo_impl.h"
#include "encoding/json_text.h"
#include "telvo/clock.h"
#include "telvo/device.h"
#include "telvo/http_cookie.h"
#include "telvo/log.h"
#include "telvo/notification_center.h"
#include "telvo/user_defaults.h"

namespace telvo {

void Telvo::Impl::getConfigs() {
  std::shared_ptr<TelvoConfig> current;
  {
    std::lock_guard<std::mutex> lock(mutex);
    current = config;
  }
  std::optional<URL> location;
  if (current) location = current->configURL();
  platform.transport->sendRequest(
      configuration::configurationRequest(std::move(location)), kConfigurationContext,
      options.retry ? startupDelegate(kConfigurationContext) : self());
}

void Telvo::Impl::sendHello() {
  std::shared_ptr<const TelvoConfig> currentConfig;
  std::shared_ptr<const TelvoMasterConfig> master;
  std::string propertyName;
  {
    std::lock_guard<std::mutex> lock(mutex);
    currentConfig = config;
    master = masterConfig;
    propertyName = property;
  }
  if (!currentConfig || !master) {
    log("Telvo: hello not sent: no configuration yet");
    return;
  }
  const Device& device = *platform.device;
  configuration::HelloRequest hello = configuration::makeHelloRequest(
      propertyName, *currentConfig, *master,
      configuration::DeviceDescription{device.machine(), device.model(),
                                       device.identifierForVendor()},
      platform.userDefaults->objectForKey(TelvoUUIDCookieKey));
  if (!hello.request) {
    log("Telvo: hello not sent: " + hello.missing + " is not set; the client stays " +
        "uninitialised");
    return;
  }
  if (debugging()) log("Hello call payload: " + hello.payload);
  HTTPCookieStorage::sharedHTTPCookieStorage().setCookieAcceptPolicy(
      HTTPCookieAcceptPolicy::Always);
  if (hello.storedCookieSkipped) {
    log("Telvo: the stored service cookie cannot be rebuilt; hello is sent without it");
  }
  platform.transport->sendRequest(std::move(*hello.request), kHelloContext,
                                  options.retry ? startupDelegate(kHelloContext) : self());
}

void Telvo::Impl::requestDidReceiveResult(const std::optional<Json>& result,
                                          std::int32_t context) {
  // The transport's thread: nothing may escape from here.
  try {
    if (context == kConfigurationContext) {
      handleConfiguration(result);
      return;
    }
    if (context == kHelloContext) handleHello(result);
    if (debugging()) log("Received response: " + encoding::jsonOrNull(result));
  } catch (const std::exception& e) {
    log(std::string("Telvo: answer to request ") + std::to_string(context) +
        " dropped: " + e.what());
  } catch (...) {
    log("Telvo: answer to request " + std::to_string(context) + " dropped");
  }
}

void Telvo::Impl::handleConfiguration(const std::optional<Json>& result) {
  std::shared_ptr<const TelvoMasterConfig> master;
  try {
    master = TelvoMasterConfig::configFromDictionary(result, owner.environment());
  } catch (const std::exception& e) {
    log(std::string("Telvo: the configuration document cannot be read: ") + e.what() +
        "; the client stays unconfigured");
    return;
  }
  setMasterConfig(master);
  if (debugging()) log("Master Config: " + master->description());
  if (master->enabled()) {
    sendHello();
  } else if (options.retry) {
    dropEarlyEvents("the configuration disables reporting");
  }
}

void Telvo::Impl::handleHello(const std::optional<Json>& result) {
  if (auto answer = configuration::readHelloAnswer(result)) {
    // Events accepted under the old session are captured with it.
    drainPendingEvents();
    {
      std::lock_guard<std::mutex> lock(mutex);
      sessionID = answer->sessionId;
    }
    throttled.store(answer->throttled, std::memory_order_release);

    // Observers see the new session id before the clock offset and the
    // initialised flag change.
    try {
      platform.notificationCenter->postNotificationName(TelvoSessionIDReceivedNotification,
                                                        *answer->sessionId);
    } catch (const std::exception& e) {
      log(std::string("Telvo: a TelvoSessionIDReceived observer threw: ") + e.what());
    }
    if (debugging()) {
      log("Hello result: " + encoding::dumpJson(*result));
      char text[64];
      std::snprintf(text, sizeof text, "Now timestamp from telvo lib: %f",
                    platform.clock->now() * 1000.0);
      log(text);
    }
    double delta = 0;
    if (answer->serviceMilliseconds) {
      delta = configuration::timeStampDelta(platform.clock->now(), *answer->serviceMilliseconds);
    } else {
      log("Telvo: the hello answer's \"timestamp\" is not a usable time; events keep the "
          "device's clock");
    }
    timeStampDelta.store(delta, std::memory_order_release);
    if (options.retry) {
      if (answer->throttled) dropEarlyEvents("the service throttles this client");
      correctEarlyEvents(delta);
      // What an earlier run left on disk goes first, once; a flush waiting
      // for initialisation then waits for it too.
      if (spool && !replayStarted.exchange(true)) {
        platform.mainQueue->post([self = self()] { self->_impl->replaySpool(); });
      }
    }
    initialized.store(true, std::memory_order_release);
    // What the host sent before the answer goes now, under this session.
    if (options.retry) {
      dumpEvents();
      { std::lock_guard<std::mutex> lock(initializedMutex); }
      initializedSignal.notify_all();
    }

    if (auto host = owner.delegate()) {
      if (host->respondsToTelvoInitialized()) {
        try {
          host->telvoInitialized();
        } catch (const std::exception& e) {
          log(std::string("Telvo: the delegate's telvoInitialized threw: ") + e.what());
        }
      }
    }
  }
  std::shared_ptr<const TelvoMasterConfig> master;
  {
    std::lock_guard<std::mutex> lock(mutex);
    master = masterConfig;
  }
  if (master && master->batchMode() == 0) startTimer();
  if (debugging()) log("Received Hello response");
}

}  // namespace telvo
