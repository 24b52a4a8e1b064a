// URLRequest: a complete HTTP request as a value, built by the caller and
// handed to the transport.
#pragma once

#include "telvo/export.h"

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "telvo/types.h"
#include "telvo/url.h"

namespace telvo {

// Header fields in insertion order. Names compare case-insensitively.
using HTTPHeaderFields = std::vector<std::pair<std::string, std::string>>;

struct TELVO_API URLRequest {
  URLRequest() = default;
  explicit URLRequest(std::optional<URL> url, int cachePolicy = 0, double timeoutInterval = 60.0)
      : url(std::move(url)), cachePolicy(cachePolicy), timeoutInterval(timeoutInterval) {}

  std::optional<URL> url;  // nothing: the request fails in the transport
  std::string HTTPMethod = "GET";
  HTTPHeaderFields allHTTPHeaderFields;
  std::optional<Bytes> HTTPBody;
  // 4 asks for no cached data. libcurl keeps no cache, so no policy adds a header.
  int cachePolicy = 0;
  // Seconds without data before the request fails: any byte sent or
  // received (a header line, a piece of the body) starts it again.
  double timeoutInterval = 60.0;
  // When set, the transport sends and keeps cookies from the shared cookie storage.
  bool HTTPShouldHandleCookies = true;

  // Sets `field` to `value`, replacing an existing field of that name in place.
  void setValue(const std::string& value, const std::string& field);
  // Replaces every header field.
  void setAllHTTPHeaderFields(HTTPHeaderFields fields) { allHTTPHeaderFields = std::move(fields); }
  std::optional<std::string> valueForHTTPHeaderField(const std::string& field) const;
};

}  // namespace telvo
