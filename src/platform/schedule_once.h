// A one-shot timer on an executor that only offers repeating ones.
#pragma once

#include <functional>
#include <memory>
#include <mutex>

#include "telvo/executor.h"

namespace telvo {

// Runs `fire` once on `queue`, `seconds` from now (floored as every timer
// is), unless the returned timer is invalidated first. The timer stops
// itself before `fire` runs, whatever `fire` does, so it never repeats.
inline std::shared_ptr<Timer> scheduleOnce(Executor& queue, double seconds,
                                           std::function<void()> fire) {
  struct Once {
    std::mutex mutex;
    // Weak: the executor keeps the timer while it is valid, and a strong
    // reference here would make a cycle through the timer's own callback.
    std::weak_ptr<Timer> timer;  // guarded by mutex
    bool fired = false;            // guarded by mutex
  };
  auto once = std::make_shared<Once>();
  auto timer = queue.scheduleRepeating(seconds, [once, fire = std::move(fire)] {
    std::shared_ptr<Timer> self;
    {
      std::lock_guard<std::mutex> lock(once->mutex);
      if (once->fired) return;
      once->fired = true;
      self = once->timer.lock();
    }
    if (self) self->invalidate();
    fire();
  });
  bool firedAlready;
  {
    std::lock_guard<std::mutex> lock(once->mutex);
    firedAlready = once->fired;
    if (!firedAlready) once->timer = timer;
  }
  // It fired before it was stored: it could not stop itself.
  if (firedAlready) timer->invalidate();
  return timer;
}

}  // namespace telvo
