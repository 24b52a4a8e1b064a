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

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "collector/collector_store.h"
#include "collector/envelope_reader.h"

namespace telvo::tool {

enum class PostKind { kHello, kBatch, kError };

// The request headers that the checks look at.
struct PostHeaders {
  std::optional<std::string> contentType;
  std::optional<std::string> contentEncoding;
  std::optional<std::string> cookie;
};

// The bounds of one check.
struct CheckLimits {
  EnvelopeLimits envelope;
  // Problem lines kept for one post; one more line says how many were left out.
  std::size_t maxProblems = 100;
  // A session id longer than this (never one the collector handed out) is
  // stored cut to this length, since every event of the post repeats it.
  std::size_t maxSessionIdLength = 256;
};

struct CheckedPost {
  // The envelope gave a JSON document; when false the post carries nothing
  // usable and `problems` says which layer failed.
  bool decoded = false;
  // The inflated text (when it got that far); the rows below point into it.
  std::shared_ptr<const std::string> text;
  // The document's JSON text, as it was sent.
  std::string_view document;
  std::vector<std::string> problems;
  // Hello: the members, as far as they are text; its helloJson is left
  // empty (the document is the hello). The caller adds the session id,
  // times and answer.
  SessionRow hello;
  // Batch and error: the session id the post names, as stored.
  std::string sessionId;
  // Batch: one row per element whose "eventType" is text.
  std::vector<NewEvent> events;
  // Error: the report, when "data" is an object.
  std::optional<NewError> error;
};

class PostChecker {
 public:
  using SessionLookup = std::function<bool(const std::string& sessionId)>;

  // Checks `body` as a post of `kind`. `knownSession` answers whether a
  // session id was handed out. The document is read within `limits` (a body
  // whose text inflates to more than the limit is refused at the zlib layer,
  // one nested or wide beyond it at the JSON layer) and never made into a
  // tree. Never throws.
  static CheckedPost check(PostKind kind, const PostHeaders& headers, std::string_view body,
                           const SessionLookup& knownSession, const CheckLimits& limits = {});

  // The layer one of check()'s problems is about: "labels" (Content-Type,
  // Content-Encoding), "envelope" (Base64, zlib, prefix, JSON text),
  // "session" (the session id is empty or was never handed out) or
  // "document" (the members).
  static const char* layerOf(const std::string& problem);
};

}  // namespace telvo::tool
