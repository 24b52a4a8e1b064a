#include "telvo/base64.h"

#include <array>
#include <cstring>
#include <new>

#include "encoding/base64_detail.h"
#include "encoding/utf8.h"

namespace telvo {
namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Entry of every character outside the alphabet. Its 0x40 bit is set, which no
// sextet (0..63) has, so four lookups can be checked with one test.
constexpr std::uint8_t kNotInAlphabet = 99;
static_assert((kNotInAlphabet & 0x40) != 0, "marker must be distinguishable from any sextet");

// Indexed by a 7-bit character code: the sextet of each alphabet character,
// the marker everywhere else (padding, white space, "-" and "_" included).
constexpr std::array<std::uint8_t, 128> makeDecodeTable() {
  std::array<std::uint8_t, 128> table{};
  for (auto& entry : table) entry = kNotInAlphabet;
  for (std::uint8_t i = 0; i < 64; ++i) table[static_cast<std::uint8_t>(kAlphabet[i])] = i;
  return table;
}
constexpr std::array<std::uint8_t, 128> kDecodeTable = makeDecodeTable();

// The decoder reads text as ASCII: a byte of a non-ASCII character becomes a
// byte outside the alphabet, and an ASCII byte is looked up by its low seven
// bits. Folding both steps into one 256-entry table keeps the loop at a single
// lookup per byte.
constexpr std::array<std::uint8_t, 256> makeByteTable() {
  std::array<std::uint8_t, 256> table{};
  for (unsigned c = 0; c < 256; ++c) {
    table[c] = c < 0x80 ? kDecodeTable[c & 0x7F] : kNotInAlphabet;
  }
  return table;
}
constexpr std::array<std::uint8_t, 256> kByteTable = makeByteTable();

// Every 12-bit value as its two alphabet characters: one lookup per half group.
// The 8 KiB table is filled at its first use rather than stored in the
// library's file, which it would make 8 KiB larger.
struct CharPairs {
  char pair[4096][2];
};
const CharPairs& charPairs() {
  static const CharPairs table = [] {
    CharPairs filled;
    for (unsigned v = 0; v < 4096; ++v) {
      filled.pair[v][0] = kAlphabet[v >> 6];
      filled.pair[v][1] = kAlphabet[v & 63];
    }
    return filled;
  }();
  return table;
}

inline std::uint8_t* encodeGroups(const CharPairs& pairs, const std::uint8_t* in,
                                  std::size_t groups, std::uint8_t* out) {
  for (std::size_t g = 0; g < groups; ++g, in += 3, out += 4) {
    const std::uint32_t v = (std::uint32_t{in[0]} << 16) | (std::uint32_t{in[1]} << 8) | in[2];
    std::memcpy(out, pairs.pair[v >> 12], 2);
    std::memcpy(out + 2, pairs.pair[v & 0xFFF], 2);
  }
  return out;
}

}  // namespace

namespace base64_detail {

std::size_t encodedLength(std::size_t length, std::size_t wrapWidth) {
  const std::size_t groups = length / 3;
  const std::size_t lineWidth = wrapWidth & ~std::size_t{3};
  std::size_t chars = groups * 4 + (length % 3 != 0 ? 4 : 0);
  // A separator follows every complete group that fills a line, and only those.
  if (lineWidth != 0) chars += 2 * (groups / (lineWidth / 4));
  return chars;
}

void encodeInto(const std::uint8_t* in, std::size_t length, std::size_t wrapWidth,
                std::uint8_t* out) {
  const CharPairs& pairs = charPairs();
  std::size_t groups = length / 3;
  const std::size_t lineWidth = wrapWidth & ~std::size_t{3};
  if (lineWidth == 0) {
    out = encodeGroups(pairs, in, groups, out);
    in += groups * 3;
  } else {
    // Counting characters is equivalent to filling whole lines of
    // lineWidth / 4 groups: a line ends exactly when its last group is written.
    const std::size_t groupsPerLine = lineWidth / 4;
    while (groups >= groupsPerLine) {
      out = encodeGroups(pairs, in, groupsPerLine, out);
      in += groupsPerLine * 3;
      groups -= groupsPerLine;
      *out++ = '\r';
      *out++ = '\n';
    }
    out = encodeGroups(pairs, in, groups, out);
    in += groups * 3;
  }
  switch (length % 3) {
    case 2:
      out[0] = kAlphabet[in[0] >> 2];
      out[1] = kAlphabet[((in[0] & 3) << 4) | (in[1] >> 4)];
      out[2] = kAlphabet[(in[1] & 15) << 2];
      out[3] = '=';
      break;
    case 1:
      out[0] = kAlphabet[in[0] >> 2];
      out[1] = kAlphabet[(in[0] & 3) << 4];
      out[2] = '=';
      out[3] = '=';
      break;
    default:
      break;
  }
}

}  // namespace base64_detail

std::optional<std::string> base64EncodedStringWithWrapWidth(const std::uint8_t* bytes,
                                                            std::size_t length,
                                                            std::size_t wrapWidth) {
  if (bytes == nullptr || length == 0) return std::nullopt;
  std::string text(base64_detail::encodedLength(length, wrapWidth), '\0');
  base64_detail::encodeInto(bytes, length, wrapWidth, reinterpret_cast<std::uint8_t*>(text.data()));
  return text;
}

std::optional<std::string> base64EncodedStringWithWrapWidth(const Bytes& bytes,
                                                            std::size_t wrapWidth) {
  return base64EncodedStringWithWrapWidth(bytes.data(), bytes.size(), wrapWidth);
}

std::optional<std::string> base64EncodedString(const Bytes& bytes) {
  return base64EncodedStringWithWrapWidth(bytes.data(), bytes.size(), 0);
}

std::optional<Bytes> dataWithBase64EncodedString(std::string_view text) {
  const auto* p = reinterpret_cast<const std::uint8_t*>(text.data());
  const auto* const end = p + text.size();
  Bytes data;
  try {
    data.resize((text.size() / 4) * 3 + 3);
  } catch (const std::bad_alloc&) {
    return std::nullopt;
  }
  std::uint8_t* out = data.data();
  std::uint8_t s[4];
  unsigned j = 0;
  while (p < end) {
    if (j == 0) {
      // Unbroken runs of alphabet characters go a whole quad at a time; the
      // first quad holding anything else drops to the byte-wise path below.
      while (end - p >= 4) {
        const std::uint8_t a = kByteTable[p[0]], b = kByteTable[p[1]], c = kByteTable[p[2]],
                           d = kByteTable[p[3]];
        if ((a | b | c | d) & 0x40) break;
        out[0] = static_cast<std::uint8_t>((a << 2) | (b >> 4));
        out[1] = static_cast<std::uint8_t>((b << 4) | (c >> 2));
        out[2] = static_cast<std::uint8_t>((c << 6) | d);
        out += 3;
        p += 4;
      }
      if (p == end) break;
    }
    const std::uint8_t v = kByteTable[*p++];
    if (v == kNotInAlphabet) continue;
    s[j++] = v;
    if (j == 4) {
      out[0] = static_cast<std::uint8_t>((s[0] << 2) | (s[1] >> 4));
      out[1] = static_cast<std::uint8_t>((s[1] << 4) | (s[2] >> 2));
      out[2] = static_cast<std::uint8_t>((s[2] << 6) | s[3]);
      out += 3;
      j = 0;
    }
  }
  // A lone trailing sextet carries fewer than eight bits and is dropped.
  if (j >= 2) *out++ = static_cast<std::uint8_t>((s[0] << 2) | (s[1] >> 4));
  if (j == 3) *out++ = static_cast<std::uint8_t>((s[1] << 4) | (s[2] >> 2));

  const std::size_t produced = static_cast<std::size_t>(out - data.data());
  if (produced == 0) return std::nullopt;
  data.resize(produced);
  // Text full of skipped characters leaves a large slack worth giving back.
  if (data.capacity() / 2 > produced) data.shrink_to_fit();
  return data;
}

std::optional<std::string> stringWithBase64EncodedString(std::string_view text) {
  auto data = dataWithBase64EncodedString(text);
  if (!data || !utf8::isValid(data->data(), data->size())) return std::nullopt;
  return std::string(data->begin(), data->end());
}

std::optional<std::string> base64EncodedStringWithWrapWidth(std::string_view text,
                                                            std::size_t wrapWidth) {
  if (utf8::isValid(text)) {
    return base64EncodedStringWithWrapWidth(reinterpret_cast<const std::uint8_t*>(text.data()),
                                            text.size(), wrapWidth);
  }
  const std::string repaired = utf8::sanitized(text);
  return base64EncodedStringWithWrapWidth(reinterpret_cast<const std::uint8_t*>(repaired.data()),
                                          repaired.size(), wrapWidth);
}

std::optional<std::string> base64EncodedString(std::string_view text) {
  return base64EncodedStringWithWrapWidth(text, 0);
}

std::optional<std::string> base64DecodedString(std::string_view text) {
  return stringWithBase64EncodedString(text);
}

std::optional<Bytes> base64DecodedData(std::string_view text) {
  return dataWithBase64EncodedString(text);
}

}  // namespace telvo
