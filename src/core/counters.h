// The client's counters (read by Telvo::stats) and its bound episodes.
//
// Relaxed atomics, cheap enough to keep always on: the caller's path adds to
// them without a lock.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "telvo/client_options.h"
#include "telvo/log.h"

namespace telvo {
namespace core {

class Counter {
 public:
  void add(std::uint64_t n = 1) { value_.fetch_add(n, std::memory_order_relaxed); }
  // For a counter whose every writer holds one lock: a plain load and store,
  // no locked instruction.
  void addLocked(std::uint64_t n = 1) {
    value_.store(value_.load(std::memory_order_relaxed) + n, std::memory_order_relaxed);
  }
  std::uint64_t get() const { return value_.load(std::memory_order_relaxed); }

 private:
  std::atomic<std::uint64_t> value_{0};
};

struct Counters {
  // eventsAccepted is written under the client's pendingMutex only.
  Counter eventsAccepted, eventsRefusedNotInitialized, eventsRefusedDisabled,
      eventsRefusedThrottled, eventsDroppedQueueFull, eventsDroppedTooLarge, eventsDroppedBacklog,
      eventsDroppedUnwritable, eventsDroppedRefused, eventsPosted, eventsFailed;
  Counter errorsAccepted, errorsDropped, errorsSent, errorsFailed;
  Counter postsMade, postsFailed;
  // spoolCorrupt: records the replay could not read (the spool counts the
  // ones torn on disk itself).
  Counter retries, spooled, replayed, spoolCorrupt;

  Stats snapshot() const {
    Stats stats;
    // Outcomes first, acceptances last: an event that moves on meanwhile is
    // seen accepted rather than twice.
    stats.eventsPosted = eventsPosted.get();
    stats.eventsFailed = eventsFailed.get();
    stats.eventsDroppedQueueFull = eventsDroppedQueueFull.get();
    stats.eventsDroppedTooLarge = eventsDroppedTooLarge.get();
    stats.eventsDroppedBacklog = eventsDroppedBacklog.get();
    stats.eventsDroppedUnwritable = eventsDroppedUnwritable.get();
    stats.eventsDroppedRefused = eventsDroppedRefused.get();
    stats.eventsRefusedNotInitialized = eventsRefusedNotInitialized.get();
    stats.eventsRefusedDisabled = eventsRefusedDisabled.get();
    stats.eventsRefusedThrottled = eventsRefusedThrottled.get();
    stats.errorsSent = errorsSent.get();
    stats.errorsFailed = errorsFailed.get();
    stats.errorsDropped = errorsDropped.get();
    stats.postsFailed = postsFailed.get();
    stats.postsMade = postsMade.get();
    stats.retries = retries.get();
    stats.spooled = spooled.get();
    stats.replayed = replayed.get();
    stats.spoolCorrupt = spoolCorrupt.get();
    stats.errorsAccepted = errorsAccepted.get();
    stats.eventsAccepted = eventsAccepted.get();
    const std::uint64_t settled = stats.eventsPosted + stats.eventsFailed + stats.eventsDropped();
    stats.eventsQueued = stats.eventsAccepted > settled ? stats.eventsAccepted - settled : 0;
    return stats;
  }

  // Events and error reports dropped by a bound or lost in a failed post.
  std::uint64_t lost() const {
    return eventsDroppedQueueFull.get() + eventsDroppedTooLarge.get() +
           eventsDroppedBacklog.get() + eventsDroppedUnwritable.get() +
           eventsDroppedRefused.get() + eventsFailed.get() +
           errorsDropped.get() + errorsFailed.get();
  }
};

// One bound's run of drops: the first drop logs the line `what()` makes,
// later ones are only counted (and make no line), until something fits again.
class DropEpisode {
 public:
  template <typename Line>
  void drop(Line what) {
    if (!active_.exchange(true, std::memory_order_relaxed)) log(what());
  }
  void fits() {
    if (active_.load(std::memory_order_relaxed)) active_.store(false, std::memory_order_relaxed);
  }

 private:
  std::atomic<bool> active_{false};
};

}  // namespace core
}  // namespace telvo
