#include "telvo/telvo_master_config.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <limits>

namespace telvo {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;

constexpr auto kMax = std::numeric_limits<std::int64_t>::max();
constexpr auto kMin = std::numeric_limits<std::int64_t>::min();

std::shared_ptr<TelvoMasterConfig> read(const std::optional<Json>& document,
                                        std::optional<std::string> environment = std::nullopt) {
  return TelvoMasterConfig::configFromDictionary(document, environment);
}
std::shared_ptr<TelvoMasterConfig> readDefault(const char* key, const Json& value) {
  return read(Json{{"default", Json{{key, value}}}});
}
std::shared_ptr<TelvoMasterConfig> readOverlay(const char* key, const Json& value) {
  return read(Json{{"default", Json::object()}, {"staging", Json{{key, value}}}}, "staging");
}

// Every field as text: the description without its identity line, plus the
// two fields it leaves out.
std::string fields(const TelvoMasterConfig& config) {
  const std::string text = config.description();
  return text.substr(text.find('\n')) +
         "\nadProgressInterval=" + std::to_string(config.adProgressInterval()) +
         "\nmessageExcludes=" + config.messageExcludes().value_or("(null)");
}

const std::string kDefaultFields =
    "\nBatchMode: 1\nBatchAmount: 0\nServicesUrl: (null)\nEnabled: 0\nBatch API: (null)"
    "\nHello API: (null)\nBatch Content Encoding: (null)\nHello Retry Count: 0"
    "\nHello Retry Time: 0\nTransport Formats: (null)\nQOS Update Interval: 0"
    "\nQOS Report Interval: 0\nProgress Report Interval: 0\nUser ID Hash: 517telvoUID517"
    "\nUser ID Enabled: true\nadProgressInterval=0\nmessageExcludes=(null)";

const Json kFullDefault = Json::parse(R"({
  "batchMode": "timer", "batchModeAmount": 30, "servicesUrl": "https://svc", "enabled": true,
  "batchApi": "/api/batch", "helloApi": "/api/hello", "batchContentEncoding": "gzip",
  "helloRetryCount": 3, "helloRetryTime": 5, "messageExcludes": "ignored",
  "transportFormats": "json", "qosUpdateInterval": 6, "qosReportInterval": 7,
  "progressReportInterval": 8, "adProgressInterval": 9, "telvoUserIdHash": "hash"})");

const std::string kFullFields =
    "\nBatchMode: 0\nBatchAmount: 30\nServicesUrl: https://svc\nEnabled: 1"
    "\nBatch API: /api/batch\nHello API: /api/hello\nBatch Content Encoding: gzip"
    "\nHello Retry Count: 3\nHello Retry Time: 5\nTransport Formats: json"
    "\nQOS Update Interval: 6\nQOS Report Interval: 7\nProgress Report Interval: 8"
    "\nUser ID Hash: hash\nUser ID Enabled: true\nadProgressInterval=9\nmessageExcludes=(null)";

TEST(MasterConfigDocument, EmptyAbsentOrShapelessDocumentsGiveTheDefaults) {
  for (const auto& document :
       {std::optional<Json>(), std::optional<Json>(Json::object()), std::optional<Json>(Json()),
        std::optional<Json>(Json::array()), std::optional<Json>(Json{{"default", Json::object()}}),
        std::optional<Json>(Json{{"other", Json::object()}})}) {
    EXPECT_EQ(fields(*read(document, "other")), kDefaultFields);
  }
}

TEST(MasterConfigDocument, DefaultSectionIsReadWithTheDocumentKeys) {
  auto config = read(Json{{"default", kFullDefault}});
  EXPECT_EQ(fields(*config), kFullFields);  // "messageExcludes" is ignored there
  char identity[32];
  std::snprintf(identity, sizeof identity, "%p", static_cast<const void*>(config.get()));
  EXPECT_EQ(config->description(), "TelvoMasterConfig: " + std::string(identity) +
                                       kFullFields.substr(0, kFullFields.find("\nadProgress")));
  // The property name is not a document key in "default".
  EXPECT_EQ(readDefault("batchAmount", 30)->batchAmount(), 0);
  EXPECT_FALSE(readDefault("servicesUrl", nullptr)->servicesUrl().has_value());
}

TEST(MasterConfigDocument, OnlyTheExactTimerWordSelectsTimerBatching) {
  EXPECT_EQ(readDefault("batchMode", "timer")->batchMode(), 0);
  for (const char* text : {"Timer", "TIMER", " timer", "count", "0", ""}) {
    EXPECT_EQ(readDefault("batchMode", text)->batchMode(), 1) << text;
  }
}

TEST(MasterConfigDocument, UserIdentifierSwitchAndToken) {
  for (const char* text : {"FALSE", "False", "isfalse", "not false at all"}) {
    auto config = readDefault("telvoUserIdEnabled", text);
    EXPECT_FALSE(config->telvoUserIdEnabled()) << text;
    EXPECT_FALSE(config->telvoUserIdHash().has_value()) << text;
    EXPECT_THAT(config->description(), HasSubstr("\nUser ID Enabled: false"));
  }
  for (const char* text : {"yes", "true", "no", "0", "", "fals"}) {
    auto config = readDefault("telvoUserIdEnabled", text);
    EXPECT_TRUE(config->telvoUserIdEnabled()) << text;
    EXPECT_EQ(config->telvoUserIdHash(), "517telvoUID517") << text;
  }
  auto disabledWithHash =
      read(Json{{"default", {{"telvoUserIdEnabled", "false"}, {"telvoUserIdHash", "mine"}}}});
  EXPECT_EQ(disabledWithHash->telvoUserIdHash(), "mine");
  // A null hash is given and stored as it is, so the built-in token does not
  // replace it.
  auto nullHash = readDefault("telvoUserIdHash", nullptr);
  EXPECT_FALSE(nullHash->telvoUserIdHash().has_value());
  EXPECT_TRUE(nullHash->holdsNull("telvoUserIdHash"));
  EXPECT_NE(nullHash->description().find("\nUser ID Hash: <null>\n"), std::string::npos);
  auto overlaid = read(Json{{"default", {{"telvoUserIdHash", nullptr}}},
                            {"qa", {{"telvoUserIdHash", "set"}, {"batchApi", nullptr}}}},
                       std::string("qa"));
  EXPECT_FALSE(overlaid->holdsNull("telvoUserIdHash"));
  EXPECT_EQ(overlaid->telvoUserIdHash(), "set");
  EXPECT_TRUE(overlaid->holdsNull("batchApi"));
}

// Integers read alike from "default" (document keys) and an environment (property names).
TEST(MasterConfigConversions, Integers) {
  const std::pair<Json, std::int64_t> cases[] = {
      {42, 42},
      {42.9, 42},
      {-42.9, -42},
      {true, 1},
      {false, 0},
      {"  -17abc", -17},
      {"+5", 5},
      {"\t\n7", 7},
      {" 12 34", 12},
      {"abc", 0},
      {"", 0},
      {"- 5", 0},
      {"0x1F", 0},
      {"99999999999999999999", kMax},
      {1e300, kMax},
      {"-9223372036854775808", kMin},
      {-1e300, kMin},
      {"-99999999999999999999", kMin},
      {Json(std::numeric_limits<std::uint64_t>::max()), kMax},
  };
  for (const auto& [value, expected] : cases) {
    SCOPED_TRACE(value.dump());
    EXPECT_EQ(readDefault("helloRetryCount", value)->helloRetryCount(), expected);
    EXPECT_EQ(readDefault("batchModeAmount", value)->batchAmount(), expected);
    EXPECT_EQ(readOverlay("helloRetryCount", value)->helloRetryCount(), expected);
  }
}

TEST(MasterConfigConversions, TruthValues) {
  const std::pair<Json, bool> cases[] = {
      {true, true},     {false, false}, {1, true},     {0, false},    {-2, true},
      {0.5, true},      {0.0, false},   {"YES", true}, {"yes", true}, {"true", true},
      {"T", true},      {"  t", true},  {"1", true},   {"9x", true},  {"-0001", true},
      {"+7", true},     {"000t", true}, {"0", false},  {"00", false}, {"no", false},
      {"false", false}, {"", false},    {"-", false},  {"x1", false}, {"+-1", false},
  };
  for (const auto& [value, expected] : cases) {
    SCOPED_TRACE(value.dump());
    EXPECT_EQ(readDefault("enabled", value)->enabled(), expected);
    EXPECT_EQ(readOverlay("enabled", value)->enabled(), expected);
  }
}

TEST(MasterConfigOverlay, EnvironmentSectionOverridesOnlyWhatItNames) {
  Json document = {{"default", kFullDefault},
                   {"staging", {{"batchAmount", 50}, {"servicesUrl", "https://staging"}}}};
  std::string expected = kFullFields;
  expected.replace(expected.find("BatchAmount: 30"), 15, "BatchAmount: 50");
  expected.replace(expected.find("https://svc"), 11, "https://staging");
  EXPECT_EQ(fields(*read(document, "staging")), expected);

  // No environment, "default" itself, or a name the document lacks: no overlay.
  document["staging"] = {{"bogus", 1}};
  for (const char* environment : {"default", "production", "Staging"}) {
    EXPECT_EQ(fields(*read(document, environment)), kFullFields);
  }
  EXPECT_EQ(fields(*read(document, std::nullopt)), kFullFields);
}

TEST(MasterConfigOverlay, PropertyNamesAndTheirAsymmetries) {
  EXPECT_EQ(readOverlay("messageExcludes", "debug,trace")->messageExcludes(), "debug,trace");
  // batchMode is a number there: the "timer" word is non-numeric text, 0.
  EXPECT_EQ(readOverlay("batchMode", 0)->batchMode(), 0);
  EXPECT_EQ(readOverlay("batchMode", "1")->batchMode(), 1);
  EXPECT_EQ(readOverlay("batchMode", "timer")->batchMode(), 0);
  EXPECT_EQ(readOverlay("batchMode", 1e12)->batchMode(), std::numeric_limits<std::int32_t>::max());
  // telvoUserIdEnabled is a plain truth value there ("no" disables), and the
  // token is neither added nor removed.
  auto disabled = readOverlay("telvoUserIdEnabled", "no");
  EXPECT_FALSE(disabled->telvoUserIdEnabled());
  EXPECT_EQ(disabled->telvoUserIdHash(), "517telvoUID517");
  auto enabled = read(
      Json{{"default", {{"telvoUserIdEnabled", "FALSE"}}}, {"prod", {{"telvoUserIdEnabled", 1}}}},
      "prod");
  EXPECT_TRUE(enabled->telvoUserIdEnabled());
  EXPECT_FALSE(enabled->telvoUserIdHash().has_value());
  // A null text clears what "default" gave.
  EXPECT_FALSE(
      read(Json{{"default", {{"helloApi", "/h"}}}, {"prod", {{"helloApi", nullptr}}}}, "prod")
          ->helloApi()
          .has_value());
}

TEST(MasterConfigErrors, EveryUsageErrorNamesTheKeyAndSection) {
  const std::tuple<const char*, const char*, Json> cases[] = {
      {"qa", "batchModeAmount", 5},
      {"qa", "unknown", "x"},
      {"qa", "batchMode", nullptr},
      {"qa", "batchAmount", nullptr},
      {"qa", "enabled", nullptr},
      {"qa", "telvoUserIdEnabled", nullptr},
      {"qa", "helloRetryTime", Json::object()},
      {"qa", "servicesUrl", 5},
      {"default", "batchMode", 0},
      {"default", "batchMode", nullptr},
      {"default", "telvoUserIdEnabled", false},
      {"default", "telvoUserIdEnabled", nullptr},
      {"default", "batchModeAmount", nullptr},
      {"default", "enabled", nullptr},
      {"default", "enabled", Json::array()},
      {"default", "qosReportInterval", Json::object()},
      {"default", "telvoUserIdHash", 517},
  };
  for (const auto& [section, key, value] : cases) {
    Json document = {{"default", Json::object()}};
    document[section] = Json{{key, value}};
    try {
      read(document, "qa");
      ADD_FAILURE() << "no UsageError for " << document.dump();
    } catch (const UsageError& e) {
      EXPECT_THAT(e.what(), AllOf(HasSubstr('"' + std::string(key) + '"'),
                                  HasSubstr('"' + std::string(section) + '"')));
    }
  }
  // Sections themselves must be objects.
  EXPECT_THROW(read(Json{{"default", Json::array()}}), UsageError);
  EXPECT_THROW(read(Json{{"default", nullptr}}), UsageError);
  EXPECT_THROW(read(Json{{"qa", "text"}}, "qa"), UsageError);
}

}  // namespace
}  // namespace telvo
