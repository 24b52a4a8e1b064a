// Base64 decoding of arbitrary text: never crashes, and what it decodes
// encodes and decodes back to the same bytes.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "telvo/base64.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  auto decoded = telvo::dataWithBase64EncodedString(text);
  if (!decoded) return 0;
  auto encoded = telvo::base64EncodedString(*decoded);
  if (!encoded) std::abort();
  auto again = telvo::dataWithBase64EncodedString(*encoded);
  if (!again || *again != *decoded) std::abort();
  return 0;
}
