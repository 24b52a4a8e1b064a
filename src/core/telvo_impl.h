// Telvo::Impl: the client's state and its own logic (lifecycle, capture and
// queue, batching, error reports, the handling of every answer). The public
// Telvo forwards to it; the value-level steps in config/ and delivery/ do the
// building and reading.
//
// Locks: `mutex` guards the fields below it and is never held while calling
// out (transport, executors, delegate, observers, log sink).
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/counters.h"
#include "core/deliveries.h"
#include "core/event_queue.h"
#include "delivery/error_post.h"
#include "delivery/flush_rules.h"
#include "delivery/retry_rules.h"
#include "delivery/spool.h"
#include "telvo/client_options.h"
#include "telvo/platform.h"
#include "telvo/telvo.h"

namespace telvo {

struct TELVO_LOCAL Telvo::Impl {
  Impl(Telvo& owner, const Platform& platform, const ClientOptions& options,
       std::shared_ptr<TelvoConfig> config, std::string property, std::string environment);

  // --- Capture (capture.cc).
  void sendEvent(const std::string& name, std::optional<Json> data);
  void sendEvent(std::string_view name, const Field* fields, std::size_t count);
  // Captures every pending event in acceptance order: on the main queue, or
  // on any thread that needs the queue whole (batch, a new session).
  void drainPendingEvents();
  // The same with drainMutex held.
  void drainLocked();

  // --- Error reports (error_report.cc).
  void sendError(Json code, std::optional<Json> details);
  void sendError(Json code, const Field* details, std::size_t count);
  // Background queue: builds and posts one report, with the details as a
  // Json object or as members already written (see ErrorPost::write);
  // `ticket` goes with it.
  template <typename Details>
  void postErrorReport(const Json& code, const Details& details,
                       std::shared_ptr<core::Deliveries::Ticket> ticket);
  // Counts the report: true when it is accepted and fits its bound.
  bool acceptsErrorReport();
  // Logs the report (in debug) and hands it to the background queue.
  template <typename Details>
  void queueErrorReport(Json code, Details details);

  // --- Start-up and answers (startup.cc).
  void getConfigs();
  void sendHello();
  void requestDidReceiveResult(const std::optional<Json>& result, std::int32_t context);

  // --- Batching (batching.cc).
  void startTimer();
  void stopTimer();
  void dumpEvents();
  // Main queue: the body of dumpEvents.
  void flushNow();
  bool flush(std::chrono::milliseconds timeout);
  // Replaces the queue (Telvo::setBatch), after capturing what is pending.
  void replaceBatch(const std::vector<Event>& events);

  // Hands a post of `events` events (or, with 0, one error report) to the
  // transport, unless the backlog bound refuses it; counts its outcome.
  // `spooled`: the spool's records of what it carries, forgotten once it is
  // delivered or given up on.
  void post(URLRequest request, std::size_t events,
            std::shared_ptr<core::Deliveries::Ticket> ticket,
            std::vector<std::uint64_t> spooled = {});

  // --- The spool (spooling.cc), with ClientOptions::retry and spoolPath.
  // Opens it at creation; false (with the reason) when it cannot be had.
  bool openSpool(std::string* error);
  // With drainMutex held: writes the pending events not yet on disk.
  void spoolPending();
  // Writes one error report's post; its sequence, 0 when not written.
  std::uint64_t spoolErrorReport(const std::string& session, const std::string& json);
  void forget(const std::vector<std::uint64_t>& sequences);
  // Once a session exists: posts what an earlier run left on disk.
  void replaySpool();
  // A spool pass within kSpoolSeconds (the caller set spoolPassScheduled).
  void scheduleSpoolPass();

  // --- The retrying delivery (retrying.cc), with ClientOptions::retry.
  // A post on its way: sent, or waiting its turn behind a retry.
  struct Outgoing {
    URLRequest request;
    std::size_t events = 0;  // 0: an error report
    std::int64_t bytes = 0;  // its share of backlogBytes
    std::shared_ptr<core::Deliveries::Ticket> ticket;  // returned at its end
    std::int64_t retries = 0;
    std::vector<std::uint64_t> spooled;
  };
  // Sends it; a failure worth retrying puts it in the line.
  void send(std::shared_ptr<Outgoing> outgoing);
  // Its final outcome: counted, its backlog and ticket released.
  void settle(Outgoing& outgoing, bool delivered);
  // After a post of the line ended: the next one goes, or the line opens.
  void nextInLine();
  // A start-up request that failed: tried again after a backoff.
  void startupFailed(std::int32_t context);
  // Runs `action` on the main queue after `seconds`, once, as the retry
  // timer (replacing one that waits); networkAvailable() runs it at once.
  void retryAfter(double seconds, std::function<void()> action);
  void networkAvailable();
  // The delegate of a start-up request in the retrying mode.
  std::shared_ptr<TelvoTransportDelegate> startupDelegate(std::int32_t context);
  // Events kept before initialisation: stamps corrected once the hello
  // answered; dropped when the configuration is disabled or the client
  // throttled.
  void correctEarlyEvents(double delta);
  void dropEarlyEvents(const std::string& why);

  // The fields a background job reads, taken together under the lock.
  struct Snapshot {
    std::shared_ptr<const TelvoConfig> config;
    std::shared_ptr<const TelvoMasterConfig> master;
    std::shared_ptr<const Json> session;
  };
  Snapshot snapshot() const;
  // The services address and batch path as the posts' locations show them
  // ("(null)" when unset, "<null>" when they hold a JSON null).
  struct Locations {
    std::string servicesUrl;
    std::string batchApi;
  };
  static Locations locations(const TelvoMasterConfig* master);
  // round(now * 1000) - timeStampDelta, on the service's clock.
  double serviceMilliseconds() const;
  // The configuration's appName as events and error reports carry it: its
  // text, null when it holds a JSON null, nothing when it is unset.
  static std::optional<Json> applicationName(const TelvoConfig* config);
  // A service time as the whole number events and errors carry, saturated to
  // the 64-bit range (0 for NaN): never a wrapped or undefined conversion.
  static std::int64_t wholeMilliseconds(double milliseconds);
  void setMasterConfig(std::shared_ptr<const TelvoMasterConfig> master);
  void setConfig(std::shared_ptr<TelvoConfig> config);
  // The capture rules' part of a new configuration.
  void setCaptureConfig(std::shared_ptr<const TelvoConfig> config);
  bool debugging() const { return debug.load(std::memory_order_relaxed); }
  // The client, for work that must keep it alive.
  std::shared_ptr<Telvo> self() { return owner.shared_from_this(); }

  Telvo& owner;
  // What the client runs on, and its bounds, fixed at creation.
  const Platform platform;
  // The platform's clock is the system's own: the stamps read it through
  // the tick counter.
  const bool systemClock;
  const ClientOptions options;

  core::Counters counters;
  core::DropEpisode queueFull, tooLarge, backlogFull, reportsFull;
  // Counters.lost() as the last flush saw it.
  std::atomic<std::uint64_t> lostAtLastFlush{0};
  // Bytes of events being captured or queued, not yet taken by a flush; with
  // pendingBytes, what ClientOptions::maxQueuedBytes bounds.
  std::atomic<std::int64_t> queuedBytes{0};
  // Request bodies handed to the transport and not yet completed.
  std::atomic<std::int64_t> backlogBytes{0};
  // Error reports accepted and not yet handed to the transport.
  std::atomic<std::int64_t> pendingReports{0};

  // The retrying delivery's state, guarded by retryMutex.
  std::mutex retryMutex;
  delivery::Backoff backoff;
  std::deque<std::shared_ptr<Outgoing>> line;  // posts waiting their turn
  bool lineBusy = false;  // a post of the line is under way or waiting to be retried
  std::shared_ptr<Timer> retryTimer;
  std::function<void()> retryAction;  // what retryTimer will do
  std::int64_t configRetries = 0, helloRetries = 0;
  std::unique_ptr<delivery::Spool> spool;
  // Records an earlier run left in the spool, to be replayed once.
  std::uint64_t spoolLeftOver = 0;
  std::atomic<bool> replayStarted{false};
  bool spoolPassScheduled = false;  // guarded by pendingMutex
  // Early events are no longer kept: the configuration is disabled.
  std::atomic<bool> earlyRefused{false};
  // Signalled when the hello's answer initialised the client, for a flush
  // that waits for early events.
  std::mutex initializedMutex;
  std::condition_variable initializedSignal;

  std::atomic<bool> debug{false};
  std::atomic<bool> throttled{false};
  // Written with release ordering after sessionID and timeStampDelta, so a
  // thread that reads it set (acquire) sees both.
  std::atomic<bool> initialized{false};
  // Mirrors masterConfig()->enabled() for the caller-thread acceptance test.
  std::atomic<bool> enabled{false};
  std::atomic<double> timeStampDelta{0};
  std::atomic<std::int64_t> postCount{0};

  mutable std::mutex mutex;
  std::shared_ptr<const Json> sessionID;                  // guarded by mutex
  std::shared_ptr<const TelvoMasterConfig> masterConfig;  // guarded by mutex
  std::weak_ptr<TelvoDelegate> delegate;                  // guarded by mutex
  std::shared_ptr<TelvoConfig> config;                    // guarded by mutex
  std::string environment;                                // guarded by mutex
  std::string property;                                   // guarded by mutex
  std::shared_ptr<Timer> batchTimer;                      // guarded by mutex
  // Opaque host slots, guarded by mutex.
  std::shared_ptr<void> managedObjectContext, managedObjectModel, persistentStoreCoordinator,
      NSMOCLock, NSPSCLock;

  // Batch posts and error reports handed over and not yet completed.
  const std::shared_ptr<core::Deliveries> deliveries = std::make_shared<core::Deliveries>();

  // The queue. Changed only on the main queue; it locks itself, so batch()
  // may copy it from elsewhere.
  core::EventQueue queue;

  // Accepted calls not yet captured. sendEvent stamps the call, decides on
  // the caller's thread whether it asks for a flush (the count, a
  // high-priority name, "error"), and appends it here. A drain is posted to
  // the main queue only for a flush or once the pending events hold
  // kDrainBytes; otherwise they wait for the next flush, which captures them
  // first, so a paced stream of events wakes no thread.
  struct PendingEvent {
    // The Json path: the name and the data as given.
    std::string name;
    std::optional<Json> data;
    // Fields: the name, then the members already written (",\"k\":v..."),
    // at `textOffset` in pendingText.
    bool fields = false;
    std::size_t textOffset = 0, nameLength = 0, membersLength = 0;
    // Service-clock milliseconds at the call.
    double stamp = 0;
    // What its acceptance decided, carried out at capture.
    delivery::CaptureFlush decision;
    // What it counts for against the bound until it is captured.
    std::size_t bytes = 0;
    // Accepted before initialisation (the retrying delivery): stamped with
    // the device's clock until the hello's offset corrects it.
    bool early = false;
    // Its record in the spool, 0 while it is not written there.
    std::uint64_t spoolSequence = 0;
  };
  std::mutex pendingMutex;
  std::vector<PendingEvent> pending;  // guarded by pendingMutex
  std::string pendingText;            // guarded by pendingMutex
  std::size_t pendingBytes = 0;       // guarded by pendingMutex
  bool drainScheduled = false;        // guarded by pendingMutex
  // The hello answered: early events are corrected by this offset as they
  // come. Guarded by pendingMutex.
  std::optional<double> earlyDelta;
  // The capture rules as the caller's thread reads them, kept beside the
  // pending events so that a call touches few cache lines; guarded by
  // pendingMutex, set with config and masterConfig.
  struct CaptureRules {
    std::shared_ptr<const TelvoConfig> config;  // its high-priority names
    bool priorities = false;                     // ...when it has any
    bool countBatching = false;
    std::int64_t batchAmount = 0;
  };
  CaptureRules captureRules;
  // Serialises drains, so events are captured in acceptance order whichever
  // thread drains; guards the drain's side of the pending buffers.
  std::mutex drainMutex;
  std::vector<PendingEvent> drained;
  std::string drainedText;

 private:
  // Counts the call against the acceptance test: true when accepted, with
  // `early` set when it is kept before initialisation (the retrying delivery).
  bool acceptsEvent(bool& early);
  // Appends an accepted event (for fields, with its name and members) to the
  // pending ones, unless a bound refuses it.
  // Counts an event a bound dropped (too large for a post, or the queue
  // full) and starts the bound's episode; kept out of the call's own code.
  [[gnu::cold, gnu::noinline]] void dropEvent(bool tooBig, std::string_view name,
                                               std::size_t bytes);
  void enqueue(PendingEvent event, std::string_view name, std::string_view members);
  // Posts a drain of the pending events (the caller found none posted);
  // `name` is the event that asked, for the log.
  void postDrain(std::string_view name);
  void captureEvent(PendingEvent& pending, std::string_view pendingText, const Snapshot& snapshot);
  void handleConfiguration(const std::optional<Json>& result);
  void handleHello(const std::optional<Json>& result);
};

}  // namespace telvo
