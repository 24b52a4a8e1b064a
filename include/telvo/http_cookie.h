// HTTP cookies (RFC 6265) as property dictionaries, and the process-wide
// cookie storage that requests with cookie handling use.
#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "telvo/types.h"
#include "telvo/url.h"
#include "telvo/url_request.h"

namespace telvo {

// Property keys, as stored in user defaults.
inline constexpr const char* HTTPCookieName = "Name";
inline constexpr const char* HTTPCookieValue = "Value";
inline constexpr const char* HTTPCookieDomain = "Domain";
inline constexpr const char* HTTPCookiePath = "Path";
inline constexpr const char* HTTPCookieExpires = "Expires";  // seconds since 1970 (number)
inline constexpr const char* HTTPCookieMaximumAge = "Max-Age";  // seconds, as text
inline constexpr const char* HTTPCookieSecure = "Secure";  // "TRUE" when set
inline constexpr const char* HTTPCookieHttpOnly = "HttpOnly";  // "TRUE" when set

class HTTPCookie {
 public:
  // Parses every Set-Cookie field of `headers` against `url`: the default
  // domain is the URL's host, the default path comes from the URL's path.
  // Malformed cookies are skipped. In header order.
  static std::vector<HTTPCookie> cookiesWithResponseHeaderFields(const HTTPHeaderFields& headers,
                                                                 const URL& url);
  // A cookie from stored properties; nothing where Name, Value, Domain or
  // Path is missing or not text.
  static std::optional<HTTPCookie> cookieWithProperties(const Json& properties);
  // One "Cookie" field holding "name=value" pairs joined by "; " (no field
  // for an empty list).
  static HTTPHeaderFields requestHeaderFieldsWithCookies(const std::vector<HTTPCookie>& cookies);

  // The property dictionary: Name, Value, Domain, Path, and Expires, Max-Age,
  // Secure and HttpOnly where the cookie has them.
  const Json& properties() const { return properties_; }
  std::string name() const;
  std::string value() const;
  std::string domain() const;
  std::string path() const;

 private:
  explicit HTTPCookie(Json properties) : properties_(std::move(properties)) {}
  Json properties_;
};

// The process-wide cookie storage of requests that handle cookies.
enum class HTTPCookieAcceptPolicy { Always = 0, Never = 1, OnlyFromMainDocumentDomain = 2 };

class HTTPCookieStorage {
 public:
  static HTTPCookieStorage& sharedHTTPCookieStorage();
  HTTPCookieAcceptPolicy cookieAcceptPolicy() const;
  void setCookieAcceptPolicy(HTTPCookieAcceptPolicy policy);

 private:
  HTTPCookieStorage() = default;
  std::atomic<int> policy_{static_cast<int>(HTTPCookieAcceptPolicy::OnlyFromMainDocumentDomain)};
};

}  // namespace telvo
