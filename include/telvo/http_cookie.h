// HTTP cookies (RFC 6265) as property dictionaries, and the process-wide
// cookie storage that requests with cookie handling use.
#pragma once

#include "telvo/export.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "telvo/types.h"
#include "telvo/url.h"
#include "telvo/url_request.h"

namespace telvo {

class Clock;

// Property keys, as stored in user defaults.
inline constexpr const char* HTTPCookieName = "Name";
inline constexpr const char* HTTPCookieValue = "Value";
inline constexpr const char* HTTPCookieDomain = "Domain";
inline constexpr const char* HTTPCookiePath = "Path";
inline constexpr const char* HTTPCookieExpires = "Expires";     // seconds since 1970 (number)
inline constexpr const char* HTTPCookieMaximumAge = "Max-Age";  // seconds, as text
inline constexpr const char* HTTPCookieSecure = "Secure";       // "TRUE" when set
inline constexpr const char* HTTPCookieHttpOnly = "HttpOnly";   // "TRUE" when set

class TELVO_API HTTPCookie {
 public:
  // Parses every Set-Cookie field of `headers` against `url` (RFC 6265): the
  // default domain is the URL's host, the default path comes from the URL's
  // path. A Domain attribute is kept as ".domain" and must domain-match the
  // host. Max-Age wins over Expires; both end up as the Expires property
  // (Max-Age counted from `now`, seconds since 1970; the system clock's time
  // where not given). Malformed cookies and cookies for another domain are
  // skipped. In header order.
  static std::vector<HTTPCookie> cookiesWithResponseHeaderFields(const HTTPHeaderFields& headers,
                                                                 const URL& url);
  static std::vector<HTTPCookie> cookiesWithResponseHeaderFields(const HTTPHeaderFields& headers,
                                                                 const URL& url, double now);
  // A cookie from stored properties; nothing where Name, Value, Domain or
  // Path is missing or not text, where the name is empty or holds "=", where
  // a value could break a header line, or where Path does not begin with "/".
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
  // When the cookie expires (seconds since 1970); nothing for a session cookie.
  std::optional<double> expiresDate() const;
  bool isSecure() const;

 private:
  explicit HTTPCookie(Json properties) : properties_(std::move(properties)) {}
  Json properties_;
};

// The process-wide cookie storage of requests that handle cookies: an
// in-memory jar that lives as long as the process. Requests whose
// HTTPShouldHandleCookies is set send the stored cookies that match their URL
// and store the cookies of their responses, unless the policy is Never.
// (A request has no separate main document here, so
// OnlyFromMainDocumentDomain accepts what Always accepts: cookies whose
// domain matches the request's host, which every cookie parsed against that
// host does.)
enum class HTTPCookieAcceptPolicy { Always = 0, Never = 1, OnlyFromMainDocumentDomain = 2 };

// Thread safety: every member function may be called from any thread.
class TELVO_API HTTPCookieStorage {
 public:
  // The jar every libcurl transport uses unless given its own. Expiry is
  // judged by the system clock.
  static HTTPCookieStorage& sharedHTTPCookieStorage();
  // An empty jar of its own; expiry judged by `clock` (the system clock when
  // null).
  explicit HTTPCookieStorage(std::shared_ptr<Clock> clock = nullptr);
  ~HTTPCookieStorage();
  HTTPCookieStorage(const HTTPCookieStorage&) = delete;
  HTTPCookieStorage& operator=(const HTTPCookieStorage&) = delete;

  HTTPCookieAcceptPolicy cookieAcceptPolicy() const;
  void setCookieAcceptPolicy(HTTPCookieAcceptPolicy policy);

  // Stores `cookies` as received for `url`, replacing a stored cookie with the
  // same name, domain and path; an expired cookie removes its stored match.
  // Does nothing under the Never policy.
  void setCookies(const std::vector<HTTPCookie>& cookies, const URL& url);
  // The unexpired cookies to send to `url` (domain, path and Secure match),
  // longest path first.
  std::vector<HTTPCookie> cookiesForURL(const URL& url) const;
  void deleteAllCookies();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace telvo
