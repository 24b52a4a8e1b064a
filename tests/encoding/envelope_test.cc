#include "telvo/envelope.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "telvo/base64.h"
#include "telvo/gzip.h"

namespace telvo {
namespace {

std::string bodyText(const Bytes& body) { return std::string(body.begin(), body.end()); }

// Reverses the layers with the library's own primitives.
std::string unwrap(const Bytes& body) {
  const auto packed = dataWithBase64EncodedString(bodyText(body));
  EXPECT_TRUE(packed);
  if (!packed) return {};
  EXPECT_EQ((*packed)[0], 0x78);
  const auto plain = dataWithCompressedData(*packed);
  EXPECT_TRUE(plain);
  return plain ? std::string(plain->begin(), plain->end()) : std::string();
}

TEST(Envelope, LayersAreExact) {
  const auto body = buildTelvoJsonParameter("{}");
  ASSERT_TRUE(body);
  EXPECT_EQ(unwrap(*body), "telvoJson={}");
  // Byte for byte: zlib compress at the default level, then unwrapped Base64.
  const std::string plain = "telvoJson={}";
  EXPECT_EQ(bodyText(*body),
            *base64EncodedString(*compressedDataWithData(Bytes(plain.begin(), plain.end()))));
  const std::string raw = R"({"q":"a&b=c%20","é":1})";
  EXPECT_EQ(unwrap(*buildTelvoJsonParameter(raw)), "telvoJson=" + raw);
  EXPECT_EQ(unwrap(*buildTelvoJsonParameter("")), "telvoJson=");
}

TEST(Envelope, LongBodyIsOneBase64Line) {
  std::string json = "[";
  for (int i = 0; i < 5000; ++i) json += "{\"n\":" + std::to_string(i * 7919 % 10007) + "},";
  json.back() = ']';
  const auto body = buildTelvoJsonParameter(json);
  ASSERT_TRUE(body);
  EXPECT_EQ(body->size() % 4, 0u);
  for (const auto c : *body) {
    ASSERT_TRUE(std::isalnum(c) || c == '+' || c == '/' || c == '=') << int(c);
  }
  const auto decoded = decodeTelvoJsonParameter(bodyText(*body));
  ASSERT_TRUE(decoded.ok()) << decoded.message;
  EXPECT_EQ(decoded.json, json);
  EXPECT_EQ(decoded.document.size(), 5000u);
  // Still exactly what one compress() of the whole text gives.
  const std::string plain = "telvoJson=" + json;
  EXPECT_EQ(bodyText(*body),
            *base64EncodedString(*compressedDataWithData(Bytes(plain.begin(), plain.end()))));
}

TEST(EnvelopeDecode, NamesTheLayerThatFailed) {
  using Failure = DecodedEnvelope::Failure;
  auto wrap = [](const std::string& plain) {
    return *base64EncodedString(*compressedDataWithData(Bytes(plain.begin(), plain.end())));
  };
  const std::string good = bodyText(*buildTelvoJsonParameter(R"({"a":[1,2]})"));
  const auto ok = decodeTelvoJsonParameter(good + "\n");
  EXPECT_TRUE(ok.ok());
  EXPECT_EQ(ok.document, Json::parse(R"({"a":[1,2]})"));
  EXPECT_TRUE(ok.message.empty());

  struct Case {
    std::string body;
    Failure failure;
    std::string layer;
  };
  const Case cases[] = {
      {"", Failure::kBase64, "base64"},
      {"!!! ---\n", Failure::kBase64, "base64"},
      {"aGVsbG8gd29ybGQ=", Failure::kZlib, "zlib"},  // "hello world"
      {good.substr(0, good.size() / 2), Failure::kZlib, "zlib"},
      {wrap("telvoJson=\xFF"), Failure::kUtf8, "utf-8"},
      {wrap(R"({"a":1})"), Failure::kPrefix, "prefix"},
      {wrap("telvojson={}"), Failure::kPrefix, "prefix"},
      {wrap("telvoJson={\"a\":"), Failure::kJson, "json"},
  };
  for (const auto& c : cases) {
    const auto result = decodeTelvoJsonParameter(c.body);
    EXPECT_EQ(result.failure, c.failure) << c.body;
    EXPECT_EQ(result.message.rfind(c.layer + ":", 0), 0u) << result.message;
    EXPECT_EQ(result.message.find('\n'), std::string::npos) << result.message;
  }
  // A document that does not parse is named by the parser's own words.
  EXPECT_EQ(decodeTelvoJsonParameter(wrap("telvoJson={\"a\":")).message,
            "json: the text after \"telvoJson=\" does not parse: [json.exception.parse_error.101] "
            "parse error at line 1, column 6: syntax error while parsing value - unexpected end "
            "of input; expected '[', '{', or a literal");
  EXPECT_EQ(decodeTelvoJsonParameter(wrap("telvoJson={} x")).message,
            "json: the text after \"telvoJson=\" does not parse: [json.exception.parse_error.101] "
            "parse error at line 1, column 4: syntax error while parsing value - invalid literal; "
            "last read: '{} x'; expected end of input");
}

TEST(EnvelopeDecode, RefusesBombsAndDeepDocuments) {
  // 8 MiB of zeros in a few kilobytes: refused at the limit, not inflated.
  const std::string zeros(std::size_t{8} << 20, '0');
  const auto bomb = buildTelvoJsonParameter("[\"" + zeros + "\"]");
  ASSERT_TRUE(bomb);
  ASSERT_LT(bomb->size(), 64u * 1024);
  const auto refused = decodeTelvoJsonParameter(bodyText(*bomb), 1 << 20);
  EXPECT_EQ(refused.failure, DecodedEnvelope::Failure::kZlib);
  EXPECT_EQ(refused.message, "zlib: the stream inflates to more than the limit of 1048576 bytes");
  EXPECT_TRUE(decodeTelvoJsonParameter(bodyText(*bomb), (std::size_t{8} << 20) + 20).ok());
  // Exactly at the limit is still within it.
  const auto small = buildTelvoJsonParameter("{}");
  EXPECT_TRUE(decodeTelvoJsonParameter(bodyText(*small), 12).ok());
  EXPECT_FALSE(decodeTelvoJsonParameter(bodyText(*small), 11).ok());

  const auto deep = buildTelvoJsonParameter(std::string(100000, '[') + std::string(100000, ']'));
  const auto nested = decodeTelvoJsonParameter(bodyText(*deep));
  EXPECT_EQ(nested.failure, DecodedEnvelope::Failure::kJson);
  EXPECT_EQ(nested.message, "json: the document nests arrays and objects more than 128 deep");
  const auto shallow = buildTelvoJsonParameter(std::string(128, '[') + std::string(128, ']'));
  EXPECT_TRUE(decodeTelvoJsonParameter(bodyText(*shallow)).ok());
}

TEST(Envelope, ConcurrentCallsKeepTheirOwnBuffers) {
  std::vector<std::thread> threads;
  std::vector<int> mismatches(4, 0);
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t, &mismatches] {
      for (int i = 0; i < 200; ++i) {
        const std::string json = "{\"t\":" + std::to_string(t) + ",\"pad\":\"" +
                                 std::string(static_cast<std::size_t>(i * 97 % 3000), 'x') + "\"}";
        const auto body = buildTelvoJsonParameter(json);
        const auto packed = dataWithBase64EncodedString(bodyText(*body));
        const auto plain = dataWithCompressedData(*packed);
        if (!plain || std::string(plain->begin(), plain->end()) != "telvoJson=" + json) {
          ++mismatches[static_cast<std::size_t>(t)];
        }
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(mismatches, std::vector<int>(4, 0));
}

}  // namespace
}  // namespace telvo
