// The system's real-time clock for the capture path, read through the CPU's
// tick counter where the kernel itself keeps time with that counter.
//
// clock_gettime costs about 40 ns on a virtual machine, a third of a whole
// sendEvent. Here one real read anchors each thread's ticks, and a read
// within kRefreshSeconds of the anchor extrapolates from it at the tick rate
// measured against the monotonic clock, for the price of a tick read. A
// result is within a few microseconds of the real clock, and a step of the
// wall clock (a time server, settimeofday) shows within kRefreshSeconds.
//
// The counter is used only on x86-64 when the kernel's clocksource is "tsc"
// (the kernel found it invariant and in step across cores) and on AArch64
// when it is "arch_sys_counter"; anywhere else, and until the rate is known
// (10 ms after the first read), every read is a real one.
#pragma once

#include "telvo/export.h"

namespace telvo::platform {

class TELVO_LOCAL WallClock {
 public:
  // Seconds since 1970-01-01 00:00 UTC, with fraction: what SystemClock
  // gives, within a few microseconds.
  static double now();

  // Whether reads now extrapolate from ticks (for tests and benchmarks).
  static bool ticking();

  // The longest a thread goes on from one real read.
  static constexpr double kRefreshSeconds = 250e-6;
};

}  // namespace telvo::platform
