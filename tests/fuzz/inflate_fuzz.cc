// Inflating arbitrary bytes, with and without an output limit: never
// crashes, and a limit is never exceeded.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "telvo/gzip.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto length = static_cast<std::uint32_t>(size);
  constexpr std::size_t kLimit = 1 << 20;
  auto limited = telvo::dataWithCompressedBytes(data, length, kLimit);
  if (limited && limited->size() > kLimit) std::abort();
  // Unlimited only where the limited one succeeded: a bomb must not eat the
  // fuzzer's memory.
  if (limited) {
    auto whole = telvo::dataWithCompressedBytes(data, length);
    if (!whole || *whole != *limited) std::abort();
  }
  return 0;
}
