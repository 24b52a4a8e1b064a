// The capture path's wall clock against the system's: every read within
// 100 us of clock_gettime around it, from several threads at once while the
// tick rate is measured and after, and reading ticks wherever the kernel
// keeps its own time with them.
#include "platform/wall_clock.h"

#include <gtest/gtest.h>
#include <time.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace telvo::platform {
namespace {

double systemSeconds() {
  timespec ts{};
  clock_gettime(CLOCK_REALTIME, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

std::string kernelClockSource() {
  std::FILE* file =
      std::fopen("/sys/devices/system/clocksource/clocksource0/current_clocksource", "re");
  if (!file) return "";
  char line[64] = {};
  const bool read = std::fgets(line, sizeof line, file) != nullptr;
  std::fclose(file);
  line[std::strcspn(line, "\n")] = '\0';
  return read ? line : "";
}

// Reads for `seconds`, each between two system reads; the worst distance
// outside them, in seconds.
double worstDistance(double seconds) {
  double worst = 0;
  const double end = systemSeconds() + seconds;
  for (;;) {
    const double before = systemSeconds();
    const double read = WallClock::now();
    const double after = systemSeconds();
    worst = std::max({worst, before - read, read - after});
    if (after > end) return worst;
  }
}

TEST(WallClockTest, EveryReadIsTheSystemClockWithinAHundredMicroseconds) {
  constexpr double kTolerance = 100e-6;
  std::vector<std::thread> threads;
  std::vector<double> worst(4, 0.0);
  for (std::size_t i = 0; i < worst.size(); ++i) {
    threads.emplace_back([&worst, i] { worst[i] = worstDistance(0.1); });
  }
  for (auto& thread : threads) thread.join();
  for (double w : worst) EXPECT_LT(w, kTolerance);

  // Measured by now: the reads that follow extrapolate wherever they can,
  // and a thread that sleeps past its anchor reads the clock again.
  const std::string source = kernelClockSource();
#if defined(__x86_64__)
  if (source == "tsc") {
    EXPECT_TRUE(WallClock::ticking());
  }
#elif defined(__aarch64__)
  if (source == "arch_sys_counter") {
    EXPECT_TRUE(WallClock::ticking());
  }
#else
  EXPECT_FALSE(WallClock::ticking()) << source;
#endif
  EXPECT_LT(worstDistance(0.05), kTolerance);
  for (int i = 0; i < 20; ++i) {
    std::this_thread::sleep_for(std::chrono::microseconds(300 + 37 * i));
    const double before = systemSeconds();
    const double read = WallClock::now();
    const double after = systemSeconds();
    EXPECT_GE(read, before - kTolerance);
    EXPECT_LE(read, after + kTolerance);
  }
}

}  // namespace
}  // namespace telvo::platform
