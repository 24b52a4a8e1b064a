// When queued events leave: the batch timer's rules and what one captured
// event triggers. Pure functions of plain values; any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>


namespace telvo {
namespace delivery {

struct BatchTimerRules {
  // The debug line of a refused start.
  static constexpr const char* kRefusal =
      "Telvo not initialized yet - cannot start timer or timer exists";

  // A timer starts only when none exists and the client is initialised with
  // a master configuration.
  static bool mayStart(bool timerExists, bool initialized, bool haveMasterConfig) {
    return !timerExists && initialized && haveMasterConfig;
  }
  // Seconds between timed flushes: the master configuration's batchAmount,
  // whatever the batch mode (the executor raises it to kMinimumTimerInterval).
  static double interval(std::int64_t batchAmount) { return static_cast<double>(batchAmount); }
};

// What capturing one event asks for.
struct CaptureFlush {
  int flushes = 0;             // flushes to schedule now
  bool counted = false;        // count batching counted the event...
  std::int64_t postCount = 0;  // ...and this is the count now
  bool onCount = false;        // the count reached batchAmount (and went back to 0)

  // A non-empty high-priority list switches the "error" and count rules off:
  // the event flushes once for each time the list names it. Otherwise an
  // event named "error" flushes, and in count batching every event counts,
  // flushing when the count reaches `batchAmount`.
  static CaptureFlush decide(std::string_view name,
                             const std::optional<std::vector<std::string>>& highPriorityEvents,
                             bool countBatching, std::int64_t batchAmount,
                             std::int64_t postCount) {
    CaptureFlush decision;
    if (highPriorityEvents && !highPriorityEvents->empty()) {
      for (const auto& entry : *highPriorityEvents) {
        if (entry == name) ++decision.flushes;
      }
      return decision;
    }
    if (name == "error") {
      decision.flushes = 1;
      return decision;
    }
    if (countBatching) {
      decision.counted = true;
      decision.postCount = postCount + 1;
      if (decision.postCount == batchAmount) {
        decision.postCount = 0;
        decision.onCount = true;
        decision.flushes = 1;
      }
    }
    return decision;
  }
};

}  // namespace delivery
}  // namespace telvo
