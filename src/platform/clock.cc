#include "telvo/clock.h"

#include <time.h>

#include "platform/process_default.h"

namespace telvo {
namespace {

platform::ProcessDefault<Clock>& holder() {
  static auto& h = platform::leakedDefault<Clock>([]() -> std::shared_ptr<Clock> {
    return std::make_shared<SystemClock>();
  });
  return h;
}

}  // namespace

double SystemClock::now() const {
  timespec ts{};
  clock_gettime(CLOCK_REALTIME, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

std::shared_ptr<Clock> Clock::defaultClock() { return holder().get(); }

// A null clock goes back to the system clock on the next defaultClock().
void Clock::setDefaultClock(std::shared_ptr<Clock> clock) { holder().set(std::move(clock)); }

}  // namespace telvo
