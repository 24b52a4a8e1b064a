// Cookies from response headers and from stored properties.
#include <gtest/gtest.h>

#include "telvo/http_cookie.h"

namespace telvo {
namespace {

constexpr double kNow = 1763800000;  // 2025-11-22 08:26:40 UTC

URL urlOf(const char* text) { return *URL::fromString(text); }

class CookieTest : public ::testing::Test {
 protected:
  std::vector<HTTPCookie> parse(const HTTPHeaderFields& headers,
                                const char* url = "https://api.example.com/v1/hello") {
    return HTTPCookie::cookiesWithResponseHeaderFields(headers, urlOf(url), kNow);
  }
};

TEST_F(CookieTest, DefaultsComeFromTheRequestURL) {
  auto cookies = parse({{"Set-Cookie", " sid = abc ; HttpOnly"}});
  ASSERT_EQ(cookies.size(), 1u);
  EXPECT_EQ(cookies[0].properties(), (Json{{"Name", "sid"},
                                           {"Value", "abc"},
                                           {"Domain", "api.example.com"},
                                           {"Path", "/v1"},
                                           {"HttpOnly", "TRUE"}}));
  EXPECT_EQ(parse({{"Set-Cookie", "a=1"}}, "https://api.example.com/")[0].path(), "/");
  EXPECT_EQ(parse({{"Set-Cookie", "a=1"}}, "https://api.example.com/top")[0].path(), "/");
  EXPECT_EQ(parse({{"Set-Cookie", "a=1; Path=relative"}})[0].path(), "/v1");
}

TEST_F(CookieTest, AttributesAreReadAndForeignDomainsRefused) {
  auto cookies = parse({
      {"Set-Cookie", "a=1; Domain=.Example.com; Path=/p; Secure"},
      {"Set-Cookie", "b=2; Domain=other.com"},       // not the request's domain
      {"Set-Cookie", "c=3; Domain=pi.example.com"},  // not a suffix on a label boundary
      {"Set-Cookie", "=nameless"},
      {"Set-Cookie", "novalue"},
      {"Set-Cookie", "d=4; Expires=Wed, 21 Oct 2026 07:28:00 GMT"},
      {"Set-Cookie", "e=5; Max-Age=3600; Expires=Wed, 21 Oct 2026 07:28:00 GMT"},
      {"Set-Cookie", "f=6; Max-Age=0"},
      {"Set-Cookie", "g=7; Expires=not a date; Max-Age=soon"},
  });
  ASSERT_EQ(cookies.size(), 5u);
  EXPECT_EQ(cookies[0].name(), "a");
  EXPECT_EQ(cookies[0].domain(), ".example.com");
  EXPECT_EQ(cookies[0].path(), "/p");
  EXPECT_TRUE(cookies[0].isSecure());
  EXPECT_EQ(cookies[1].expiresDate(), 1792567680.0);
  EXPECT_EQ(cookies[2].expiresDate(), kNow + 3600);  // Max-Age wins
  EXPECT_EQ(cookies[2].properties().at("Max-Age"), "3600");
  EXPECT_LE(*cookies[3].expiresDate(), kNow);
  EXPECT_FALSE(cookies[4].expiresDate().has_value());
  EXPECT_FALSE(cookies[4].properties().contains("Max-Age"));
}

TEST_F(CookieTest, CookieDatesFollowTheLenientAlgorithm) {
  const char* dates[] = {"Sun, 06 Nov 1994 08:49:37 GMT", "Sunday, 06-Nov-94 08:49:37 GMT",
                         "Sun Nov  6 08:49:37 1994"};
  for (const char* date : dates) {
    auto cookies = parse({{"Set-Cookie", std::string("a=1; Expires=") + date}});
    ASSERT_EQ(cookies.size(), 1u);
    EXPECT_EQ(cookies[0].expiresDate(), 784111777.0) << date;
  }
  // 31 April does not exist: the attribute is ignored.
  EXPECT_FALSE(parse({{"Set-Cookie", "a=1; Expires=31 Apr 2026 00:00:00"}})[0].expiresDate());

  // Exact on either side of a 32-bit time_t's range, leap days included.
  const std::pair<const char*, double> exact[] = {
      {"Tue, 19 Jan 2038 03:14:08 GMT", 2147483648.0},
      {"Fri, 01 Jan 2100 00:00:00 GMT", 4102444800.0},
      {"Tue, 29 Feb 2000 00:00:00 GMT", 951782400.0},
      {"Mon, 01 Jan 1601 00:00:00 GMT", -11644473600.0},
  };
  for (const auto& [date, seconds] : exact) {
    EXPECT_EQ(parse({{"Set-Cookie", std::string("a=1; Expires=") + date}})[0].expiresDate(), seconds)
        << date;
  }
  EXPECT_FALSE(parse({{"Set-Cookie", "a=1; Expires=29 Feb 2100 00:00:00"}})[0].expiresDate());
}

TEST_F(CookieTest, PropertiesRoundTripAndMakeOneCookieField) {
  auto parsed = parse({{"Set-Cookie", "telvoUUID=u1; Max-Age=60; Secure"}})[0];
  auto back = HTTPCookie::cookieWithProperties(parsed.properties());
  ASSERT_TRUE(back.has_value());
  EXPECT_EQ(back->properties(), parsed.properties());

  auto other = HTTPCookie::cookieWithProperties(
      Json{{"Name", "b"}, {"Value", "2"}, {"Domain", "x"}, {"Path", "/"}, {"Unknown", 1}});
  ASSERT_TRUE(other.has_value());
  EXPECT_FALSE(other->properties().contains("Unknown"));
  EXPECT_EQ(HTTPCookie::requestHeaderFieldsWithCookies({*back, *other}),
            (HTTPHeaderFields{{"Cookie", "telvoUUID=u1; b=2"}}));
  EXPECT_TRUE(HTTPCookie::requestHeaderFieldsWithCookies({}).empty());
}

TEST_F(CookieTest, IncompleteOrUnsafePropertiesMakeNoCookie) {
  const Json complete = {{"Name", "a"}, {"Value", "1"}, {"Domain", "x"}, {"Path", "/"}};
  for (const char* key : {"Name", "Value", "Domain", "Path"}) {
    Json missing = complete;
    missing.erase(key);
    EXPECT_FALSE(HTTPCookie::cookieWithProperties(missing)) << key;
    Json notText = complete;
    notText[key] = 5;
    EXPECT_FALSE(HTTPCookie::cookieWithProperties(notText)) << key;
  }
  Json injected = complete;
  injected["Value"] = "1\r\nX-Evil: yes";
  EXPECT_FALSE(HTTPCookie::cookieWithProperties(injected));
  EXPECT_FALSE(HTTPCookie::cookieWithProperties(Json::array()));
  EXPECT_FALSE(HTTPCookie::cookieWithProperties(Json()));
}

}  // namespace
}  // namespace telvo
