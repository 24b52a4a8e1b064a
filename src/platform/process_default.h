// ProcessDefault<T>: one replaceable process-wide object (the main queue, the
// clock, the device...). Made on first use by `make`; replacing it releases
// the previous one outside the lock, since a destructor may stop a thread or
// write a file. The holder itself is never destroyed, so it stays usable
// while the process exits. Thread-safe.
#pragma once

#include <memory>
#include <mutex>
#include <utility>

namespace telvo {
namespace platform {

template <typename T>
class ProcessDefault {
 public:
  using Factory = std::shared_ptr<T> (*)();
  explicit ProcessDefault(Factory make) : make_(make) {}

  // The current object, made by the factory when there is none.
  std::shared_ptr<T> get() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!value_) value_ = make_();
    return value_;
  }
  // The current object, or null when none has been made or set.
  std::shared_ptr<T> peek() {
    std::lock_guard<std::mutex> lock(mutex_);
    return value_;
  }
  // Replaces the object; null makes the next get() call the factory again.
  void set(std::shared_ptr<T> value) {
    std::shared_ptr<T> previous;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      previous = std::exchange(value_, std::move(value));
    }
  }

 private:
  const Factory make_;
  std::mutex mutex_;
  std::shared_ptr<T> value_;  // guarded by mutex_
};

// A leaked holder for each process default: `static auto& h = leaked<T>(f);`.
template <typename T>
ProcessDefault<T>& leakedDefault(typename ProcessDefault<T>::Factory make) {
  return *new ProcessDefault<T>(make);
}

}  // namespace platform
}  // namespace telvo
