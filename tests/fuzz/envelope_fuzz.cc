// The request-body decoder on arbitrary bodies: never crashes, stays within
// its inflate limit, and a body it accepts holds a document of bounded depth.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "telvo/envelope.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view body(reinterpret_cast<const char*>(data), size);
  telvo::DecodedEnvelope decoded = telvo::decodeTelvoJsonParameter(body, 1 << 20);
  if (decoded.ok()) {
    if (decoded.json.size() > (1 << 20)) std::abort();
    (void)decoded.document.dump();  // a recursive walk: must be bounded
  } else if (decoded.message.empty()) {
    std::abort();
  }
  return 0;
}
