// The wall clock: seconds since 1970-01-01 00:00 UTC, with fraction.
#pragma once

#include <atomic>
#include <memory>

namespace telvo {

class Clock {
 public:
  // The process-wide clock (replaceable before clients are created).
  static std::shared_ptr<Clock> defaultClock();
  static void setDefaultClock(std::shared_ptr<Clock> clock);

  virtual ~Clock() = default;
  virtual double now() const = 0;
};

// The system's real-time clock.
class SystemClock : public Clock {
 public:
  double now() const override;
};

// A settable clock for tests. Thread-safe.
class TestClock : public Clock {
 public:
  explicit TestClock(double now = 0) : now_(now) {}
  double now() const override { return now_.load(std::memory_order_relaxed); }
  void setNow(double seconds) { now_.store(seconds, std::memory_order_relaxed); }
  void advance(double seconds) { setNow(now() + seconds); }

 private:
  std::atomic<double> now_;
};

}  // namespace telvo
