// The error post: its JSON text and its request. Pure functions of their
// arguments; any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "telvo/types.h"
#include "telvo/url_request.h"

namespace telvo {
namespace delivery {

// Error details given as fields, written on the caller's thread: their
// members (",\"k\":v...", see encoding::appendFields) and which of the
// report's own members they replace.
struct WrittenDetails {
  std::string members;
  bool applicationName = false;
  bool timestamp = false;
  bool errorCode = false;
};

struct ErrorPost {
  // {"sessionId": sessionId, "data": {"applicationName", "timestamp",
  // "errorCode": code} plus every member of `details`, which win}. Invalid
  // UTF-8 becomes U+FFFD and non-finite numbers null.
  static std::string write(const Json& sessionId, const Json& applicationName,
                           std::int64_t timestamp, const Json& code,
                           const std::optional<Json>& details);
  // The same payload with details already written; parses as the one above
  // for the same details.
  static std::string write(const Json& sessionId, const Json& applicationName,
                           std::int64_t timestamp, const Json& code, const WrittenDetails& details);

  // The POST of `payload` to servicesUrl + "/api/postEvent/error", the
  // setting as a location shows it (encoding::textOrNull).
  static URLRequest request(std::string_view servicesUrl, std::string_view payload);
};

}  // namespace delivery
}  // namespace telvo
