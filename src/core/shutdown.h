// The library-wide stop (telvo::shutdown): once it has begun, every client
// refuses new work without a word.
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <string>

namespace telvo {
namespace core {

inline std::atomic<bool> libraryStopped{false};

inline bool stopped() { return libraryStopped.load(std::memory_order_relaxed); }

// Why the calling thread's last Telvo::create gave nothing (the C interface
// reports it).
inline std::string& creationError() {
  thread_local std::string text;
  return text;
}

// Now plus `timeout` (negative counts as 0), for a deadline the host named:
// capped at a year, so no time-out overflows the clock.
inline std::chrono::steady_clock::time_point deadlineAfter(std::chrono::milliseconds timeout) {
  constexpr std::chrono::milliseconds kLongest = std::chrono::hours(24 * 366);
  return std::chrono::steady_clock::now() +
         std::clamp(timeout, std::chrono::milliseconds(0), kLongest);
}

}  // namespace core
}  // namespace telvo
