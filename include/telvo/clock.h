// The wall clock: seconds since 1970-01-01 00:00 UTC, with fraction.
#pragma once

#include "telvo/export.h"

#include <memory>

namespace telvo {

class TELVO_API Clock {
 public:
  // The process-wide clock (replaceable before clients are created).
  static std::shared_ptr<Clock> defaultClock();
  static void setDefaultClock(std::shared_ptr<Clock> clock);

  virtual ~Clock() = default;
  virtual double now() const = 0;
};

// The system's real-time clock.
class TELVO_API SystemClock : public Clock {
 public:
  double now() const override;
};

}  // namespace telvo
