// PostChecker: takes apart one post that a client sent to the collector
// (hello, batch or error), checking it against what the library sends.
//
// The checks: the two envelope labels ("Content-Type: application/x-gzip",
// "Content-Encoding: gzip"; a hello that carries a Cookie header has neither,
// so it is not checked for them), the envelope itself (Base64, zlib stream,
// the "telvoJson=" prefix, JSON), and the document's members:
//   hello  {"propertyName", "applicationName", "applicationVersion",
//           "platformName", "deviceType": "settop", "deviceVersion",
//           "clientDeviceId" (upper-case UUID), "deviceModel"
//           [, "telvoUUIDToken"]}, all text;
//   batch  {"sessionId", "events": [{"eventType", "eventData": {...}}, ...]};
//   error  {"sessionId", "data": {"applicationName", "timestamp",
//           "errorCode", ...}};
// and for batch and error posts that the session id is one the collector
// handed out. Every deviation becomes one line in `problems`; whatever is
// usable is still taken apart into rows, so nothing a client sent is lost.
//
// Pure logic apart from the session lookup; safe to call from any thread
// when the lookup is.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "collector/collector_store.h"
#include "telvo/envelope.h"
#include "telvo/types.h"

namespace telvo::tool {

enum class PostKind { kHello, kBatch, kError };

// The request headers that the checks look at.
struct PostHeaders {
  std::optional<std::string> contentType;
  std::optional<std::string> contentEncoding;
  std::optional<std::string> cookie;
};

struct CheckedPost {
  // The envelope gave a JSON document; when false the post carries nothing
  // usable and `problems` says which layer failed.
  bool decoded = false;
  Json document;
  std::vector<std::string> problems;
  // Hello: the members, as far as they are text. `helloJson` is the decoded
  // document. The caller adds the session id, times and answer.
  SessionRow hello;
  // Batch: one row per element whose "eventType" is text.
  std::vector<EventRow> events;
  // Error: the report, when "data" is an object.
  std::optional<ErrorRow> error;
};

class PostChecker {
 public:
  using SessionLookup = std::function<bool(const std::string& sessionId)>;

  // Checks `body` as a post of `kind`. `receivedMs` stamps the rows;
  // `knownSession` answers whether a session id was handed out; a body whose
  // text inflates to more than `maxInflatedBytes` is refused at the zlib
  // layer. Never throws.
  static CheckedPost check(PostKind kind, const PostHeaders& headers, std::string_view body,
                           std::int64_t receivedMs, const SessionLookup& knownSession,
                           std::size_t maxInflatedBytes = kDefaultMaxInflatedBytes);

  // The layer one of check()'s problems is about: "labels" (Content-Type,
  // Content-Encoding), "envelope" (Base64, zlib, prefix, JSON text),
  // "session" (the session id is empty or was never handed out) or
  // "document" (the members).
  static const char* layerOf(const std::string& problem);
};

}  // namespace telvo::tool
