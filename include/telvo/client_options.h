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

  std::uint64_t eventsDropped() const {
    return eventsDroppedQueueFull + eventsDroppedTooLarge + eventsDroppedBacklog +
           eventsDroppedUnwritable;
  }
};

}  // namespace telvo
