#include "telvo/http_cookie.h"

#include <algorithm>
#include <cctype>
#include <chrono>

#include "encoding/civil_time.h"
#include "encoding/cookie_rules.h"
#include "encoding/text.h"

namespace telvo {

namespace {

constexpr const char* kTrue = "TRUE";

using encoding::equalsIgnoringCase;

}  // namespace

namespace encoding {

std::string lowercase(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

bool isIPAddress(const std::string& host) {
  if (host.find(':') != std::string::npos || (!host.empty() && host.front() == '[')) return true;
  return !host.empty() &&
         std::all_of(host.begin(), host.end(), [](char c) { return (c >= '0' && c <= '9') || c == '.'; });
}

std::string hostOf(const URL& url) {
  std::string host = lowercase(url.host());
  if (!host.empty() && host.back() == '.') host.pop_back();
  return host;
}

bool domainMatches(const std::string& host, const std::string& domain) {
  if (host == domain) return true;
  if (isIPAddress(host) || host.size() <= domain.size()) return false;
  return host.compare(host.size() - domain.size(), domain.size(), domain) == 0 &&
         host[host.size() - domain.size() - 1] == '.';
}

std::string defaultPath(const std::string& uriPath) {
  if (uriPath.empty() || uriPath.front() != '/') return "/";
  auto lastSlash = uriPath.rfind('/');
  if (lastSlash == 0) return "/";
  return uriPath.substr(0, lastSlash);
}

bool pathMatches(const std::string& requestPath, const std::string& cookiePath) {
  if (cookiePath.empty()) return false;  // no cookie the library makes has one
  if (requestPath == cookiePath) return true;
  if (requestPath.compare(0, cookiePath.size(), cookiePath) != 0) return false;
  return cookiePath.back() == '/' || requestPath[cookiePath.size()] == '/';
}

}  // namespace encoding

namespace {

using encoding::domainMatches;
using encoding::hostOf;
using encoding::isIPAddress;
using encoding::lowercase;

std::string trim(const std::string& text) { return std::string(encoding::trimmed(text)); }

bool isDigit(char c) { return c >= '0' && c <= '9'; }

// Cookie text may not carry what would end or split a header line.
bool safeForHeader(const std::string& text) {
  return text.find_first_of("\r\n;", 0) == std::string::npos &&
         text.find('\0') == std::string::npos;
}

// Reads 1 to `maxDigits` digits at the start of `token`, followed by nothing
// or a non-digit. False when the token does not start that way.
bool leadingNumber(const std::string& token, size_t minDigits, size_t maxDigits, int* value) {
  size_t n = 0;
  while (n < token.size() && isDigit(token[n])) ++n;
  if (n < minDigits || n > maxDigits) return false;
  *value = std::stoi(token.substr(0, n));
  return true;
}

bool parseTime(const std::string& token, int* h, int* m, int* s) {
  int* parts[3] = {h, m, s};
  size_t pos = 0;
  for (int i = 0; i < 3; ++i) {
    size_t start = pos;
    while (pos < token.size() && isDigit(token[pos]) && pos - start < 3) ++pos;
    size_t digits = pos - start;
    if (digits < 1 || digits > 2) return false;
    *parts[i] = std::stoi(token.substr(start, digits));
    if (i < 2) {
      if (pos >= token.size() || token[pos] != ':') return false;
      ++pos;
    } else if (pos < token.size() && isDigit(token[pos])) {
      return false;
    }
  }
  return true;
}

// The cookie-date algorithm of RFC 6265 5.1.1; nothing where it fails.
std::optional<double> parseCookieDate(const std::string& text) {
  auto isDelimiter = [](unsigned char c) {
    return c == 0x09 || (c >= 0x20 && c <= 0x2F) || (c >= 0x3B && c <= 0x40) ||
           (c >= 0x5B && c <= 0x60) || (c >= 0x7B && c <= 0x7E);
  };
  std::vector<std::string> tokens;
  std::string current;
  for (char c : text) {
    if (isDelimiter(static_cast<unsigned char>(c))) {
      if (!current.empty()) tokens.push_back(std::move(current));
      current.clear();
    } else {
      current.push_back(c);
    }
  }
  if (!current.empty()) tokens.push_back(std::move(current));

  static const char* const kMonths[] = {"jan", "feb", "mar", "apr", "may", "jun",
                                        "jul", "aug", "sep", "oct", "nov", "dec"};
  bool haveTime = false, haveDay = false, haveMonth = false, haveYear = false;
  int hour = 0, minute = 0, second = 0, day = 0, month = 0, year = 0;
  for (const auto& token : tokens) {
    if (!haveTime && parseTime(token, &hour, &minute, &second)) {
      haveTime = true;
    } else if (!haveDay && leadingNumber(token, 1, 2, &day)) {
      haveDay = true;
    } else if (!haveMonth && token.size() >= 3 &&
               std::find_if(std::begin(kMonths), std::end(kMonths), [&](const char* name) {
                 return equalsIgnoringCase(std::string_view(token).substr(0, 3), name);
               }) != std::end(kMonths)) {
      for (int i = 0; i < 12; ++i) {
        if (equalsIgnoringCase(std::string_view(token).substr(0, 3), kMonths[i])) month = i + 1;
      }
      haveMonth = true;
    } else if (!haveYear && leadingNumber(token, 2, 4, &year)) {
      haveYear = true;
    }
  }
  if (!haveTime || !haveDay || !haveMonth || !haveYear) return std::nullopt;
  if (year >= 70 && year <= 99) year += 1900;
  if (year >= 0 && year <= 69) year += 2000;
  if (day < 1 || day > 31 || year < 1601 || hour > 23 || minute > 59 || second > 59) {
    return std::nullopt;
  }
  if (day > civil::daysInMonth(year, month)) return std::nullopt;  // 31 April and the like
  return static_cast<double>(civil::secondsFromCivil(year, month, day, hour, minute, second));
}

}  // namespace

std::vector<HTTPCookie> HTTPCookie::cookiesWithResponseHeaderFields(const HTTPHeaderFields& headers,
                                                                    const URL& url) {
  const auto sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
  return cookiesWithResponseHeaderFields(headers, url,
                                         std::chrono::duration<double>(sinceEpoch).count());
}

std::vector<HTTPCookie> HTTPCookie::cookiesWithResponseHeaderFields(const HTTPHeaderFields& headers,
                                                                    const URL& url, double now) {
  std::vector<HTTPCookie> cookies;
  const std::string host = hostOf(url);
  const std::string requestPath = url.path();
  for (const auto& [field, header] : headers) {
    if (!equalsIgnoringCase(field, "Set-Cookie")) continue;

    auto semicolon = header.find(';');
    std::string pair = header.substr(0, semicolon);
    auto equals = pair.find('=');
    if (equals == std::string::npos) continue;
    std::string name = trim(pair.substr(0, equals));
    std::string value = trim(pair.substr(equals + 1));
    if (name.empty() || !safeForHeader(name) || !safeForHeader(value)) continue;

    std::optional<double> expires;
    std::optional<double> maxAgeExpiry;
    std::string maxAgeText;
    std::string domainAttribute;
    std::string path;
    bool secure = false;
    bool httpOnly = false;
    while (semicolon != std::string::npos) {
      auto next = header.find(';', semicolon + 1);
      std::string attribute = header.substr(
          semicolon + 1, next == std::string::npos ? std::string::npos : next - semicolon - 1);
      semicolon = next;
      auto eq = attribute.find('=');
      std::string key = trim(attribute.substr(0, eq));
      std::string val = eq == std::string::npos ? "" : trim(attribute.substr(eq + 1));
      if (equalsIgnoringCase(key, "Expires")) {
        if (auto date = parseCookieDate(val)) expires = date;
      } else if (equalsIgnoringCase(key, "Max-Age")) {
        bool negative = !val.empty() && val.front() == '-';
        std::string digits = negative ? val.substr(1) : val;
        if (digits.empty() || !std::all_of(digits.begin(), digits.end(), isDigit)) continue;
        // Beyond 15 digits the cookie outlives anything; stod would overflow long before.
        double delta = digits.size() > 15 ? 1e15 : std::stod(digits);
        maxAgeText = val;
        maxAgeExpiry = negative || delta <= 0 ? 0.0 : now + delta;
      } else if (equalsIgnoringCase(key, "Domain")) {
        if (val.empty()) continue;
        if (val.front() == '.') val.erase(0, 1);
        domainAttribute = lowercase(val);
      } else if (equalsIgnoringCase(key, "Path")) {
        path = (val.empty() || val.front() != '/') ? "" : val;
      } else if (equalsIgnoringCase(key, "Secure")) {
        secure = true;
      } else if (equalsIgnoringCase(key, "HttpOnly")) {
        httpOnly = true;
      }
    }

    std::string domain = host;
    if (!domainAttribute.empty()) {
      if (!domainMatches(host, domainAttribute)) continue;
      // The leading dot marks a cookie that also goes to names below the domain.
      domain = domainAttribute == host && isIPAddress(host) ? host : "." + domainAttribute;
    }
    if (domain.empty() || !safeForHeader(domain)) continue;
    if (path.empty()) path = encoding::defaultPath(requestPath);
    if (!safeForHeader(path)) continue;

    Json properties = Json::object();
    properties[HTTPCookieName] = name;
    properties[HTTPCookieValue] = value;
    properties[HTTPCookieDomain] = domain;
    properties[HTTPCookiePath] = path;
    if (maxAgeExpiry) {
      properties[HTTPCookieExpires] = *maxAgeExpiry;
      properties[HTTPCookieMaximumAge] = maxAgeText;
    } else if (expires) {
      properties[HTTPCookieExpires] = *expires;
    }
    if (secure) properties[HTTPCookieSecure] = kTrue;
    if (httpOnly) properties[HTTPCookieHttpOnly] = kTrue;
    cookies.push_back(HTTPCookie(std::move(properties)));
  }
  return cookies;
}

std::optional<HTTPCookie> HTTPCookie::cookieWithProperties(const Json& properties) {
  if (!properties.is_object()) return std::nullopt;
  Json kept = Json::object();
  for (const char* key : {HTTPCookieName, HTTPCookieValue, HTTPCookieDomain, HTTPCookiePath}) {
    auto it = properties.find(key);
    if (it == properties.end() || !it->is_string()) return std::nullopt;
    kept[key] = *it;
  }
  const std::string name = kept[HTTPCookieName].get<std::string>();
  const std::string& path = kept[HTTPCookiePath].get_ref<const std::string&>();
  if (name.empty() || name.find('=') != std::string::npos || !safeForHeader(name) ||
      !safeForHeader(kept[HTTPCookieValue].get<std::string>()) || path.empty() ||
      path.front() != '/' || !safeForHeader(path)) {
    return std::nullopt;
  }
  if (auto it = properties.find(HTTPCookieExpires); it != properties.end() && it->is_number()) {
    kept[HTTPCookieExpires] = *it;
  }
  for (const char* key : {HTTPCookieMaximumAge, HTTPCookieSecure, HTTPCookieHttpOnly}) {
    if (auto it = properties.find(key); it != properties.end() && it->is_string()) kept[key] = *it;
  }
  return HTTPCookie(std::move(kept));
}

HTTPHeaderFields HTTPCookie::requestHeaderFieldsWithCookies(
    const std::vector<HTTPCookie>& cookies) {
  if (cookies.empty()) return {};
  std::string line;
  for (const auto& cookie : cookies) {
    if (!line.empty()) line += "; ";
    line += cookie.name() + "=" + cookie.value();
  }
  return {{"Cookie", line}};
}

std::string HTTPCookie::name() const { return properties_.value(HTTPCookieName, ""); }
std::string HTTPCookie::value() const { return properties_.value(HTTPCookieValue, ""); }
std::string HTTPCookie::domain() const { return properties_.value(HTTPCookieDomain, ""); }
std::string HTTPCookie::path() const { return properties_.value(HTTPCookiePath, ""); }

std::optional<double> HTTPCookie::expiresDate() const {
  auto it = properties_.find(HTTPCookieExpires);
  if (it == properties_.end() || !it->is_number()) return std::nullopt;
  return it->get<double>();
}

bool HTTPCookie::isSecure() const { return properties_.contains(HTTPCookieSecure); }

}  // namespace telvo
