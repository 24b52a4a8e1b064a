// JSON text helpers: truth and numbers read from documents and answers, and
// the writer the capture uses.
#include "encoding/json_text.h"

#include <gtest/gtest.h>

#include <limits>

namespace telvo {
namespace {

using namespace encoding;

TEST(JsonText, TruthFromTextLooksAtTheFirstSignificantCharacter) {
  for (const char* yes : {"Y", "yes", "true", "T", "1", " \t+007", "-1", "9 lives"}) {
    EXPECT_TRUE(truthFromText(yes)) << yes;
  }
  for (const char* no : {"", "0", "000", "no", "false", " ", "+", "-0", "x1"}) {
    EXPECT_FALSE(truthFromText(no)) << no;
  }
  EXPECT_TRUE(truthValue(true));
  EXPECT_TRUE(truthValue(0.5));
  EXPECT_FALSE(truthValue(0));
  EXPECT_TRUE(truthValue("yes"));
  EXPECT_FALSE(truthValue(Json::object()));
  EXPECT_FALSE(truthValue(nullptr));
}

TEST(JsonText, NumbersFromNumbersOrText) {
  EXPECT_EQ(numberValue(12), 12);
  EXPECT_EQ(numberValue("1.5e3xyz"), 1500);
  EXPECT_EQ(numberValue("none"), 0);
  EXPECT_EQ(numberValue(true), 0);
  EXPECT_EQ(textOrNull(std::nullopt), "(null)");
  EXPECT_EQ(textOrNull(std::string("")), "");
  EXPECT_EQ(jsonOrNull(std::nullopt), "(null)");
  EXPECT_EQ(jsonOrNull(Json("x")), "\"x\"");
}

TEST(JsonText, EventDataPutsTheClientsTimestampFirst) {
  std::string out;
  ASSERT_TRUE(appendEventData(out, Json{{"b", 1}, {"timestamp", "host"}, {"a", {1.5, "\n"}}},
                              1700000000123));
  EXPECT_EQ(out, R"({"timestamp":1700000000123,"a":[1.5,"\n"],"b":1})");
  EXPECT_EQ(Json::parse(out)["a"], (Json{1.5, "\n"}));

  out.clear();
  EXPECT_FALSE(appendEventData(out, Json{{"x", std::numeric_limits<double>::infinity()}}, 0));
  out.clear();
  ASSERT_TRUE(appendJson(out, Json("\xC3\x28")));
  EXPECT_EQ(out, "\"\xEF\xBF\xBD(\"");
}

}  // namespace
}  // namespace telvo
