// The envelope's decoder: what the collector and the telvo tool read posts
// with. The client itself only builds envelopes (envelope.cc).
#include <zlib.h>

#include <algorithm>
#include <limits>
#include <memory>
#include <string>

#include "encoding/envelope_request.h"
#include "encoding/json_text.h"
#include "encoding/utf8.h"
#include "telvo/base64.h"
#include "telvo/envelope.h"

namespace telvo {

using encoding::kParameterPrefix;

namespace {

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

}  // namespace telvo
