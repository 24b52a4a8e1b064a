// Cookie parsing on arbitrary Set-Cookie fields and stored properties, and
// the jar that keeps them: never crashes, and every parsed cookie rebuilds
// from its own properties.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "encoding/json_text.h"
#include "telvo/http_cookie.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const telvo::URL url = *telvo::URL::fromString("https://api.example.com/v1/hello");
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  telvo::HTTPHeaderFields headers;
  std::size_t start = 0;
  while (start <= input.size()) {
    auto end = input.find('\n', start);
    if (end == std::string_view::npos) end = input.size();
    headers.emplace_back("Set-Cookie", std::string(input.substr(start, end - start)));
    start = end + 1;
  }
  auto cookies = telvo::HTTPCookie::cookiesWithResponseHeaderFields(headers, url, 1763800000);
  telvo::HTTPCookieStorage jar;
  jar.setCookieAcceptPolicy(telvo::HTTPCookieAcceptPolicy::Always);
  jar.setCookies(cookies, url);
  (void)jar.cookiesForURL(url);
  for (const auto& cookie : cookies) {
    if (!telvo::HTTPCookie::cookieWithProperties(cookie.properties())) std::abort();
  }
  // The same bytes as stored properties.
  telvo::Json stored = telvo::encoding::parseJson(input);
  if (!stored.is_discarded()) {
    if (auto rebuilt = telvo::HTTPCookie::cookieWithProperties(stored)) {
      jar.setCookies({*rebuilt}, url);
      (void)jar.cookiesForURL(url);
      (void)telvo::HTTPCookie::requestHeaderFieldsWithCookies({*rebuilt});
    }
  }
  return 0;
}
