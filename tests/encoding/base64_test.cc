#include "telvo/base64.h"

#include <gtest/gtest.h>

#include <random>

namespace telvo {
namespace {

TEST(Base64Encode, KnownVectorsAndEmptyInput) {
  EXPECT_EQ(base64EncodedString(Bytes{0x4D, 0x61, 0x6E}), "TWFu");
  EXPECT_EQ(base64EncodedString(Bytes{0x4D, 0x61}), "TWE=");
  EXPECT_EQ(base64EncodedString(Bytes{0x4D}), "TQ==");
  EXPECT_EQ(base64EncodedString(Bytes{0xFB, 0xFF, 0xBF}), "+/+/");
  EXPECT_EQ(base64EncodedString(Bytes{}), std::nullopt);
  EXPECT_EQ(base64EncodedStringWithWrapWidth(Bytes{}, 76), std::nullopt);
}

TEST(Base64Encode, WrapsAfterCompleteGroupsOnly) {
  const std::string line(76, 'A');
  EXPECT_EQ(base64EncodedStringWithWrapWidth(Bytes(57, 0), 76), line + "\r\n");
  EXPECT_EQ(base64EncodedStringWithWrapWidth(Bytes(58, 0), 76), line + "\r\nAA==");
  // A full last line of complete groups still gets its separator.
  EXPECT_EQ(base64EncodedStringWithWrapWidth(Bytes{0x4D, 0x61, 0x6E}, 4), "TWFu\r\n");
  EXPECT_EQ(base64EncodedStringWithWrapWidth(Bytes(6, 0), 8), "AAAAAAAA\r\n");
  // A padded last group never ends a line, however long it makes it.
  EXPECT_EQ(base64EncodedStringWithWrapWidth(Bytes(4, 0), 8), "AAAAAA==");
  EXPECT_EQ(base64EncodedStringWithWrapWidth(Bytes(7, 0), 4), "AAAA\r\nAAAA\r\nAA==");
}

TEST(Base64Encode, WidthIsRoundedDownToMultipleOfFour) {
  const Bytes data(100, 0xA5);
  const auto unwrapped = base64EncodedString(data);
  for (std::size_t w : {1, 2, 3}) EXPECT_EQ(base64EncodedStringWithWrapWidth(data, w), unwrapped);
  EXPECT_EQ(base64EncodedStringWithWrapWidth(data, 7), base64EncodedStringWithWrapWidth(data, 4));
  EXPECT_EQ(base64EncodedStringWithWrapWidth(data, 79), base64EncodedStringWithWrapWidth(data, 76));
}

TEST(Base64Decode, SkipsEverythingOutsideTheAlphabet) {
  EXPECT_EQ(dataWithBase64EncodedString("TW Fu\r\n"), (Bytes{0x4D, 0x61, 0x6E}));
  EXPECT_EQ(dataWithBase64EncodedString("TQ"), Bytes{0x4D});
  EXPECT_EQ(dataWithBase64EncodedString("TWE"), (Bytes{0x4D, 0x61}));
  // Padding does not stop the decoder.
  EXPECT_EQ(dataWithBase64EncodedString("QQ==QQ=="), dataWithBase64EncodedString("QQQQ"));
  EXPECT_EQ(dataWithBase64EncodedString("QQ==QQ==")->size(), 3u);
  // The URL-safe alphabet is not understood: its "-" and "_" are skipped.
  EXPECT_EQ(dataWithBase64EncodedString("-T_W-F_u-"), (Bytes{0x4D, 0x61, 0x6E}));
  // Non-ASCII characters are skipped whole; their bytes never alias ASCII.
  EXPECT_EQ(dataWithBase64EncodedString("TW\xC3\x81"
                                        "Fu\xE2\x82\xAC"),
            (Bytes{0x4D, 0x61, 0x6E}));
  EXPECT_EQ(dataWithBase64EncodedString(std::string_view("TW\0Fu", 5)), (Bytes{0x4D, 0x61, 0x6E}));
}

TEST(Base64Decode, NothingWhenNoByteResults) {
  EXPECT_EQ(dataWithBase64EncodedString(""), std::nullopt);
  EXPECT_EQ(dataWithBase64EncodedString("T"), std::nullopt);
  EXPECT_EQ(dataWithBase64EncodedString("===="), std::nullopt);
  EXPECT_EQ(dataWithBase64EncodedString(" \r\n-_ \xC3\xA9"), std::nullopt);
  EXPECT_EQ(dataWithBase64EncodedString("TWFuT"),
            (Bytes{0x4D, 0x61, 0x6E}));  // lone sextet dropped
}

TEST(Base64Text, Utf8FormsAndRepairOfInvalidInput) {
  EXPECT_EQ(base64EncodedString(std::string_view("\xC3\xA9t\xC3\xA9")), "w6l0w6k=");
  EXPECT_EQ(base64DecodedString("w6l0w6k="), "\xC3\xA9t\xC3\xA9");
  EXPECT_EQ(stringWithBase64EncodedString("w6l0w6k="), "\xC3\xA9t\xC3\xA9");
  EXPECT_EQ(base64DecodedData("TWFu"), (Bytes{0x4D, 0x61, 0x6E}));
  // An invalid byte is replaced by U+FFFD before encoding.
  EXPECT_EQ(base64DecodedString(*base64EncodedString(std::string_view("a\xFF"
                                                                      "b"))),
            "a\xEF\xBF\xBD"
            "b");
  EXPECT_EQ(base64EncodedStringWithWrapWidth(std::string_view("Man"), 4), "TWFu\r\n");
  // Decoded bytes that are not UTF-8 give nothing in the text form only.
  EXPECT_EQ(stringWithBase64EncodedString("/w=="), std::nullopt);
  EXPECT_EQ(base64DecodedData("/w=="), Bytes{0xFF});
  EXPECT_EQ(base64DecodedString("7aCA"), std::nullopt);  // an encoded surrogate
  EXPECT_EQ(base64EncodedString(std::string_view("")), std::nullopt);
}

TEST(Base64RoundTrip, RandomBuffersAndWidths) {
  std::mt19937 rng(7);
  for (std::size_t size = 1; size < 2000; size += 1 + size / 5) {
    Bytes data(size);
    for (auto& b : data) b = static_cast<std::uint8_t>(rng());
    const std::size_t width = rng() % 120;
    const auto text = base64EncodedStringWithWrapWidth(data, width);
    ASSERT_TRUE(text);
    const std::size_t line = width & ~std::size_t{3};
    std::size_t column = 0;
    for (std::size_t i = 0; i < text->size(); ++i) {
      if ((*text)[i] == '\r') {
        ASSERT_EQ((*text)[i + 1], '\n');
        ASSERT_EQ(column, line) << "size " << size << " width " << width;
        column = 0;
        ++i;
      } else {
        ++column;
      }
    }
    if (line == 0) {
      EXPECT_EQ(text->size() % 4, 0u);
    }
    EXPECT_EQ(dataWithBase64EncodedString(*text), data) << "size " << size << " width " << width;
  }
}

}  // namespace
}  // namespace telvo
