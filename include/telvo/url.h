// URL values and the URL helpers.
//
// A telvo::URL is a URL that libcurl's URL API (curl_url) has accepted; it is
// kept in the normalised text form that curl_url gives back. Cheap to copy.
// All functions here are pure and safe to call from any thread.
#pragma once

#include "telvo/export.h"

#include <optional>
#include <string>
#include <utility>

namespace telvo {

class TELVO_API URL {
 public:
  // Parses `text` as an absolute URL with a scheme (no base URL, no guessing of
  // a scheme, no further escaping). Nothing where libcurl refuses it.
  static std::optional<URL> fromString(const std::string& text);

  // The URL as text (normalised by libcurl).
  const std::string& absoluteString() const { return text_; }
  // Scheme in lower case ("https").
  std::string scheme() const { return scheme_; }
  // Host as curl gives it (IPv6 addresses in brackets).
  std::string host() const { return host_; }
  // Port as written, or the scheme's default (443 for https, 80 for http);
  // 0 for a scheme curl knows no default for.
  int port() const { return port_; }
  // Path, "/" when the URL has none.
  std::string path() const { return path_; }
  // Query without the "?", empty when none.
  std::string query() const { return query_; }

 private:
  explicit URL(std::string text) : text_(std::move(text)) {}
  // The parts are split once, when curl accepts the text.
  std::string text_;
  std::string scheme_;
  std::string host_;
  int port_ = 0;
  std::string path_;
  std::string query_;
};

inline bool operator==(const URL& a, const URL& b) {
  return a.absoluteString() == b.absoluteString();
}
inline bool operator!=(const URL& a, const URL& b) { return !(a == b); }

// Turns a URL string built by the library into a URL, upgrading a leading
// "http://" (case-sensitive prefix test) to "https://". Only the first 13
// characters are searched, so an "http://" later in the text is never touched.
// Nothing where the (possibly rewritten) text is not a URL.
TELVO_API std::optional<URL> URLWithURLStringConversion(const std::string& text);

// Percent-encodes `text` for use inside a query or form value: every byte
// that is not legal in a URL (space, controls, non-ASCII as UTF-8 %XX) plus
// the 19 characters !*'();:@&=+$,/?%#[] are escaped as %XX (upper-case hex);
// letters, digits and - _ . ~ pass unchanged.
TELVO_API std::string urlEncode(const std::string& text);

}  // namespace telvo
