#include "telvo/url.h"

#include <gtest/gtest.h>

#include "encoding/url_detail.h"

namespace telvo {
namespace {

std::string converted(const std::string& text) {
  const auto url = URLWithURLStringConversion(text);
  return url ? url->absoluteString() : "<nothing>";
}

TEST(URLConversion, UpgradesOnlyTheLeadingLowerCaseHttp) {
  EXPECT_EQ(converted("http://cdn.example.com/app/site/config.json?v=1"),
            "https://cdn.example.com/app/site/config.json?v=1");
  EXPECT_EQ(converted("http://a.example/cb?next=http://b.example/"),
            "https://a.example/cb?next=http://b.example/");
  EXPECT_EQ(converted("https://a.example/x"), "https://a.example/x");
  EXPECT_EQ(converted("HTTP://a.example/x"), "http://a.example/x");  // scheme kept, curl lowers it
  EXPECT_EQ(converted("ftp://a.example/x"), "ftp://a.example/x");
  EXPECT_EQ(converted("myapp://a.example/x"), "myapp://a.example/x");
}

TEST(URLConversion, TextRewriteEdgeCases) {
  EXPECT_EQ(url_detail::upgradeInsecurePrefix("http://"), "https://");
  EXPECT_EQ(url_detail::upgradeInsecurePrefix("HTTP://h"), "HTTP://h");
  EXPECT_EQ(url_detail::upgradeInsecurePrefix("Http://h"), "Http://h");
  EXPECT_EQ(url_detail::upgradeInsecurePrefix(""), "");
  EXPECT_EQ(url_detail::upgradeInsecurePrefix("http:/"), "http:/");
  EXPECT_EQ(url_detail::upgradeInsecurePrefix("http://http://h"), "https://http://h");
}

TEST(URLConversion, NothingWhereCurlRefusesTheText) {
  EXPECT_EQ(converted(""), "<nothing>");
  EXPECT_EQ(converted("http://"), "<nothing>");           // "https://" has no host
  EXPECT_EQ(converted("example.com/path"), "<nothing>");  // no scheme is guessed
  EXPECT_EQ(converted("https://a.example/with space"), "<nothing>");
  EXPECT_EQ(converted(std::string("https://a.example/\0x", 19)), "<nothing>");
}

TEST(URLConversion, NothingForCharactersNoURLHoldsThoughCurlTakesThem) {
  for (const char* text : {"https://a.example/\"q\"", "https://a.example/<b>",
                           "https://a.example/{x}", "https://a.example/a|b", "https://a.example/a\\b",
                           "https://a.example/%zz", "https://a.example/%4", "https://a.example/a#b#c",
                           "https://a.example/\xc3\xa9", "https://a.example/\tx"}) {
    EXPECT_EQ(converted(text), "<nothing>") << text;
  }
  // What a URL may hold still parses.
  EXPECT_EQ(converted("https://a.example/p%41?q=a(b)!*'~;:@&=+$,/?#frag"),
            "https://a.example/p%41?q=a(b)!*'~;:@&=+$,/?#frag");
  EXPECT_EQ(converted("https://[::1]:8443/x"), "https://[::1]:8443/x");
}

TEST(URLValue, PartsAndDefaults) {
  const auto url = URL::fromString("https://user@Example.COM:8443/a/b?x=1&y=2#frag");
  ASSERT_TRUE(url);
  EXPECT_EQ(url->scheme(), "https");
  EXPECT_EQ(url->host(), "Example.COM");  // as written
  EXPECT_EQ(url->port(), 8443);
  EXPECT_EQ(url->path(), "/a/b");
  EXPECT_EQ(url->query(), "x=1&y=2");
  const auto bare = URL::fromString("http://127.0.0.1");
  ASSERT_TRUE(bare);
  EXPECT_EQ(bare->absoluteString(), "http://127.0.0.1/");
  EXPECT_EQ(bare->port(), 80);
  EXPECT_EQ(bare->path(), "/");
  EXPECT_EQ(bare->query(), "");
  EXPECT_EQ(URL::fromString("https://[::1]:9000/p")->host(), "[::1]");
  EXPECT_EQ(*URL::fromString("https://h/p"), *URL::fromString("https://h/p"));
}

TEST(URLEncode, EscapesReservedAndIllegalCharacters) {
  EXPECT_EQ(urlEncode("a b&c=d/e"), "a%20b%26c%3Dd%2Fe");
  EXPECT_EQ(urlEncode("\xC3\xA9"), "%C3%A9");
  EXPECT_EQ(urlEncode("!*'();:@&=+$,/?%#[]"),
            "%21%2A%27%28%29%3B%3A%40%26%3D%2B%24%2C%2F%3F%25%23%5B%5D");
  EXPECT_EQ(urlEncode("\"<>\\^`{|}"), "%22%3C%3E%5C%5E%60%7B%7C%7D");
  EXPECT_EQ(urlEncode(std::string("\0\t\x7F", 3)), "%00%09%7F");
  const std::string unreserved =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_.~";
  EXPECT_EQ(urlEncode(unreserved), unreserved);
  EXPECT_EQ(urlEncode(""), "");
}

}  // namespace
}  // namespace telvo
