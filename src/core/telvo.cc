// The client's front: creation, and the operations and properties forwarded
// to its implementation.
#include "telvo/telvo.h"

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <random>
#include <typeinfo>
#include <utility>

#include "config/hello.h"
#include "core/shutdown.h"
#include "core/telvo_impl.h"
#include "encoding/json_text.h"
#include "platform/wall_clock.h"
#include "telvo/clock.h"
#include "telvo/envelope.h"
#include "telvo/log.h"
#include "telvo/notification_center.h"

namespace telvo {

namespace {
bool isSystemClock(const Clock& clock) { return typeid(clock) == typeid(SystemClock); }
}  // namespace

Telvo::Impl::Impl(Telvo& owner, const Platform& platform, const ClientOptions& options,
                  std::shared_ptr<TelvoConfig> config, std::string property,
                  std::string environment)
    : owner(owner),
      platform(platform.withDefaults()),
      systemClock(isSystemClock(*this->platform.clock)),
      options(options),
      backoff(options.retryInitialSeconds, options.retryMaxSeconds,
              options.retrySeed != 0 ? options.retrySeed : std::random_device{}()),
      sessionID(std::make_shared<const Json>("")),
      config(config),
      environment(std::move(environment)),
      property(std::move(property)) {
  setCaptureConfig(std::move(config));
  // Starts measuring the tick rate, so that the first events find it known.
  if (systemClock) ::telvo::platform::WallClock::now();
}

Telvo::Telvo(std::shared_ptr<TelvoConfig> config, std::string property, std::string environment,
             const Platform& platform, const ClientOptions& options)
    : _impl(std::make_unique<Impl>(*this, platform, options, std::move(config),
                                   std::move(property), std::move(environment))) {}

std::shared_ptr<Telvo> Telvo::create(std::shared_ptr<TelvoConfig> config, std::string property,
                                     std::string environment) {
  return create(std::move(config), std::move(property), std::move(environment), Platform{});
}

std::shared_ptr<Telvo> Telvo::create(std::shared_ptr<TelvoConfig> config, std::string property,
                                     std::string environment, const Platform& platform) {
  return create(std::move(config), std::move(property), std::move(environment), platform,
                ClientOptions{});
}

std::shared_ptr<Telvo> Telvo::create(std::shared_ptr<TelvoConfig> config, std::string property,
                                     std::string environment, const Platform& platform,
                                     const ClientOptions& options) {
  // A null configuration gives a client without one: its fetch has no
  // location and fails, and it never becomes initialised.
  std::shared_ptr<Telvo> client(
      new Telvo(config, std::move(property), std::move(environment), platform, options));
  Impl& impl = *client->_impl;
  core::creationError().clear();
  std::string spoolError;
  if (!impl.openSpool(&spoolError)) {
    core::creationError() = "the spool cannot be opened: " + spoolError;
    log("Telvo: the client could not be created: " + core::creationError());
    return nullptr;
  }

  // Observers hold the client weakly: they must not keep it alive, and a post
  // racing with destruction finds nothing to call.
  std::weak_ptr<Telvo> weak = client;
  auto stop = [weak](const Notification& notification) {
    if (auto self = weak.lock()) self->stopTimer(&notification);
  };
  NotificationCenter& center = *impl.platform.notificationCenter;
  const void* observer = client.get();
  center.addObserver(observer, UIApplicationDidEnterBackgroundNotification, stop);
  center.addObserver(observer, UIApplicationWillTerminateNotification, stop);
  center.addObserver(observer, UIApplicationWillEnterForegroundNotification,
                     [weak](const Notification& n) {
                       if (auto self = weak.lock()) self->startTimer(&n);
                     });

  if (config) config->setConfigURL(configuration::configurationLocation(*config));

  client->setDebug(false);
  impl.timeStampDelta.store(0);
  {
    std::lock_guard<std::mutex> lock(impl.mutex);
    impl.sessionID = std::make_shared<const Json>("");
  }
  client->setPostCount(0);
  impl.initialized.store(false);
  impl.throttled.store(false);

  client->getConfigs();
  return client;
}

Telvo::~Telvo() {
  std::shared_ptr<Timer> timer;
  {
    std::lock_guard<std::mutex> lock(_impl->mutex);
    timer = std::move(_impl->batchTimer);
  }
  if (timer) timer->invalidate();
  _impl->platform.notificationCenter->removeObserver(this);
}

// --- Operations.

// After telvo::shutdown, new work is refused without a word.

void Telvo::sendEvent(const std::string& name, std::optional<Json> data) {
  if (core::stopped()) return;
  _impl->sendEvent(name, std::move(data));
}
void Telvo::sendError(Json code, std::optional<Json> details) {
  if (core::stopped()) return;
  _impl->sendError(std::move(code), std::move(details));
}
void Telvo::sendEvent(std::string_view name, std::initializer_list<Field> data) {
  if (core::stopped()) return;
  _impl->sendEvent(name, data.begin(), data.size());
}
void Telvo::sendEvent(std::string_view name, const Field* fields, std::size_t count) {
  if (core::stopped()) return;
  _impl->sendEvent(name, fields, count);
}
void Telvo::sendError(Json code, std::initializer_list<Field> details) {
  if (core::stopped()) return;
  _impl->sendError(std::move(code), details.begin(), details.size());
}
void Telvo::sendError(Json code, const Field* details, std::size_t count) {
  if (core::stopped()) return;
  _impl->sendError(std::move(code), details, count);
}
void Telvo::startTimer(const Notification*) {
  if (core::stopped()) return;
  _impl->startTimer();
}
void Telvo::stopTimer(const Notification*) { _impl->stopTimer(); }
void Telvo::timedPost(const Timer*) {
  if (core::stopped()) return;
  if (debug()) log("Dumping events on timer");
  _impl->dumpEvents();
}
void Telvo::dumpEvents() {
  if (core::stopped()) return;
  _impl->dumpEvents();
}
bool Telvo::flush(std::chrono::milliseconds timeout) {
  if (core::stopped()) return false;
  return _impl->flush(timeout);
}
void Telvo::getConfigs() {
  if (core::stopped()) return;
  _impl->getConfigs();
}
void Telvo::sendHello() {
  if (core::stopped()) return;
  _impl->sendHello();
}
void Telvo::requestDidReceiveResult(const URLRequest&, const std::optional<Json>& result,
                                    std::int32_t context) {
  _impl->requestDidReceiveResult(result, context);
}
std::shared_ptr<UserDefaults> Telvo::cookieStore() const { return _impl->platform.userDefaults; }

std::optional<Bytes> Telvo::buildTelvoJsonParameter(std::string_view json) const {
  return telvo::buildTelvoJsonParameter(json);
}

std::string Telvo::description() const {
  char text[64];
  std::snprintf(text, sizeof text, "<Telvo: %p>", static_cast<const void*>(this));
  return text;
}

// --- Properties.

namespace {

template <typename T>
T locked(std::mutex& mutex, const T& field) {
  std::lock_guard<std::mutex> lock(mutex);
  return field;
}

// The old value is released after the lock: its destructor may call out.
template <typename T>
void replaceLocked(std::mutex& mutex, T& field, T value) {
  {
    std::lock_guard<std::mutex> lock(mutex);
    std::swap(field, value);
  }
}

}  // namespace

std::shared_ptr<TelvoConfig> Telvo::config() const { return locked(_impl->mutex, _impl->config); }
void Telvo::setConfig(std::shared_ptr<TelvoConfig> config) { _impl->setConfig(std::move(config)); }
std::string Telvo::environment() const { return locked(_impl->mutex, _impl->environment); }
void Telvo::setEnvironment(std::string environment) {
  replaceLocked(_impl->mutex, _impl->environment, std::move(environment));
}
std::string Telvo::property() const { return locked(_impl->mutex, _impl->property); }
void Telvo::setProperty(std::string property) {
  replaceLocked(_impl->mutex, _impl->property, std::move(property));
}
bool Telvo::isInitialized() const { return _impl->initialized.load(std::memory_order_acquire); }
void Telvo::setInitialized(bool initialized) {
  _impl->initialized.store(initialized, std::memory_order_release);
}
bool Telvo::isThrottled() const { return _impl->throttled.load(std::memory_order_acquire); }
Json Telvo::sessionID() const { return *locked(_impl->mutex, _impl->sessionID); }
double Telvo::timeStampDelta() const {
  return _impl->timeStampDelta.load(std::memory_order_acquire);
}
std::int64_t Telvo::postCount() const { return _impl->postCount.load(std::memory_order_relaxed); }
void Telvo::setPostCount(std::int64_t postCount) {
  _impl->postCount.store(postCount, std::memory_order_relaxed);
}
std::shared_ptr<const TelvoMasterConfig> Telvo::masterConfig() const {
  return locked(_impl->mutex, _impl->masterConfig);
}
std::shared_ptr<Timer> Telvo::batchTimer() const { return locked(_impl->mutex, _impl->batchTimer); }
void Telvo::setBatchTimer(std::shared_ptr<Timer> timer) {
  replaceLocked(_impl->mutex, _impl->batchTimer, std::move(timer));
}
std::vector<Event> Telvo::batch() const {
  _impl->drainPendingEvents();
  return _impl->queue.copy();
}
void Telvo::setBatch(std::vector<Event> batch) { _impl->replaceBatch(batch); }
Stats Telvo::stats() const {
  Stats stats = _impl->counters.snapshot();
  if (_impl->spool) {
    // What the spool itself dropped or found damaged since it was opened.
    const auto counts = _impl->spool->counts();
    stats.spoolDroppedOldest = counts.droppedOldest;
    stats.spoolCorrupt += counts.corruptSkipped;
  }
  return stats;
}
const ClientOptions& Telvo::options() const { return _impl->options; }
void Telvo::networkAvailable() {
  if (core::stopped()) return;
  _impl->networkAvailable();
}
bool Telvo::debug() const { return _impl->debugging(); }
void Telvo::setDebug(bool debug) { _impl->debug.store(debug, std::memory_order_relaxed); }
std::shared_ptr<TelvoDelegate> Telvo::delegate() const {
  return locked(_impl->mutex, _impl->delegate).lock();
}
void Telvo::setDelegate(std::weak_ptr<TelvoDelegate> delegate) {
  replaceLocked(_impl->mutex, _impl->delegate, std::move(delegate));
}

#define TELVO_HOST_SLOT(Getter, Setter)                                \
  std::shared_ptr<void> Telvo::Getter() const {                        \
    return locked(_impl->mutex, _impl->Getter);                        \
  }                                                                    \
  void Telvo::Setter(std::shared_ptr<void> value) {                    \
    replaceLocked(_impl->mutex, _impl->Getter, std::move(value));      \
  }

TELVO_HOST_SLOT(managedObjectContext, setManagedObjectContext)
TELVO_HOST_SLOT(managedObjectModel, setManagedObjectModel)
TELVO_HOST_SLOT(persistentStoreCoordinator, setPersistentStoreCoordinator)
TELVO_HOST_SLOT(NSMOCLock, setNSMOCLock)
TELVO_HOST_SLOT(NSPSCLock, setNSPSCLock)

#undef TELVO_HOST_SLOT

// --- Shared helpers of the implementation.

Telvo::Impl::Snapshot Telvo::Impl::snapshot() const {
  std::lock_guard<std::mutex> lock(mutex);
  return Snapshot{config, masterConfig, sessionID};
}

std::optional<Json> Telvo::Impl::applicationName(const TelvoConfig* config) {
  if (!config) return std::nullopt;
  if (config->appName()) return Json(*config->appName());
  if (config->holdsNull("appName")) return Json(nullptr);
  return std::nullopt;
}

Telvo::Impl::Locations Telvo::Impl::locations(const TelvoMasterConfig* master) {
  if (!master) return {encoding::textOrNull(std::nullopt), encoding::textOrNull(std::nullopt)};
  return {encoding::textOrNull(master->servicesUrl(), master->holdsNull("servicesUrl")),
          encoding::textOrNull(master->batchApi(), master->holdsNull("batchApi"))};
}

std::int64_t Telvo::Impl::wholeMilliseconds(double milliseconds) {
  // 2^63 is exact as a double; anything at or beyond it does not convert.
  constexpr double kLimit = 9223372036854775808.0;
  if (std::isnan(milliseconds)) return 0;
  if (milliseconds <= -kLimit) return std::numeric_limits<std::int64_t>::min();
  if (milliseconds >= kLimit) return std::numeric_limits<std::int64_t>::max();
  return static_cast<std::int64_t>(milliseconds);
}

void Telvo::Impl::setMasterConfig(std::shared_ptr<const TelvoMasterConfig> master) {
  {
    std::lock_guard<std::mutex> lock(pendingMutex);
    captureRules.countBatching = master && master->batchMode() == 1;
    captureRules.batchAmount = master ? master->batchAmount() : 0;
  }
  std::lock_guard<std::mutex> lock(mutex);
  enabled.store(master && master->enabled(), std::memory_order_release);
  masterConfig = std::move(master);
}

void Telvo::Impl::setCaptureConfig(std::shared_ptr<const TelvoConfig> config) {
  const bool priorities =
      config && config->highPriorityEvents() && !config->highPriorityEvents()->empty();
  std::lock_guard<std::mutex> lock(pendingMutex);
  captureRules.config = std::move(config);
  captureRules.priorities = priorities;
}

void Telvo::Impl::setConfig(std::shared_ptr<TelvoConfig> replacement) {
  setCaptureConfig(replacement);
  // The old value is released after the lock: its destructor may call out.
  std::lock_guard<std::mutex> lock(mutex);
  std::swap(config, replacement);
}

}  // namespace telvo
