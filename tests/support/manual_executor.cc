#include "support/manual_executor.h"

#include <deque>
#include <exception>
#include <mutex>
#include <utility>
#include <vector>

#include "platform/callback_timer.h"
#include "telvo/log.h"

namespace telvo {
namespace {

// Absorbs the rounding of sums of decimal intervals in virtual time, so a
// timer due at exactly the end of an advance fires in it.
constexpr double kTimeTolerance = 1e-9;

class ManualTimer : public CallbackTimer {
 public:
  ManualTimer(double interval, double start, std::function<void()> fire)
      : CallbackTimer(interval, std::move(fire)), start_(start) {}

  // Computed from the start rather than summed, so rounding does not drift.
  double nextDue() const { return start_ + static_cast<double>(firings_ + 1) * timeInterval(); }
  void fired() { ++firings_; }  // only under the executor's lock

 private:
  const double start_;
  std::uint64_t firings_ = 0;
};

void runGuarded(const std::function<void()>& work) {
  try {
    work();
  } catch (const std::exception& e) {
    log(std::string("telvo: work on a manual executor threw an exception and was dropped: ") +
        e.what());
  } catch (...) {
    log("telvo: work on a manual executor threw an exception and was dropped");
  }
}

}  // namespace

struct ManualExecutor::State {
  mutable std::mutex mutex;  // guards everything below
  std::deque<std::function<void()>> pending;
  std::vector<std::shared_ptr<ManualTimer>> timers;  // in scheduling order
  double now = 0;
};

ManualExecutor::ManualExecutor() : state_(std::make_shared<State>()) {}
ManualExecutor::~ManualExecutor() = default;

void ManualExecutor::post(std::function<void()> work) {
  std::lock_guard<std::mutex> lock(state_->mutex);
  state_->pending.push_back(std::move(work));
}

std::shared_ptr<Timer> ManualExecutor::scheduleRepeating(double interval,
                                                         std::function<void()> fire) {
  std::lock_guard<std::mutex> lock(state_->mutex);
  auto timer = std::make_shared<ManualTimer>(interval, state_->now, std::move(fire));
  state_->timers.push_back(timer);
  return timer;
}

std::size_t ManualExecutor::runPending() {
  std::size_t ran = 0;
  for (;;) {
    std::function<void()> work;
    {
      std::lock_guard<std::mutex> lock(state_->mutex);
      if (state_->pending.empty()) return ran;
      work = std::move(state_->pending.front());
      state_->pending.pop_front();
    }
    runGuarded(work);
    ++ran;
  }
}

std::size_t ManualExecutor::advance(double seconds) {
  runPending();
  std::size_t firings = 0;
  double target;
  {
    std::lock_guard<std::mutex> lock(state_->mutex);
    target = state_->now + (seconds > 0 ? seconds : 0);
  }
  for (;;) {
    std::shared_ptr<ManualTimer> next;
    {
      std::lock_guard<std::mutex> lock(state_->mutex);
      auto& timers = state_->timers;
      // Drop invalidated timers, then pick the earliest due (ties: the one
      // scheduled first).
      std::vector<std::shared_ptr<ManualTimer>> kept;
      kept.reserve(timers.size());
      for (auto& timer : timers) {
        if (timer->isValid()) kept.push_back(std::move(timer));
      }
      timers.swap(kept);
      for (const auto& timer : timers) {
        if (timer->nextDue() <= target + kTimeTolerance &&
            (!next || timer->nextDue() < next->nextDue())) {
          next = timer;
        }
      }
      if (!next) {
        state_->now = target;
        break;
      }
      if (next->nextDue() > state_->now) state_->now = next->nextDue();
      next->fired();
    }
    // `kept` (released timers) is destroyed above, inside the lock, but those
    // timers' callbacks were already released by invalidate().
    if (auto fire = next->callback()) runGuarded(*fire);
    ++firings;
    runPending();
  }
  return firings;
}

double ManualExecutor::now() const {
  std::lock_guard<std::mutex> lock(state_->mutex);
  return state_->now;
}

std::size_t ManualExecutor::pendingCount() const {
  std::lock_guard<std::mutex> lock(state_->mutex);
  return state_->pending.size();
}

std::size_t ManualExecutor::activeTimerCount() const {
  std::lock_guard<std::mutex> lock(state_->mutex);
  std::size_t count = 0;
  for (const auto& timer : state_->timers) count += timer->isValid() ? 1 : 0;
  return count;
}

}  // namespace telvo
