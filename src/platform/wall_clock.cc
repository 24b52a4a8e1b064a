#include "platform/wall_clock.h"

#include <time.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "telvo/clock.h"

#if defined(__x86_64__)
#include <x86intrin.h>
#endif

namespace telvo::platform {
namespace {

#if defined(__x86_64__)
constexpr const char kTickSource[] = "tsc";
inline std::uint64_t ticks() { return __rdtsc(); }
#elif defined(__aarch64__)
constexpr const char kTickSource[] = "arch_sys_counter";
inline std::uint64_t ticks() {
  std::uint64_t value;
  asm volatile("mrs %0, cntvct_el0" : "=r"(value));
  return value;
}
#else
constexpr const char kTickSource[] = "";  // no counter read here
inline std::uint64_t ticks() { return 0; }
#endif

// How long the tick rate is measured for, and the rates believed.
constexpr std::int64_t kMeasureNanos = 10'000'000;
constexpr double kSlowestTicksPerSecond = 1e6;
constexpr double kFastestTicksPerSecond = 2e10;

// The system clock's own read (called on the concrete type: no virtual call).
double realSeconds() { return SystemClock().now(); }

std::int64_t monotonicNanos() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<std::int64_t>(ts.tv_sec) * 1'000'000'000 + ts.tv_nsec;
}

// The ticks a thread goes on for from one real read; 0 while the rate is
// not known (or never will be). secondsPerTick is written before it.
std::atomic<std::uint64_t> windowTicks{0};
std::atomic<double> secondsPerTick{0.0};
// Set once the rate is known or the counter is not to be used.
std::atomic<bool> settled{false};

struct Anchor {
  std::uint64_t ticks = 0;
  double seconds = 0.0;
};
thread_local Anchor anchor;

bool kernelKeepsTimeWithTicks() {
  if (kTickSource[0] == '\0') return false;
  std::FILE* file =
      std::fopen("/sys/devices/system/clocksource/clocksource0/current_clocksource", "re");
  if (!file) return false;
  char line[64] = {};
  const bool read = std::fgets(line, sizeof line, file) != nullptr;
  std::fclose(file);
  if (!read) return false;
  line[std::strcspn(line, "\n")] = '\0';
  return std::strcmp(line, kTickSource) == 0;
}

// Measures the tick rate against the monotonic clock over kMeasureNanos,
// a step at a time from the calls that read the clock meanwhile. A call that
// finds another measuring goes on without waiting.
void measureRate() {
  enum class Phase { kUnknown, kMeasuring, kDone };
  static std::mutex mutex;
  static Phase phase = Phase::kUnknown;
  static std::uint64_t startTicks = 0;
  static std::int64_t startNanos = 0;

  std::unique_lock<std::mutex> lock(mutex, std::try_to_lock);
  if (!lock.owns_lock() || phase == Phase::kDone) return;
  if (phase == Phase::kUnknown) {
    if (!kernelKeepsTimeWithTicks()) {
      phase = Phase::kDone;
      settled.store(true, std::memory_order_relaxed);
      return;
    }
    startNanos = monotonicNanos();
    startTicks = ticks();
    phase = Phase::kMeasuring;
    return;
  }
  const std::int64_t elapsed = monotonicNanos() - startNanos;
  const std::uint64_t counted = ticks() - startTicks;
  if (elapsed < kMeasureNanos) return;
  phase = Phase::kDone;
  settled.store(true, std::memory_order_relaxed);
  const double rate = static_cast<double>(counted) / (static_cast<double>(elapsed) / 1e9);
  if (!(rate >= kSlowestTicksPerSecond && rate <= kFastestTicksPerSecond)) return;
  secondsPerTick.store(1.0 / rate, std::memory_order_relaxed);
  windowTicks.store(static_cast<std::uint64_t>(WallClock::kRefreshSeconds * rate) + 1,
                    std::memory_order_release);
}

}  // namespace

double WallClock::now() {
  const std::uint64_t window = windowTicks.load(std::memory_order_acquire);
  if (window != 0) {
    Anchor& a = anchor;
    const std::uint64_t t = ticks();
    // Ticks that went backwards (another core's counter) wrap to a large
    // count and read the clock again.
    const std::uint64_t since = t - a.ticks;
    if (since < window && a.seconds != 0.0) {
      return a.seconds +
             static_cast<double>(since) * secondsPerTick.load(std::memory_order_relaxed);
    }
    // The anchor pairs the real read with the ticks around it, and only if
    // nothing came between them (a thread preempted there would put its
    // stamps ahead by that long).
    const double seconds = realSeconds();
    const std::uint64_t after = ticks();
    if (after - t < window / 16) {
      a.ticks = t + (after - t) / 2;
      a.seconds = seconds;
    } else {
      a.seconds = 0.0;
    }
    return seconds;
  }
  if (!settled.load(std::memory_order_relaxed)) measureRate();
  return realSeconds();
}

bool WallClock::ticking() { return windowTicks.load(std::memory_order_acquire) != 0; }

}  // namespace telvo::platform
