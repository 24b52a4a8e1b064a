// JSON text helpers: truth and numbers read from documents and answers, and
// the writer the capture uses.
#include "encoding/json_text.h"

#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <random>

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

TEST(JsonText, StringsAreWrittenAsTheJsonWriterWritesThem) {
  // Escapes, control characters, DEL, valid and broken UTF-8 (overlong,
  // surrogate, truncated, above U+10FFFF).
  static const char* const kPieces[] = {"a",
                                        "\"",
                                        "\\",
                                        "\n",
                                        "\x01",
                                        "\x1f",
                                        "\x7f",
                                        "\xC3\xA9",
                                        "\xC3",
                                        "\xC0\xAF",
                                        "\xED\xA0\x80",
                                        "\xF0\x9F\x98\x80",
                                        "\xF4\x90\x80\x80",
                                        "\xE2\x82",
                                        "\xFF",
                                        "/"};
  std::mt19937 random(14);
  for (int i = 0; i < 2000; ++i) {
    std::string text;
    for (int n = random() % 8; n > 0; --n) text += kPieces[random() % std::size(kPieces)];
    const std::string expected = Json(text).dump(-1, ' ', false, Json::error_handler_t::replace);
    std::string out;
    appendJsonString(out, text);
    ASSERT_EQ(out, expected) << "case " << i;
    ASSERT_EQ(dumpJson(Json(text)), expected) << "case " << i;
  }
}

TEST(JsonText, DumpWritesEveryKindOfValueAsTheJsonLibraryDoes) {
  // Doubles where the layouts differ (whole, tiny, huge, negative zero,
  // not finite), the integer extremes, binary values with and without a
  // subtype, keys that need escapes or repair, nesting.
  const double kDoubles[] = {1.0,
                             -0.0,
                             0.1,
                             1e-5,
                             1e-7,
                             123456789012345678.0,
                             1e15,
                             1e16,
                             1e21,
                             5e-324,
                             1.7976931348623157e308,
                             2.5,
                             -3.75e-10,
                             std::numeric_limits<double>::quiet_NaN(),
                             std::numeric_limits<double>::infinity()};
  Json values = Json::array();
  for (double d : kDoubles) values.push_back(d);
  values.push_back(std::numeric_limits<std::int64_t>::min());
  values.push_back(std::numeric_limits<std::uint64_t>::max());
  values.push_back(Json::binary({1, 2, 255}));
  values.push_back(Json::binary({}, 7));
  values.push_back(
      Json::object({{"k\x01\xff", {{"\"", nullptr}, {"b", true}}}, {"", Json::array()}}));
  for (const Json& value : values) {
    EXPECT_EQ(dumpJson(value), value.dump(-1, ' ', false, Json::error_handler_t::replace));
  }
  EXPECT_EQ(dumpJson(values), values.dump(-1, ' ', false, Json::error_handler_t::replace));

  std::mt19937_64 random(7);
  for (int i = 0; i < 100000; ++i) {
    const std::uint64_t bits = random();
    double d;
    std::memcpy(&d, &bits, sizeof d);
    const Json value(d);
    ASSERT_EQ(dumpJson(value), value.dump(-1, ' ', false, Json::error_handler_t::replace)) << d;
  }
}

TEST(JsonText, NamesThatRepairToTheSameTextAreWrittenOnce) {
  // The object orders names by their bytes; the first that writes a name wins.
  const Json value{{"\xFF", 1}, {"\xFE", 2}, {"n", {{"k\xC3", 3}, {"k\xE2\x82", 4}}}};
  const std::string expected = "{\"n\":{\"k\xEF\xBF\xBD\":3},\"\xEF\xBF\xBD\":2}";
  EXPECT_EQ(dumpJson(value), expected);
  std::string written;
  ASSERT_TRUE(appendJson(written, value));
  EXPECT_EQ(written, expected);
  written.clear();
  ASSERT_TRUE(appendEventData(written, value, 9));
  EXPECT_EQ(written, "{\"timestamp\":9," + expected.substr(1));
}

TEST(JsonText, ParseReadsJsonAndRefusesEverythingElse) {
  const Json document = parseJson(
      " {\"a\":1,\"b\":[true,null,-2,18446744073709551615,1.5e1,\"x\\u00e9\\n\"],\"a\":2} ");
  ASSERT_TRUE(document.is_object());
  EXPECT_EQ(document.size(), 2u);
  EXPECT_EQ(document["a"], 2);  // the last of repeated keys counts
  const Json& list = document["b"];
  ASSERT_EQ(list.size(), 6u);
  EXPECT_EQ(list[0], true);
  EXPECT_TRUE(list[1].is_null());
  EXPECT_TRUE(list[2].is_number_integer());
  EXPECT_EQ(list[2].get<std::int64_t>(), -2);
  EXPECT_TRUE(list[3].is_number_unsigned());
  EXPECT_EQ(list[3].get<std::uint64_t>(), 18446744073709551615ULL);
  EXPECT_TRUE(list[4].is_number_float());
  EXPECT_EQ(list[4].get<double>(), 15.0);
  EXPECT_EQ(list[5], "x\xC3\xA9\n");
  EXPECT_EQ(parseJson("3"), 3);
  EXPECT_EQ(parseJson("\"s\""), "s");
  EXPECT_EQ(parseJson("[]"), Json::array());
  EXPECT_EQ(parseJson("{\"o\":{}}"), (Json{{"o", Json::object()}}));

  for (const char* bad : {"", " ", "{", "[1,]", "1 2", "{\"a\":1}x", "nul", "\"\xFF\"", "{1:2}",
                          "[\"\\ud800\"]", "01", "\"\n\""}) {
    EXPECT_TRUE(parseJson(bad).is_discarded()) << bad;
  }
  EXPECT_TRUE(parseJson(std::string(128, '[') + std::string(128, ']')).is_array());
  EXPECT_TRUE(parseJson(std::string(129, '[') + std::string(129, ']')).is_discarded());
}

}  // namespace
}  // namespace telvo
