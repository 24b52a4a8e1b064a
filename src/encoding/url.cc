#include "telvo/url.h"

#include <curl/curl.h>

#include <cstdlib>
#include <memory>

#include "encoding/url_detail.h"

namespace telvo {
namespace {

struct CurlUrlDeleter {
  void operator()(CURLU* handle) const { curl_url_cleanup(handle); }
};
using CurlUrl = std::unique_ptr<CURLU, CurlUrlDeleter>;

// One part of a parsed URL; `fallback` where curl has none.
std::string part(CURLU* handle, CURLUPart which, unsigned flags, const char* fallback) {
  char* value = nullptr;
  if (curl_url_get(handle, which, &value, flags) != CURLUE_OK || value == nullptr) return fallback;
  std::string text(value);
  curl_free(value);
  return text;
}

bool isHex(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

// Whether `text` holds only what a URL may: no space, control character,
// byte beyond ASCII, one of " < > \ ^ ` { | }, a % that starts no escape, or
// a second #. libcurl's parser lets several of them through; a URL type
// refuses the string.
bool holdsOnlyUrlCharacters(const std::string& text) {
  bool fragment = false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    if (c <= 0x20 || c >= 0x7F) return false;
    switch (c) {
      case '"': case '<': case '>': case '\\': case '^': case '`': case '{': case '|': case '}':
        return false;
      case '%':
        if (i + 2 >= text.size() || !isHex(text[i + 1]) || !isHex(text[i + 2])) return false;
        break;
      case '#':
        if (fragment) return false;
        fragment = true;
        break;
      default:
        break;
    }
  }
  return true;
}

}  // namespace

namespace url_detail {

std::string upgradeInsecurePrefix(std::string text) {
  static constexpr char kInsecure[] = "http://";
  static constexpr std::size_t kInsecureLength = sizeof(kInsecure) - 1;
  if (text.compare(0, kInsecureLength, kInsecure) != 0) return text;
  // The replacement searches only the first min(length, 13) characters: room
  // for the leading "http://" and no second one, so a later "http://" (say in
  // a query value) is never touched and the prefix is the one occurrence.
  text.replace(0, kInsecureLength, "https://");
  return text;
}

}  // namespace url_detail

std::optional<URL> URL::fromString(const std::string& text) {
  // (An embedded NUL, which would silently cut curl's C string short, is
  // refused with the other control characters.)
  if (!holdsOnlyUrlCharacters(text)) return std::nullopt;
  CurlUrl handle(curl_url());
  if (!handle) return std::nullopt;
  // Any syntactically valid scheme is accepted, as a URL type would; whether
  // it can be fetched is the transport's business. No scheme is guessed.
  if (curl_url_set(handle.get(), CURLUPART_URL, text.c_str(), CURLU_NON_SUPPORT_SCHEME) !=
      CURLUE_OK) {
    return std::nullopt;
  }
  char* normalised = nullptr;
  if (curl_url_get(handle.get(), CURLUPART_URL, &normalised, 0) != CURLUE_OK || !normalised) {
    return std::nullopt;
  }
  URL url{std::string(normalised)};
  curl_free(normalised);
  url.scheme_ = part(handle.get(), CURLUPART_SCHEME, 0, "");
  url.host_ = part(handle.get(), CURLUPART_HOST, 0, "");
  url.port_ = std::atoi(part(handle.get(), CURLUPART_PORT, CURLU_DEFAULT_PORT, "0").c_str());
  url.path_ = part(handle.get(), CURLUPART_PATH, 0, "/");
  url.query_ = part(handle.get(), CURLUPART_QUERY, 0, "");
  return url;
}

std::optional<URL> URLWithURLStringConversion(const std::string& text) {
  return URL::fromString(url_detail::upgradeInsecurePrefix(text));
}

std::string urlEncode(const std::string& text) {
  // The 19 reserved characters plus everything never legal in a URL (space,
  // controls, DEL, " < > \ ^ ` { | } and every non-ASCII byte) together are
  // exactly the complement of the unreserved set.
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(text.size() + text.size() / 2);
  for (const char ch : text) {
    const auto c = static_cast<unsigned char>(ch);
    const bool unreserved = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
                            (c >= '0' && c <= '9') || c == '-' || c == '_' || c == '.' || c == '~';
    if (unreserved) {
      out += ch;
    } else {
      out += '%';
      out += kHex[c >> 4];
      out += kHex[c & 15];
    }
  }
  return out;
}

}  // namespace telvo
