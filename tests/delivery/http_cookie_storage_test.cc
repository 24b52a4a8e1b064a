// The cookie jar of requests that handle cookies.
#include <gtest/gtest.h>

#include <memory>

#include "support/test_platform.h"
#include "telvo/http_cookie.h"

namespace telvo {
namespace {

constexpr double kNow = 1763800000;  // 2025-11-22 08:26:40 UTC

URL urlOf(const char* text) { return *URL::fromString(text); }

std::vector<HTTPCookie> parse(const HTTPHeaderFields& headers,
                              const char* url = "https://api.example.com/v1/hello") {
  return HTTPCookie::cookiesWithResponseHeaderFields(headers, urlOf(url), kNow);
}

TEST(CookieStorage, MatchesDomainPathSecureAndExpiry) {
  auto clock = std::make_shared<TestClock>(kNow);
  HTTPCookieStorage storage(clock);
  storage.setCookieAcceptPolicy(HTTPCookieAcceptPolicy::Always);
  const URL origin = urlOf("https://api.example.com/v1/hello");
  storage.setCookies(parse({{"Set-Cookie", "host=1; Path=/"},
                            {"Set-Cookie", "wide=2; Domain=example.com; Path=/"},
                            {"Set-Cookie", "deep=3; Path=/v1/deep"},
                            {"Set-Cookie", "safe=4; Path=/; Secure"},
                            {"Set-Cookie", "brief=5; Path=/; Max-Age=10"}}),
                     origin);
  auto names = [&](const char* url) {
    std::string joined;
    for (const auto& cookie : storage.cookiesForURL(urlOf(url))) joined += cookie.name() + " ";
    return joined;
  };
  EXPECT_EQ(names("https://api.example.com/v1/deep/x"), "deep host wide safe brief ");
  EXPECT_EQ(names("https://api.example.com/v1/deeper"), "host wide safe brief ");
  EXPECT_EQ(names("http://api.example.com/"), "host wide brief ");
  EXPECT_EQ(names("https://www.example.com/"), "wide ");
  EXPECT_EQ(names("https://example.org/"), "");

  clock->advance(11);
  EXPECT_EQ(names("https://api.example.com/"), "host wide safe ");

  // A newer cookie replaces its namesake; an expired one deletes it.
  storage.setCookies(parse({{"Set-Cookie", "host=9; Path=/"}}), origin);
  storage.setCookies(parse({{"Set-Cookie", "wide=; Domain=example.com; Path=/; Max-Age=0"}}),
                     origin);
  auto cookies = storage.cookiesForURL(urlOf("https://api.example.com/"));
  ASSERT_EQ(cookies.size(), 2u);
  EXPECT_EQ(cookies[0].name(), "safe");
  EXPECT_EQ(cookies[1].value(), "9");

  storage.setCookieAcceptPolicy(HTTPCookieAcceptPolicy::Never);
  storage.setCookies(parse({{"Set-Cookie", "late=1; Path=/"}}), origin);
  EXPECT_EQ(storage.cookiesForURL(urlOf("https://api.example.com/")).size(), 2u);
}

TEST(CookieStorage, TheSharedJarIsOneObject) {
  EXPECT_EQ(&HTTPCookieStorage::sharedHTTPCookieStorage(),
            &HTTPCookieStorage::sharedHTTPCookieStorage());
}

}  // namespace
}  // namespace telvo
