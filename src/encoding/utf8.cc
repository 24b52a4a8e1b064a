#include "encoding/utf8.h"

namespace telvo::utf8 {
namespace {

// Length of the well-formed sequence starting at `p` (at most `left` bytes
// available), or 0 when it is ill-formed. On failure `consumed` receives the
// length of the maximal invalid subpart (at least 1), so callers can resume.
std::size_t sequenceLength(const std::uint8_t* p, std::size_t left, std::size_t& consumed) {
  const std::uint8_t b0 = p[0];
  consumed = 1;
  if (b0 < 0x80) return 1;
  std::size_t need;
  std::uint8_t lo = 0x80, hi = 0xBF;  // bounds of the second byte
  if (b0 >= 0xC2 && b0 <= 0xDF) {
    need = 2;
  } else if (b0 >= 0xE0 && b0 <= 0xEF) {
    need = 3;
    if (b0 == 0xE0) lo = 0xA0;  // overlong
    if (b0 == 0xED) hi = 0x9F;  // surrogates
  } else if (b0 >= 0xF0 && b0 <= 0xF4) {
    need = 4;
    if (b0 == 0xF0) lo = 0x90;  // overlong
    if (b0 == 0xF4) hi = 0x8F;  // above U+10FFFF
  } else {
    return 0;
  }
  for (std::size_t i = 1; i < need; ++i) {
    if (i >= left) return 0;
    const std::uint8_t b = p[i];
    const bool ok = i == 1 ? (b >= lo && b <= hi) : (b >= 0x80 && b <= 0xBF);
    if (!ok) return 0;
    consumed = i + 1;
  }
  return need;
}

}  // namespace

bool isValid(const std::uint8_t* bytes, std::size_t length) {
  std::size_t i = 0;
  while (i < length) {
    // ASCII runs dominate JSON; skip them eight bytes at a time.
    while (i + 8 <= length) {
      std::uint64_t word;
      __builtin_memcpy(&word, bytes + i, 8);
      if (word & 0x8080808080808080ULL) break;
      i += 8;
    }
    if (i >= length) break;
    std::size_t consumed;
    const std::size_t n = sequenceLength(bytes + i, length - i, consumed);
    if (n == 0) return false;
    i += n;
  }
  return true;
}

std::string sanitized(std::string_view text) {
  if (isValid(text)) return std::string(text);
  const auto* p = reinterpret_cast<const std::uint8_t*>(text.data());
  std::string out;
  out.reserve(text.size() + 16);
  std::size_t i = 0;
  while (i < text.size()) {
    std::size_t consumed;
    const std::size_t n = sequenceLength(p + i, text.size() - i, consumed);
    if (n == 0) {
      out += "\xEF\xBF\xBD";
      i += consumed;
    } else {
      out.append(text.data() + i, n);
      i += n;
    }
  }
  return out;
}

}  // namespace telvo::utf8
