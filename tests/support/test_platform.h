// Test doubles for the platform: a settable clock and a device with fixed
// values.
#pragma once

#include <atomic>
#include <string>
#include <utility>

#include "telvo/clock.h"
#include "telvo/device.h"

namespace telvo {

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

// A test double with fixed values.
class FixedDevice : public Device {
 public:
  FixedDevice(std::string systemVersion = "12", std::string machine = "x86_64",
              std::string model = "Linux",
              std::string identifierForVendor = "00000000-0000-4000-8000-000000000000")
      : systemVersion_(std::move(systemVersion)),
        machine_(std::move(machine)),
        model_(std::move(model)),
        identifierForVendor_(std::move(identifierForVendor)) {}
  std::string systemVersion() const override { return systemVersion_; }
  std::string machine() const override { return machine_; }
  std::string model() const override { return model_; }
  std::string identifierForVendor() const override { return identifierForVendor_; }

 private:
  std::string systemVersion_, machine_, model_, identifierForVendor_;
};

}  // namespace telvo
