// The part of a repeating timer that every executor shares: the floored
// interval, the valid flag and the callback, which invalidation releases.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <utility>

#include "telvo/executor.h"

namespace telvo {

class CallbackTimer : public Timer {
 public:
  CallbackTimer(double interval, std::function<void()> fire)
      // Written so that NaN also takes the floor.
      : interval_(interval >= kMinimumTimerInterval ? interval : kMinimumTimerInterval),
        fire_(std::make_shared<std::function<void()>>(std::move(fire))) {}

  void invalidate() override {
    std::shared_ptr<std::function<void()>> released;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      valid_ = false;
      released = std::move(fire_);
    }
    // The callback (and whatever it captured) is destroyed here, outside the
    // lock, unless a firing under way still holds it.
  }

  bool isValid() const override {
    std::lock_guard<std::mutex> lock(mutex_);
    return valid_;
  }

  double timeInterval() const override { return interval_; }

  // The callback to run for one firing, or null once invalidated. The caller
  // holds its own reference, so invalidating during the firing is safe.
  std::shared_ptr<std::function<void()>> callback() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return fire_;
  }

 private:
  const double interval_;
  mutable std::mutex mutex_;
  bool valid_ = true;
  std::shared_ptr<std::function<void()>> fire_;
};

}  // namespace telvo
