#include "collector/envelope_reader.h"

#include <zlib.h>

#include <algorithm>
#include <new>
#include <optional>

#include "encoding/utf8.h"
#include "telvo/base64.h"

namespace telvo::tool {
namespace {

using Failure = DecodedEnvelope::Failure;

constexpr std::string_view kPrefix = "telvoJson=";

enum class Inflated { kOk, kNotZlib, kTruncated, kTooLarge };

// Inflates `packed` into `out` (when not null, which must have room for
// all of it), or only counts the bytes (when null, in a small scratch
// buffer). `*produced` is what came out; more than `limit` stops it.
Inflated inflateInto(const Bytes& packed, std::size_t limit, char* out, std::size_t* produced) {
  z_stream zs{};
  if (inflateInit(&zs) != Z_OK) return Inflated::kNotZlib;
  struct End {
    z_stream* zs;
    ~End() { inflateEnd(zs); }
  } end{&zs};
  constexpr std::size_t kSlice = 1u << 30;  // zlib counts in 32 bits
  constexpr std::size_t kScratch = 32 * 1024;
  char scratch[kScratch];
  const Bytef* next = packed.data();
  std::size_t left = packed.size();
  *produced = 0;
  for (;;) {
    if (zs.avail_in == 0 && left != 0) {
      const std::size_t slice = std::min(left, kSlice);
      zs.next_in = const_cast<Bytef*>(next);
      zs.avail_in = static_cast<uInt>(slice);
      next += slice;
      left -= slice;
    }
    // One byte past the limit is room enough to see it passed.
    char extra;
    char* target = scratch;
    std::size_t room = kScratch;
    if (out && *produced < limit) {
      target = out + *produced;
      room = std::min(limit - *produced, kSlice);
    } else if (out) {
      target = &extra;
      room = 1;
    }
    zs.next_out = reinterpret_cast<Bytef*>(target);
    zs.avail_out = static_cast<uInt>(room);
    const int status = inflate(&zs, Z_NO_FLUSH);
    *produced += room - zs.avail_out;
    if (*produced > limit) return Inflated::kTooLarge;
    if (status == Z_STREAM_END) return Inflated::kOk;
    if (status == Z_BUF_ERROR && zs.avail_in == 0 && left == 0) {
      return *produced == 0 && zs.total_in < 2 ? Inflated::kNotZlib : Inflated::kTruncated;
    }
    if (status != Z_OK && status != Z_BUF_ERROR) return Inflated::kNotZlib;
  }
}

ReadEnvelope failed(Failure failure, std::string message) {
  ReadEnvelope result;
  result.failure = failure;
  result.message = std::move(message);
  return result;
}

}  // namespace

ReadEnvelope readEnvelope(std::string_view body, const EnvelopeLimits& limits) {
  std::optional<Bytes> packed;
  try {
    packed = dataWithBase64EncodedString(body);
  } catch (const std::bad_alloc&) {
    return failed(Failure::kBase64, "base64: out of memory decoding " +
                                        std::to_string(body.size()) + " bytes");
  }
  if (!packed) {
    return failed(Failure::kBase64, "base64: the body holds no Base64 data (" +
                                        std::to_string(body.size()) + " bytes read)");
  }
  // Measured first, so that a bomb is refused before anything is allocated.
  std::size_t length = 0;
  Inflated measured = inflateInto(*packed, limits.maxInflatedBytes, nullptr, &length);
  switch (measured) {
    case Inflated::kOk:
      break;
    case Inflated::kNotZlib:
      return failed(Failure::kZlib, "zlib: the Base64-decoded " + std::to_string(packed->size()) +
                                        " bytes are not a zlib stream");
    case Inflated::kTooLarge:
      return failed(Failure::kZlib, "zlib: the stream inflates to more than the limit of " +
                                        std::to_string(limits.maxInflatedBytes) + " bytes");
    case Inflated::kTruncated:
      return failed(Failure::kZlib, "zlib: the stream ends early after " +
                                        std::to_string(length) +
                                        " bytes of text (truncated body?)");
  }
  auto text = std::make_shared<std::string>();
  try {
    text->resize(length);
  } catch (const std::bad_alloc&) {
    return failed(Failure::kZlib, "zlib: out of memory for " + std::to_string(length) +
                                      " bytes of inflated text");
  }
  std::size_t produced = 0;
  if (inflateInto(*packed, length, text->data(), &produced) != Inflated::kOk ||
      produced != length) {
    return failed(Failure::kZlib, "zlib: the stream inflated differently the second time");
  }
  packed.reset();

  ReadEnvelope result;
  result.text = text;
  const std::string_view plain(*text);
  if (!utf8::isValid(plain)) {
    result.failure = Failure::kUtf8;
    result.message = "utf-8: the inflated text is not valid UTF-8";
    return result;
  }
  if (plain.compare(0, kPrefix.size(), kPrefix) != 0) {
    result.failure = Failure::kPrefix;
    result.message = "prefix: the inflated text does not begin with \"telvoJson=\"";
    return result;
  }
  result.json = plain.substr(kPrefix.size());
  std::string error = checkJson(result.json, limits.json, &result.document);
  if (!error.empty()) {
    result.failure = Failure::kJson;
    result.message = "json: the text after \"telvoJson=\" does not parse: " + error.substr(6);
  }
  return result;
}

}  // namespace telvo::tool
