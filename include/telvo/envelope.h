// The request body envelope: "telvoJson=" + JSON text, compressed as a zlib
// stream, written as unwrapped Base64, as bytes. Every hello, batch post and
// error post carries it.
#pragma once

#include "telvo/export.h"

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "telvo/types.h"

namespace telvo {

// The body for `json` (sent as it stands, not escaped). Nothing when a layer
// fails; the caller then sends the request without a body.
TELVO_API std::optional<Bytes> buildTelvoJsonParameter(std::string_view json);

// The request conventions shared by every post.
inline constexpr const char* kEnvelopeContentType = "application/x-gzip";
inline constexpr const char* kEnvelopeContentEncoding = "gzip";
inline constexpr int kRequestCachePolicy = 4;    // reload, ignoring local and remote cache data
inline constexpr double kRequestTimeout = 30.0;  // seconds

}  // namespace telvo

namespace telvo {

// What decodeTelvoJsonParameter inflates at most, by default: far above any
// batch the library sends, far below what a decompression bomb asks for.
inline constexpr std::size_t kDefaultMaxInflatedBytes = std::size_t{64} << 20;  // 64 MiB

// The reverse, for receivers and tools: Base64-decode (tolerantly), inflate,
// check UTF-8, strip the "telvoJson=" prefix, parse. `failure` names the first
// layer that failed and `message` says why in one line starting with the
// layer's name ("base64:", "zlib:", "utf-8:", "prefix:", "json:"). Unlike
// dataWithCompressedData, a zlib stream cut short is a kZlib failure, and so
// is one that inflates to more than `maxInflatedBytes` (inflating stops
// there). A document nested deeper than 128 arrays and objects is a kJson
// failure. Never throws; any thread.
struct TELVO_API DecodedEnvelope {
  enum class Failure { kNone, kBase64, kZlib, kUtf8, kPrefix, kJson };
  Failure failure = Failure::kNone;
  std::string message;  // one line saying what failed, empty on success
  std::string json;     // the JSON text after the prefix (when the prefix was found)
  Json document;        // the parsed document (when failure is kNone)
  bool ok() const { return failure == Failure::kNone; }
};
TELVO_API DecodedEnvelope decodeTelvoJsonParameter(std::string_view body,
                                         std::size_t maxInflatedBytes = kDefaultMaxInflatedBytes);

}  // namespace telvo
