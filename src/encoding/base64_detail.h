// Raw Base64 encoding into a caller's buffer, for callers (the envelope) that
// want the text written straight into their own output.
#pragma once

#include <cstddef>
#include <cstdint>

namespace telvo::base64_detail {

// Exact number of characters the encoding of `length` bytes takes with the
// given wrap width (separators included).
std::size_t encodedLength(std::size_t length, std::size_t wrapWidth);

// Writes exactly encodedLength(length, wrapWidth) characters to `out`.
void encodeInto(const std::uint8_t* bytes, std::size_t length, std::size_t wrapWidth,
                std::uint8_t* out);

}  // namespace telvo::base64_detail
