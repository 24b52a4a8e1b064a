// The library-wide stop (telvo::shutdown): once it has begun, every client
// refuses new work without a word.
#pragma once

#include <atomic>

namespace telvo {
namespace core {

inline std::atomic<bool> libraryStopped{false};

inline bool stopped() { return libraryStopped.load(std::memory_order_relaxed); }

}  // namespace core
}  // namespace telvo
