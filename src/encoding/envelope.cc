#include "telvo/envelope.h"

#include <zlib.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <memory>
#include <new>

#include "encoding/base64_detail.h"
#include "encoding/envelope_request.h"
#include "encoding/json_text.h"
#include "encoding/utf8.h"
#include "telvo/base64.h"
#include "telvo/url.h"

namespace telvo {
namespace {

constexpr std::string_view kParameterPrefix = "telvoJson=";

// Inflates a whole zlib stream for the decoder. Stricter than
// dataWithCompressedBytes: a stream cut short is reported as such instead of
// handing its prefix on, so a truncated body is blamed on the right layer.
enum class InflateResult { kOk, kNotZlib, kTruncated, kTooLarge };

InflateResult inflateWhole(const Bytes& packed, std::string& plain, std::size_t maxLength) {
  z_stream zs{};
  if (inflateInit(&zs) != Z_OK) return InflateResult::kNotZlib;
  std::unique_ptr<z_stream, int (*)(z_stream*)> guard(&zs, inflateEnd);
  // zlib counts in 32 bits; larger bodies go through in slices.
  const Bytef* next = packed.data();
  std::size_t left = packed.size();
  // One byte past the limit is room enough to see it passed.
  const std::size_t cap =
      maxLength < std::numeric_limits<std::size_t>::max() ? maxLength + 1 : maxLength;
  plain.resize(std::min(packed.size() * 4 + 64, cap));
  std::size_t produced = 0;
  for (;;) {
    if (zs.avail_in == 0 && left != 0) {
      const std::size_t slice = std::min<std::size_t>(left, 1u << 30);
      zs.next_in = const_cast<Bytef*>(next);
      zs.avail_in = static_cast<uInt>(slice);
      next += slice;
      left -= slice;
    }
    if (produced > maxLength) return InflateResult::kTooLarge;
    if (produced == plain.size()) plain.resize(std::min(plain.size() * 2, cap));
    const std::size_t room = std::min<std::size_t>(plain.size() - produced, 1u << 30);
    zs.next_out = reinterpret_cast<Bytef*>(plain.data() + produced);
    zs.avail_out = static_cast<uInt>(room);
    const int status = inflate(&zs, Z_NO_FLUSH);
    produced += room - zs.avail_out;
    if (status == Z_STREAM_END) {
      if (produced > maxLength) return InflateResult::kTooLarge;
      break;
    }
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
    z_stream zs{};
    if (deflateInit(&zs, Z_DEFAULT_COMPRESSION) != Z_OK) return std::nullopt;
    std::unique_ptr<z_stream, int (*)(z_stream*)> guard(&zs, deflateEnd);
    const std::size_t plainLength = kParameterPrefix.size() + json.size();
    const std::size_t bound = deflateBound(&zs, plainLength);
    // Bodies of ordinary size are compressed into a per-thread block: a fresh
    // one per call costs page faults each time the allocator hands memory back
    // to the system, a sizeable share of the compression time for small
    // bodies. Only the Base64 text ends up in the result.
    constexpr std::size_t kKeptScratch = 1 << 20;
    thread_local std::unique_ptr<Bytef[]> kept;
    std::unique_ptr<Bytef[]> oneOff;
    Bytef* packed;
    if (bound <= kKeptScratch) {
      if (!kept) kept.reset(new Bytef[kKeptScratch]);
      packed = kept.get();
    } else {
      oneOff.reset(new Bytef[bound]);
      packed = oneOff.get();
    }

    // The prefix and the text go in one after the other, so the text is never
    // copied; deflate holds input back until it has enough, so the stream is
    // byte for byte what one compress() of the joined text gives. zlib counts
    // in 32 bits: larger inputs and outputs go through in slices.
    constexpr std::size_t kSlice = static_cast<uInt>(-1);
    std::size_t outLeft = bound;
    zs.next_out = packed;
    zs.avail_out = 0;
    auto feed = [&](std::string_view text, int lastFlush) {
      zs.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
      std::size_t inLeft = text.size();
      for (;;) {
        if (zs.avail_in == 0 && inLeft > 0) {
          zs.avail_in = static_cast<uInt>(std::min(inLeft, kSlice));
          inLeft -= zs.avail_in;
        }
        if (zs.avail_out == 0) {
          if (outLeft == 0) return false;
          zs.avail_out = static_cast<uInt>(std::min(outLeft, kSlice));
          outLeft -= zs.avail_out;
        }
        const int flush = inLeft == 0 ? lastFlush : Z_NO_FLUSH;
        const int status = deflate(&zs, flush);
        if (status == Z_STREAM_END) return true;
        if (status != Z_OK && !(status == Z_BUF_ERROR && zs.avail_out == 0)) return false;
        if (flush == Z_NO_FLUSH && zs.avail_in == 0 && inLeft == 0) return true;
      }
    };
    if (!feed(kParameterPrefix, Z_NO_FLUSH) || !feed(json, Z_FINISH)) return std::nullopt;
    const std::size_t packedLength = zs.total_out;
    Bytes body(base64_detail::encodedLength(packedLength, 0));
    base64_detail::encodeInto(packed, packedLength, 0, body.data());
    return body;
  } catch (const std::bad_alloc&) {
    return std::nullopt;
  }
}

DecodedEnvelope decodeTelvoJsonParameter(std::string_view body, std::size_t maxInflatedBytes) {
  using Failure = DecodedEnvelope::Failure;
  auto packed = dataWithBase64EncodedString(body);
  if (!packed) {
    return failed(Failure::kBase64, "base64: the body holds no Base64 data (" +
                                        std::to_string(body.size()) + " bytes read)");
  }
  std::string plain;
  InflateResult inflated;
  try {
    inflated = inflateWhole(*packed, plain, maxInflatedBytes);
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
    case InflateResult::kTooLarge:
      return failed(Failure::kZlib, "zlib: the stream inflates to more than the limit of " +
                                        std::to_string(maxInflatedBytes) + " bytes");
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
  if (!encoding::withinJsonDepth(result.json)) {
    result.failure = Failure::kJson;
    result.message = "json: the document nests arrays and objects more than " +
                     std::to_string(encoding::kMaxJsonDepth) + " deep";
    return result;
  }
  std::string problem;
  result.document = encoding::parseJson(result.json, &problem);
  if (result.document.is_discarded()) {
    result.document = Json();
    result.failure = Failure::kJson;
    result.message = "json: the text after \"telvoJson=\" does not parse: " + problem;
  }
  return result;
}

namespace encoding {

URLRequest envelopeRequest(const std::string& address, std::string_view json) {
  URLRequest request(URLWithURLStringConversion(address), kRequestCachePolicy, kRequestTimeout);
  request.HTTPMethod = "POST";
  request.setValue(kEnvelopeContentType, "Content-Type");
  request.setValue(kEnvelopeContentEncoding, "Content-Encoding");
  request.HTTPBody = buildTelvoJsonParameter(json);
  return request;
}

}  // namespace encoding
}  // namespace telvo
