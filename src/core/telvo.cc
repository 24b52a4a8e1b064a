// The client's lifecycle and its properties.
#include "telvo/telvo.h"

#include <cmath>
#include <cstdio>
#include <iterator>
#include <utility>

#include "core/event_queue.h"
#include "core/json_text.h"
#include "telvo/clock.h"
#include "telvo/device.h"
#include "telvo/envelope.h"
#include "telvo/log.h"
#include "telvo/notification_center.h"
#include "telvo/url.h"
#include "telvo/user_defaults.h"

namespace telvo {

struct Telvo::Private {};

std::shared_ptr<Telvo> Telvo::create(std::shared_ptr<TelvoConfig> config, std::string property,
                                     std::string environment) {
  if (!config) {
    log("Telvo: cannot create a client without a configuration (config is null)");
    return nullptr;
  }
  auto client =
      std::make_shared<Telvo>(Private{}, config, std::move(property), std::move(environment));

  // Observers hold the client weakly: they must not keep it alive, and a post
  // racing with destruction finds nothing to call.
  std::weak_ptr<Telvo> weak = client;
  auto stop = [weak](const Notification& notification) {
    if (auto self = weak.lock()) self->stopTimer(&notification);
  };
  const void* observer = client.get();
  client->_notificationCenter->addObserver(observer, UIApplicationDidEnterBackgroundNotification,
                                           stop);
  client->_notificationCenter->addObserver(observer, UIApplicationWillTerminateNotification, stop);
  client->_notificationCenter->addObserver(observer, UIApplicationWillEnterForegroundNotification,
                                           [weak](const Notification& n) {
                                             if (auto self = weak.lock()) self->startTimer(&n);
                                           });

  const std::string location = core::textOrNull(config->configBaseUrl()) +
                               core::textOrNull(config->appName()) + "/" +
                               core::textOrNull(config->site()) + "/" + TelvoConfigFile;
  config->setConfigURL(URLWithURLStringConversion(location));

  client->setDebug(false);
  client->_timeStampDelta.store(0);
  {
    std::lock_guard<std::mutex> lock(client->_mutex);
    client->_sessionID = std::make_shared<const Json>("");
  }
  client->setPostCount(0);
  client->_initialized.store(false);
  client->_throttled.store(false);

  client->getConfigs();
  return client;
}

Telvo::Telvo(Private, std::shared_ptr<TelvoConfig> config, std::string property,
             std::string environment)
    : _mainQueue(mainQueue()),
      _backgroundQueue(backgroundQueue()),
      _clock(Clock::defaultClock()),
      _transport(TelvoTransport::sharedTransport()),
      _notificationCenter(NotificationCenter::defaultCenter()),
      _userDefaults(UserDefaults::standardUserDefaults()),
      _device(Device::currentDevice()),
      _sessionID(std::make_shared<const Json>("")),
      _config(std::move(config)),
      _environment(std::move(environment)),
      _property(std::move(property)),
      _queue(std::make_unique<core::EventQueue>()) {}

Telvo::~Telvo() {
  std::shared_ptr<Timer> timer;
  {
    std::lock_guard<std::mutex> lock(_mutex);
    timer = std::move(_batchTimer);
  }
  if (timer) timer->invalidate();
  _notificationCenter->removeObserver(this);
}

std::optional<Bytes> Telvo::buildTelvoJsonParameter(std::string_view json) const {
  return telvo::buildTelvoJsonParameter(json);
}

std::string Telvo::description() const {
  char text[64];
  std::snprintf(text, sizeof text, "<Telvo: %p>", static_cast<const void*>(this));
  return text;
}

double Telvo::serviceMilliseconds() const {
  // std::round rounds half-way cases away from zero.
  return std::round(_clock->now() * 1000.0) - _timeStampDelta.load(std::memory_order_relaxed);
}

URLRequest Telvo::envelopeRequest(const std::string& address, std::string_view json) {
  URLRequest request(URLWithURLStringConversion(address), kRequestCachePolicy, kRequestTimeout);
  request.HTTPMethod = "POST";
  request.setValue(kEnvelopeContentType, "Content-Type");
  request.setValue(kEnvelopeContentEncoding, "Content-Encoding");
  request.HTTPBody = telvo::buildTelvoJsonParameter(json);
  return request;
}

Telvo::Snapshot Telvo::snapshot() const {
  std::lock_guard<std::mutex> lock(_mutex);
  return Snapshot{_config, _masterConfig, _sessionID};
}

std::shared_ptr<const Json> Telvo::sessionPointer() const {
  std::lock_guard<std::mutex> lock(_mutex);
  return _sessionID;
}

void Telvo::setMasterConfig(std::shared_ptr<const TelvoMasterConfig> master) {
  std::lock_guard<std::mutex> lock(_mutex);
  _enabled.store(master && master->enabled(), std::memory_order_release);
  _masterConfig = std::move(master);
}

// --- Properties.

std::shared_ptr<TelvoConfig> Telvo::config() const {
  std::lock_guard<std::mutex> lock(_mutex);
  return _config;
}
void Telvo::setConfig(std::shared_ptr<TelvoConfig> config) {
  std::lock_guard<std::mutex> lock(_mutex);
  _config = std::move(config);
}
std::string Telvo::environment() const {
  std::lock_guard<std::mutex> lock(_mutex);
  return _environment;
}
void Telvo::setEnvironment(std::string environment) {
  std::lock_guard<std::mutex> lock(_mutex);
  _environment = std::move(environment);
}
std::string Telvo::property() const {
  std::lock_guard<std::mutex> lock(_mutex);
  return _property;
}
void Telvo::setProperty(std::string property) {
  std::lock_guard<std::mutex> lock(_mutex);
  _property = std::move(property);
}
bool Telvo::isInitialized() const { return _initialized.load(std::memory_order_acquire); }
void Telvo::setInitialized(bool initialized) {
  _initialized.store(initialized, std::memory_order_release);
}
bool Telvo::isThrottled() const { return _throttled.load(std::memory_order_acquire); }
Json Telvo::sessionID() const { return *sessionPointer(); }
double Telvo::timeStampDelta() const { return _timeStampDelta.load(std::memory_order_acquire); }
std::int64_t Telvo::postCount() const { return _postCount.load(std::memory_order_relaxed); }
void Telvo::setPostCount(std::int64_t postCount) {
  _postCount.store(postCount, std::memory_order_relaxed);
}
std::shared_ptr<const TelvoMasterConfig> Telvo::masterConfig() const {
  std::lock_guard<std::mutex> lock(_mutex);
  return _masterConfig;
}
std::shared_ptr<Timer> Telvo::batchTimer() const {
  std::lock_guard<std::mutex> lock(_mutex);
  return _batchTimer;
}
void Telvo::setBatchTimer(std::shared_ptr<Timer> timer) {
  std::shared_ptr<Timer> previous;  // released outside the lock
  std::lock_guard<std::mutex> lock(_mutex);
  previous = std::exchange(_batchTimer, std::move(timer));
}
std::vector<Event> Telvo::batch() const { return _queue->copy(); }
void Telvo::setBatch(std::vector<Event> batch) { _queue->replace(batch); }
bool Telvo::debug() const { return _debug.load(std::memory_order_relaxed); }
void Telvo::setDebug(bool debug) { _debug.store(debug, std::memory_order_relaxed); }
std::shared_ptr<TelvoDelegate> Telvo::delegate() const {
  std::lock_guard<std::mutex> lock(_mutex);
  return _delegate.lock();
}
void Telvo::setDelegate(std::weak_ptr<TelvoDelegate> delegate) {
  std::lock_guard<std::mutex> lock(_mutex);
  _delegate = std::move(delegate);
}

#define TELVO_HOST_SLOT(Getter, Setter, field)           \
  std::shared_ptr<void> Telvo::Getter() const {          \
    std::lock_guard<std::mutex> lock(_mutex);            \
    return field;                                        \
  }                                                      \
  void Telvo::Setter(std::shared_ptr<void> value) {      \
    std::lock_guard<std::mutex> lock(_mutex);            \
    value.swap(field); /* the old value dies unlocked */ \
  }

TELVO_HOST_SLOT(managedObjectContext, setManagedObjectContext, _managedObjectContext)
TELVO_HOST_SLOT(managedObjectModel, setManagedObjectModel, _managedObjectModel)
TELVO_HOST_SLOT(persistentStoreCoordinator, setPersistentStoreCoordinator,
                _persistentStoreCoordinator)
TELVO_HOST_SLOT(NSMOCLock, setNSMOCLock, _NSMOCLock)
TELVO_HOST_SLOT(NSPSCLock, setNSPSCLock, _NSPSCLock)

#undef TELVO_HOST_SLOT

}  // namespace telvo
