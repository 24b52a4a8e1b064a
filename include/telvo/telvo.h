// Telvo: the analytics client a host application embeds.
//
// One client serves one reporting property in one environment. On creation it
// fetches the application's configuration document, and when the document
// enables reporting it says hello to the service; the hello answer gives it a
// session id, a throttling flag and the service's clock, and from then on the
// client is initialised. Events are stamped with the service's time, queued in
// memory and posted in batches (on a repeating timer, or every `batchAmount`
// events); errors are posted at once. By default nothing is retried and
// nothing is kept on disk except the service's cookie; ClientOptions::retry
// and spoolPath (client_options.h) opt into retries and a disk spool.
//
//   auto config = std::make_shared<telvo::TelvoConfig>(...);
//   auto client = telvo::Telvo::create(config, "property", "production");
//   client->setDelegate(myDelegate);            // told when initialised
//   client->sendEvent("play", telvo::Json{{"title", "Intro"}});
//   client->sendEvent("play", {{"title", "Intro"}, {"position", 12}});  // no Json tree
//   client->sendError(42, telvo::Json{{"where", "player"}});
//
// Threads. Every public member function may be called from any thread and
// returns without waiting for the network or the main queue. Work happens on:
//   - the calling thread: the acceptance test, the stamp and the flush
//     decision of each event (postCount changes here, in acceptance order);
//   - the platform's main queue: the capture of accepted events into the
//     queue, the flush and the batch timer;
//   - the platform's background queue: building error reports;
//   - the transport's thread: configuration and hello answers, the
//     "TelvoSessionIDReceived" notification and the delegate's
//     telvoInitialized.
// The platform (main and background queues, clock, transport, notification
// centre, user defaults, device) is given once, in create, or filled there
// from the process defaults; the client uses nothing else (see platform.h).
//
// Ownership. Clients are always owned by shared_ptr. Work queued for a client
// and requests in flight keep it alive until they have run; its timer and its
// notification observers do not, so releasing the last host reference
// destroys the client (stopping its timer and removing its observers). Events
// still queued at that point are lost, as they are when the process ends.
//
// Logging goes to telvo::log, only while `debug` is set (create clears it),
// except the lines that say why something the host handed over was dropped
// or could not be done (see the choices below); those are always written.
//
// Choices where the service's contract leaves room:
//   - Event data must be a JSON object (or nothing): anything else throws
//     UsageError on the caller's thread. Error details likewise.
//   - Event data holding a number JSON cannot represent (NaN, infinity) is
//     dropped at capture with a log line; nothing is queued for that call.
//   - Event data or error details given as fields with a RawJson value that
//     is not JSON (or nests more than 128 deep) throw UsageError on the
//     caller's thread, once the call has passed the acceptance test.
//   - A no-data event on a configuration without appName is dropped with a
//     log line. A setting that holds a JSON null (TelvoConfig::holdsNull,
//     TelvoMasterConfig::holdsNull) is present: events, error reports and
//     the hello carry it as null.
//   - An error report carries its code as given, a JSON null included
//     ("errorCode": null). One on a configuration without appName is dropped
//     with a log line. Non-finite numbers inside an error report are sent as
//     null.
//   - A hello that would carry an absent value (property, appName,
//     appVersion, platform, vendor identifier, the user-id token when enabled)
//     is not sent: the client logs why and stays uninitialised.
//   - A hello answer whose "timestamp" is not a finite number within 2^53 ms
//     (about 285,000 years) of 1970 - NaN, 1e300, "1e400" - is no time: the
//     offset stays 0, so events keep the device's clock, and a line is
//     logged. Stamps are always whole numbers in the 64-bit range.
//   - Answers and documents nested more than 128 arrays and objects deep
//     count as answers that do not parse.
//   - A stored service cookie that cannot be rebuilt is skipped: the hello goes
//     out without it, with its content headers, and a log line.
//   - A configuration document that cannot be read (UsageError from
//     TelvoMasterConfig) is logged and leaves the client unconfigured.
//   - The flush orders events with equal timestamps in capture order.
//   - Strings that are not valid UTF-8 are sent with U+FFFD in place of the
//     bad bytes.
#pragma once

#include "telvo/export.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "telvo/client_options.h"
#include "telvo/event.h"
#include "telvo/executor.h"
#include "telvo/field.h"
#include "telvo/platform.h"
#include "telvo/telvo_config.h"
#include "telvo/telvo_delegate.h"
#include "telvo/telvo_master_config.h"
#include "telvo/telvo_transport.h"
#include "telvo/types.h"

namespace telvo {

struct Notification;

class TELVO_API Telvo : public TelvoTransportDelegate, public std::enable_shared_from_this<Telvo> {
 public:
  // Registers for the three application notifications (entering the
  // background and terminating stop the batch timer, returning to the
  // foreground starts it), sets the start values, stores in config->configURL
  // the location configBaseUrl + appName + "/" + site + "/" + TelvoConfigFile
  // (an absent part reads "(null)"; "http://" becomes "https://"), clears
  // debug and starts the configuration fetch. A null `config` gives a client
  // without configuration: its fetch has no location and fails, so it never
  // becomes initialised. The configuration is kept, not copied: do not change it
  // afterwards. The client runs on `platform`, its null members filled from
  // the process defaults as they are now.
  static std::shared_ptr<Telvo> create(std::shared_ptr<TelvoConfig> config, std::string property,
                                       std::string environment);
  static std::shared_ptr<Telvo> create(std::shared_ptr<TelvoConfig> config, std::string property,
                                       std::string environment, const Platform& platform);
  // The same with bounds of the host's choosing (see client_options.h);
  // without them the defaults hold.
  static std::shared_ptr<Telvo> create(std::shared_ptr<TelvoConfig> config, std::string property,
                                       std::string environment, const Platform& platform,
                                       const ClientOptions& options);

  ~Telvo() override;
  Telvo(const Telvo&) = delete;
  Telvo& operator=(const Telvo&) = delete;

  // Queues one event. Dropped silently unless the client is initialised, its
  // master configuration enabled and it is not throttled (tested now, on the
  // calling thread). Also on the calling thread the call is stamped
  // ("timestamp": service-clock milliseconds, a whole number, set in the
  // data; or the data becomes {"applicationName": appName} when none is
  // given) and the flush it asks for is decided (a high-priority name, an
  // "error" event, or the count in count batching): such a flush is
  // scheduled on the main queue at once. Other events wait, without waking
  // any thread, until the next flush (the timer's, or any other) captures
  // them in the order they were accepted. An event beyond the bounds of
  // client_options.h is dropped and counted. Throws UsageError when `data`
  // is not an object.
  void sendEvent(const std::string& name, std::optional<Json> data = std::nullopt);

  // The same with the data as a flat list of fields (see field.h), which
  // costs the caller no Json tree:
  //   client->sendEvent("play", {{"title", "Intro"}, {"position", 12}});
  // The fields are written straight into the queued text on the calling
  // thread, after the acceptance test (a refused event costs nothing more).
  // The payload is the one the Json path sends for Json{...} of the same
  // fields: where keys repeat the first wins, a "timestamp" field gives way
  // to the client's, and an empty list is no data. Keys compare as written,
  // ill-formed UTF-8 replaced by U+FFFD: of keys that differ only in such
  // bytes, the one whose bytes sort first wins, as in a Json object, so that
  // no payload repeats a member name. A number JSON cannot
  // represent drops the event with a log line. Throws UsageError when a
  // RawJson value is not JSON (checked only for an accepted event).
  void sendEvent(std::string_view name, std::initializer_list<Field> data);
  // For bindings (C and others): the `count` fields at `fields` (which may
  // be null when `count` is 0).
  void sendEvent(std::string_view name, const Field* fields, std::size_t count);

  // Posts one error report at once: {"sessionId", "data": {"applicationName",
  // "timestamp", "errorCode": code} plus every entry of `details`, which win}.
  // Dropped silently unless initialised (throttling does not stop it). Built
  // and sent from the background queue. Throws UsageError when `details` is
  // not an object.
  void sendError(Json code, std::optional<Json> details = std::nullopt);
  // The same with the details as a flat list of fields (see field.h and the
  // flat sendEvent): equal keys, the first wins; an empty list is no
  // details; non-finite numbers are sent as null. Throws UsageError when a
  // RawJson value is not JSON (checked only when the report is accepted).
  void sendError(Json code, std::initializer_list<Field> details);
  void sendError(Json code, const Field* details, std::size_t count);

  // Starts the repeating batch timer on the main queue, every `batchAmount`
  // seconds (floored at kMinimumTimerInterval), whatever the batch mode;
  // refuses (with a debug line) while a timer exists or the client is not
  // initialised. The argument is ignored (the notification that called it).
  void startTimer(const Notification* notification = nullptr);
  // Stops the timer. Does not flush: queued events wait for the next flush.
  void stopTimer(const Notification* notification = nullptr);
  // The timer's action: flushes. The argument is ignored.
  void timedPost(const Timer* timer = nullptr);
  // Schedules a flush on the main queue and returns: the queue is emptied in
  // timestamp order into one post of {"sessionId", "events": [{"eventType",
  // "eventData"}...]} to servicesUrl + batchApi + ".json" (several, in
  // order, when the events exceed ClientOptions::maxPostBytes). An empty
  // queue sends nothing. Whatever becomes of the post, the events are gone.
  void dumpEvents();

  // Sends everything accepted so far and waits for it to be delivered, at
  // most `timeout`. Every event accepted before the call is captured and the
  // queue flushed as dumpEvents does; then the call waits until those posts
  // and every error report this client accepted before it have completed.
  // True when all of them have completed in time (also when there was
  // nothing to send) and no event or error report was dropped by a bound or
  // lost in a failed post (no answer, or a status other than 2xx) since the
  // previous flush returned (or the client was created); false otherwise,
  // and on time-out, when the work goes on without the caller. stats() says
  // what was lost. With ClientOptions::retry, a flush before initialisation
  // first waits for the hello's answer (events kept until then go with it),
  // and posts being retried are waited for like any other.
  // Callable from any thread. On the main queue's own thread it cannot wait
  // for the main queue: it schedules the flush and returns false at once
  // (for a host-supplied main queue whose isCurrent() cannot tell, it waits
  // out `timeout`). Do not call it from the transport's thread (a delegate
  // callback): completions cannot run while it waits there, so it returns
  // false after `timeout`. After telvo::shutdown it returns false at once.
  bool flush(std::chrono::milliseconds timeout);

  // The start-up exchange. getConfigs is called by create; sendHello by the
  // configuration answer when reporting is enabled. Both return at once.
  void getConfigs();
  void sendHello();

  // TelvoTransportDelegate: kConfigurationContext answers, kHelloContext
  // answers; anything else (batch and error posts) is only logged. Never
  // throws.
  void requestDidReceiveResult(const URLRequest& request, const std::optional<Json>& result,
                               std::int32_t context) override;
  // The platform's user defaults: the service's cookie is kept where the
  // hello reads it.
  std::shared_ptr<UserDefaults> cookieStore() const override;

  // The request body for `json`: see buildTelvoJsonParameter in envelope.h.
  std::optional<Bytes> buildTelvoJsonParameter(std::string_view json) const;

  // "<Telvo: 0x...>".
  std::string description() const;

  // --- Properties. Safe to read and write from any thread.

  std::shared_ptr<TelvoConfig> config() const;
  void setConfig(std::shared_ptr<TelvoConfig> config);
  std::string environment() const;
  void setEnvironment(std::string environment);
  std::string property() const;
  void setProperty(std::string property);

  // Set once a hello answer carried a session id; never cleared by the client.
  bool isInitialized() const;
  void setInitialized(bool initialized);
  bool isThrottled() const;
  // The hello answer's "sessionId" value as received (any JSON value); "" at start.
  Json sessionID() const;
  // Device milliseconds minus service milliseconds, rounded; 0 at start.
  double timeStampDelta() const;
  // Events counted towards the next count-triggered flush.
  std::int64_t postCount() const;
  void setPostCount(std::int64_t postCount);
  // Null until the configuration document has been read.
  std::shared_ptr<const TelvoMasterConfig> masterConfig() const;
  // Null while stopped. Setting replaces the stored timer without touching
  // the previous one.
  std::shared_ptr<Timer> batchTimer() const;
  void setBatchTimer(std::shared_ptr<Timer> timer);
  // A copy of the queued events, every event accepted so far captured first.
  // Only consistent when read on the main queue: elsewhere, flushes may be
  // under way.
  std::vector<Event> batch() const;
  // Replaces the queue (intended for the main queue, like every queue change).
  void setBatch(std::vector<Event> batch);
  bool debug() const;
  void setDebug(bool debug);

  // What became of the events and error reports handed to this client so
  // far (see client_options.h). Cheap: relaxed counters, no lock.
  Stats stats() const;
  // The bounds the client was made with.
  const ClientOptions& options() const;
  // With ClientOptions::retry: the host knows the network is back (an
  // interface came up, a connection manager said so). A start-up request or
  // post waiting for its retry goes at once. Otherwise it does nothing.
  void networkAvailable();
  // The delegate, or null when none was set or it has been destroyed.
  std::shared_ptr<TelvoDelegate> delegate() const;
  void setDelegate(std::weak_ptr<TelvoDelegate> delegate);

  // Opaque slots kept for the host: stored and released, never used.
  std::shared_ptr<void> managedObjectContext() const;
  void setManagedObjectContext(std::shared_ptr<void> value);
  std::shared_ptr<void> managedObjectModel() const;
  void setManagedObjectModel(std::shared_ptr<void> value);
  std::shared_ptr<void> persistentStoreCoordinator() const;
  void setPersistentStoreCoordinator(std::shared_ptr<void> value);
  std::shared_ptr<void> NSMOCLock() const;
  void setNSMOCLock(std::shared_ptr<void> value);
  std::shared_ptr<void> NSPSCLock() const;
  void setNSPSCLock(std::shared_ptr<void> value);

 private:
  struct Impl;  // src/core/telvo_impl.h
  Telvo(std::shared_ptr<TelvoConfig> config, std::string property, std::string environment,
        const Platform& platform, const ClientOptions& options);
  std::unique_ptr<Impl> _impl;
};

// Stops the library's own threads, in the order work flows through them,
// all within `timeout`: the default main queue (work already posted to it
// still runs: captures and flushes), the default background queue (error
// reports), then every libcurl transport (the shared one included): requests
// still in flight get until half a second before the deadline, then
// complete with a "telvo.transport" cancellation error. A thread that does
// not end in time (a completion stuck in host code) is left to finish on its
// own; the call never waits past the deadline. From the moment it is called,
// every client refuses new work silently: sendEvent, sendError, dumpEvents,
// the timer and the start-up exchange do nothing, and flush returns false.
// Queues and transports the host supplied itself are the host's to stop.
// True when every library thread has ended. Idempotent: a later call returns
// at once. Call it before unloading the library or before fork() in a
// process that goes on using the library in the child; call flush first to
// send what is queued. The library cannot be started again in this process.
TELVO_API bool shutdown(std::chrono::milliseconds timeout);

}  // namespace telvo
