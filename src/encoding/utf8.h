// UTF-8 checks shared by the codecs and the envelope decoder.
//
// Validity follows RFC 3629: no overlong forms, no surrogate code points,
// nothing above U+10FFFF. Pure functions; any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace telvo::utf8 {

// True when the `length` bytes at `bytes` are well-formed UTF-8.
bool isValid(const std::uint8_t* bytes, std::size_t length);
inline bool isValid(std::string_view text) {
  return isValid(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
}

// `text` with every ill-formed sequence replaced by U+FFFD (one replacement per
// maximal invalid subpart, as Unicode recommends). Valid text comes back as is.
std::string sanitized(std::string_view text);

}  // namespace telvo::utf8
