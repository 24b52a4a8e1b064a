#include "telvo/envelope.h"

#include <zlib.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

#include "encoding/base64_detail.h"
#include "encoding/utf8.h"
#include "telvo/base64.h"

namespace telvo {
namespace {

constexpr std::string_view kParameterPrefix = "telvoJson=";

// Inflates a whole zlib stream for the decoder. Stricter than
// dataWithCompressedBytes: a stream cut short is reported as such instead of
// handing its prefix on, so a truncated body is blamed on the right layer.
enum class InflateResult { kOk, kNotZlib, kTruncated };

InflateResult inflateWhole(const Bytes& packed, std::string& plain) {
  z_stream zs{};
  if (inflateInit(&zs) != Z_OK) return InflateResult::kNotZlib;
  std::unique_ptr<z_stream, int (*)(z_stream*)> guard(&zs, inflateEnd);
  // zlib counts in 32 bits; larger bodies go through in slices.
  const Bytef* next = packed.data();
  std::size_t left = packed.size();
  plain.resize(packed.size() * 4 + 64);
  std::size_t produced = 0;
  for (;;) {
    if (zs.avail_in == 0 && left != 0) {
      const std::size_t slice = std::min<std::size_t>(left, 1u << 30);
      zs.next_in = const_cast<Bytef*>(next);
      zs.avail_in = static_cast<uInt>(slice);
      next += slice;
      left -= slice;
    }
    if (produced == plain.size()) plain.resize(plain.size() * 2);
    const std::size_t room = std::min<std::size_t>(plain.size() - produced, 1u << 30);
    zs.next_out = reinterpret_cast<Bytef*>(plain.data() + produced);
    zs.avail_out = static_cast<uInt>(room);
    const int status = inflate(&zs, Z_NO_FLUSH);
    produced += room - zs.avail_out;
    if (status == Z_STREAM_END) break;
    if (status == Z_BUF_ERROR && zs.avail_in == 0 && left == 0) {
      plain.resize(produced);
      return produced == 0 && zs.total_in < 2 ? InflateResult::kNotZlib : InflateResult::kTruncated;
    }
    if (status != Z_OK && status != Z_BUF_ERROR) return InflateResult::kNotZlib;
  }
  plain.resize(produced);
  return InflateResult::kOk;
}

DecodedEnvelope failed(DecodedEnvelope::Failure failure, std::string message) {
  DecodedEnvelope result;
  result.failure = failure;
  result.message = std::move(message);
  return result;
}

}  // namespace

std::optional<Bytes> buildTelvoJsonParameter(std::string_view json) {
  try {
    const std::size_t plainLength = kParameterPrefix.size() + json.size();
    const uLong bound = compressBound(plainLength);
    // One block holds the parameter text and the compressed form; only the
    // Base64 text ends up in the result. Bodies of ordinary size reuse a
    // per-thread block: a fresh one per call costs page faults each time the
    // allocator hands memory back to the system, which for small bodies is a
    // sizeable share of the compression time itself.
    constexpr std::size_t kKeptScratch = 1 << 20;
    thread_local std::unique_ptr<Bytef[]> kept;
    std::unique_ptr<Bytef[]> oneOff;
    Bytef* plain;
    if (plainLength + bound <= kKeptScratch) {
      if (!kept) kept.reset(new Bytef[kKeptScratch]);
      plain = kept.get();
    } else {
      oneOff.reset(new Bytef[plainLength + bound]);
      plain = oneOff.get();
    }
    Bytef* const packed = plain + plainLength;
    std::memcpy(plain, kParameterPrefix.data(), kParameterPrefix.size());
    if (!json.empty()) std::memcpy(plain + kParameterPrefix.size(), json.data(), json.size());
    uLongf packedLength = bound;
    if (compress(packed, &packedLength, plain, plainLength) != Z_OK) return std::nullopt;
    Bytes body(base64_detail::encodedLength(packedLength, 0));
    base64_detail::encodeInto(packed, packedLength, 0, body.data());
    return body;
  } catch (const std::bad_alloc&) {
    return std::nullopt;
  }
}

DecodedEnvelope decodeTelvoJsonParameter(std::string_view body) {
  using Failure = DecodedEnvelope::Failure;
  auto packed = dataWithBase64EncodedString(body);
  if (!packed) {
    return failed(Failure::kBase64, "base64: the body holds no Base64 data (" +
                                        std::to_string(body.size()) + " bytes read)");
  }
  std::string plain;
  InflateResult inflated;
  try {
    inflated = inflateWhole(*packed, plain);
  } catch (const std::exception&) {
    return failed(Failure::kZlib,
                  "zlib: out of memory inflating " + std::to_string(packed->size()) + " bytes");
  }
  switch (inflated) {
    case InflateResult::kOk:
      break;
    case InflateResult::kNotZlib:
      return failed(Failure::kZlib, "zlib: the Base64-decoded " + std::to_string(packed->size()) +
                                        " bytes are not a zlib stream");
    case InflateResult::kTruncated:
      return failed(Failure::kZlib, "zlib: the stream ends early after " +
                                        std::to_string(plain.size()) +
                                        " bytes of text (truncated body?)");
  }
  if (!utf8::isValid(plain)) {
    return failed(Failure::kUtf8, "utf-8: the inflated text is not valid UTF-8");
  }
  if (plain.compare(0, kParameterPrefix.size(), kParameterPrefix) != 0) {
    return failed(Failure::kPrefix, "prefix: the inflated text does not begin with \"telvoJson=\"");
  }
  DecodedEnvelope result;
  result.json = plain.substr(kParameterPrefix.size());
  try {
    result.document = Json::parse(result.json);
  } catch (const std::exception& e) {
    result.failure = Failure::kJson;
    result.message = std::string("json: the text after \"telvoJson=\" does not parse: ") + e.what();
  }
  return result;
}

}  // namespace telvo
