// ClientOptions: the bounds a client keeps, given once at creation next to
// its Platform; Stats: what became of everything it was handed.
//
// The defaults are far above what a TV app sends in normal use, so a client
// made without options behaves exactly as one without bounds. Beyond a bound
// the new event (or error report) is dropped, counted in Stats under its
// reason, and the first drop of an episode writes one log line; the episode
// ends when an event fits again.
#pragma once

#include "telvo/export.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace telvo {

struct TELVO_API ClientOptions {
  // Bytes of events accepted and not yet handed to a post: each costs its
  // name, its JSON data and 64 bytes of bookkeeping. A new event that does
  // not fit is dropped (Stats::eventsDroppedQueueFull).
  std::size_t maxQueuedBytes = 8u << 20;
  // Bytes of the JSON text of one batch post, before compression. A flush
  // with more splits into several posts, in timestamp order, each a whole
  // {"sessionId", "events"}; one event larger than this alone is dropped
  // (Stats::eventsDroppedTooLarge).
  std::size_t maxPostBytes = 4u << 20;
  // Bytes of request bodies (posts and error reports) handed to the
  // transport and not yet completed. A post that would go beyond it, while
  // at least one is under way, is dropped with its events
  // (Stats::eventsDroppedBacklog, Stats::errorsDropped).
  std::size_t maxBacklogBytes = 8u << 20;
  // Error reports accepted and not yet handed to the transport (they are
  // built on the background queue). Beyond it new reports are dropped
  // (Stats::errorsDropped).
  std::size_t maxPendingErrorReports = 1000;

  // --- Delivery over a network that is late or flaps. Off by default: then
  // nothing is retried and nothing is kept before initialisation, exactly
  // as without these options. With `retry` on:
  //   - a configuration fetch or hello that fails in transfer, answers 5xx
  //     or 429, or does not parse is tried again after a backoff (for the
  //     hello, "helloRetryCount" > 0 in the master configuration bounds the
  //     retries and "helloRetryTime" > 0 sets their spacing in seconds);
  //   - events accepted before initialisation are kept (within
  //     maxQueuedBytes), stamped with the device's clock, corrected by the
  //     service's clock when the hello answers, and posted then; a disabled
  //     configuration or a throttled answer drops them
  //     (Stats::eventsDroppedRefused);
  //   - a batch or error post that fails in transfer or answers 5xx or 429
  //     is sent again after a backoff, its events in their order and with
  //     their stamps; while one is being retried, posts go one at a time. A
  //     4xx other than 429 drops it (Stats::eventsFailed).
  // Delivery is then at least once: an answer lost after the service stored
  // a post sends it again.
  bool retry = false;
  // The backoff: the n-th retry waits a random time (full jitter) of up to
  // retryInitialSeconds * 2^(n-1), capped at retryMaxSeconds.
  double retryInitialSeconds = 1;
  double retryMaxSeconds = 300;
  // Seeds the jitter (tests); 0 seeds it from the device.
  std::uint64_t retrySeed = 0;
  // With `retry`: a folder where events and error reports wait on disk until
  // delivered, so that they survive a restart or a power cut (see
  // Stats::spooled). Empty: memory only. One process per folder.
  std::string spoolPath;
  // The spool's bound on disk; beyond it the oldest records are dropped
  // (Stats::spoolDroppedOldest).
  std::size_t maxSpoolBytes = 16u << 20;
};

// Counters of one client since its creation, read together by
// Telvo::stats(). Each counter is exact; a snapshot taken while work is under
// way may catch an event between two of them. Once the client is quiet (after
// flush), eventsAccepted == eventsPosted + eventsDropped() + eventsFailed +
// eventsQueued.
struct TELVO_API Stats {
  // Events that passed the acceptance test.
  std::uint64_t eventsAccepted = 0;
  // Events refused by the acceptance test, by reason.
  std::uint64_t eventsRefusedNotInitialized = 0;
  std::uint64_t eventsRefusedDisabled = 0;
  std::uint64_t eventsRefusedThrottled = 0;
  // Accepted events dropped, by reason: the queue at maxQueuedBytes; one
  // event larger than maxPostBytes; its post beyond maxBacklogBytes; data
  // that cannot be written (a NaN or infinite number in a Json, no data and
  // no appName).
  std::uint64_t eventsDroppedQueueFull = 0;
  std::uint64_t eventsDroppedTooLarge = 0;
  std::uint64_t eventsDroppedBacklog = 0;
  std::uint64_t eventsDroppedUnwritable = 0;
  // With ClientOptions::retry: kept before initialisation, then dropped
  // because the configuration was disabled or the client throttled.
  std::uint64_t eventsDroppedRefused = 0;
  // Events in posts that the service answered with success (a 2xx status,
  // or any answer where the transport does not tell the status), and in
  // posts that failed (no answer, or another status).
  std::uint64_t eventsPosted = 0;
  std::uint64_t eventsFailed = 0;
  // Events accepted and not yet posted, dropped or failed: waiting to be
  // captured, queued, or in a post under way.
  std::uint64_t eventsQueued = 0;

  // Error reports: accepted (passed the acceptance test), dropped (a bound,
  // or no appName), sent (answered with success) and failed.
  std::uint64_t errorsAccepted = 0;
  std::uint64_t errorsDropped = 0;
  std::uint64_t errorsSent = 0;
  std::uint64_t errorsFailed = 0;

  // Batch posts handed to the transport, and those of them that failed.
  std::uint64_t postsMade = 0;
  std::uint64_t postsFailed = 0;

  // With ClientOptions::retry: requests sent again (start-up requests and
  // posts); with a spool, events and error reports written to it, read back
  // from an earlier run, and pushed out by its bound (oldest first), and
  // records found torn or corrupt.
  std::uint64_t retries = 0;
  std::uint64_t spooled = 0;
  std::uint64_t replayed = 0;
  std::uint64_t spoolDroppedOldest = 0;
  std::uint64_t spoolCorrupt = 0;

  std::uint64_t eventsDropped() const {
    return eventsDroppedQueueFull + eventsDroppedTooLarge + eventsDroppedBacklog +
           eventsDroppedUnwritable + eventsDroppedRefused;
  }
};

}  // namespace telvo
