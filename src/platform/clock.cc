#include "telvo/clock.h"

#include <time.h>

#include <mutex>
#include <utility>

namespace telvo {
namespace {

struct ClockHolder {
  std::mutex mutex;
  std::shared_ptr<Clock> clock;
};

ClockHolder& holder() {
  static ClockHolder* h = new ClockHolder;  // leaked: usable during exit
  return *h;
}

}  // namespace

double SystemClock::now() const {
  timespec ts{};
  clock_gettime(CLOCK_REALTIME, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

std::shared_ptr<Clock> Clock::defaultClock() {
  std::lock_guard<std::mutex> lock(holder().mutex);
  if (!holder().clock) holder().clock = std::make_shared<SystemClock>();
  return holder().clock;
}

void Clock::setDefaultClock(std::shared_ptr<Clock> clock) {
  std::shared_ptr<Clock> previous;
  std::lock_guard<std::mutex> lock(holder().mutex);
  previous = std::exchange(holder().clock, std::move(clock));
  // A null clock goes back to the system clock on the next defaultClock().
}

}  // namespace telvo
