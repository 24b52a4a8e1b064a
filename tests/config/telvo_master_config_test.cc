#include "telvo/telvo_master_config.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <limits>

namespace telvo {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;

constexpr auto kMax = std::numeric_limits<std::int64_t>::max();
constexpr auto kMin = std::numeric_limits<std::int64_t>::min();

std::shared_ptr<TelvoMasterConfig> read(const Json& document,
                                        std::optional<std::string> environment = std::nullopt) {
  return TelvoMasterConfig::configFromDictionary(document, environment);
}

std::shared_ptr<TelvoMasterConfig> readDefault(const char* key, const Json& value) {
  return read(Json{{"default", Json{{key, value}}}});
}

std::shared_ptr<TelvoMasterConfig> readOverlay(const char* key, const Json& value) {
  return read(Json{{"default", Json::object()}, {"staging", Json{{key, value}}}}, "staging");
}

// Expects a UsageError whose message names both the key and the section.
void expectUsageError(const Json& document, const std::optional<std::string>& environment,
                      const std::string& key, const std::string& section) {
  try {
    TelvoMasterConfig::configFromDictionary(document, environment);
    ADD_FAILURE() << "no UsageError for " << document.dump();
  } catch (const UsageError& e) {
    EXPECT_THAT(e.what(), AllOf(HasSubstr("\"" + key + "\""), HasSubstr("\"" + section + "\"")))
        << document.dump();
  }
}

void expectDefaults(const TelvoMasterConfig& config) {
  EXPECT_EQ(config.batchMode(), 1);
  EXPECT_EQ(config.batchAmount(), 0);
  EXPECT_FALSE(config.enabled());
  for (const auto* text :
       {&config.servicesUrl(), &config.batchApi(), &config.helloApi(),
        &config.batchContentEncoding(), &config.messageExcludes(), &config.transportFormats()}) {
    EXPECT_FALSE(text->has_value());
  }
  for (auto n :
       {config.helloRetryCount(), config.helloRetryTime(), config.qosUpdateInterval(),
        config.qosReportInterval(), config.progressReportInterval(), config.adProgressInterval()}) {
    EXPECT_EQ(n, 0);
  }
  EXPECT_TRUE(config.telvoUserIdEnabled());
  EXPECT_EQ(config.telvoUserIdHash(), "517telvoUID517");
}

const Json kFullDefault = {
    {"batchMode", "timer"},
    {"batchModeAmount", 30},
    {"servicesUrl", "https://svc"},
    {"enabled", true},
    {"batchApi", "/api/batch"},
    {"helloApi", "/api/hello"},
    {"batchContentEncoding", "gzip"},
    {"helloRetryCount", 3},
    {"helloRetryTime", 5},
    {"messageExcludes", "ignored"},
    {"transportFormats", "json"},
    {"qosUpdateInterval", 6},
    {"qosReportInterval", 7},
    {"progressReportInterval", 8},
    {"adProgressInterval", 9},
    {"telvoUserIdHash", "hash"},
};

TEST(MasterConfigDocument, EmptyAbsentOrShapelessDocumentsGiveTheDefaults) {
  for (const auto& document :
       {std::optional<Json>(), std::optional<Json>(Json::object()), std::optional<Json>(Json()),
        std::optional<Json>(Json::array()), std::optional<Json>(Json{{"other", Json::object()}})}) {
    SCOPED_TRACE(document ? document->dump() : "nothing");
    expectDefaults(*TelvoMasterConfig::configFromDictionary(document, "other"));
  }
  expectDefaults(*read(Json{{"default", Json::object()}}));
}

TEST(MasterConfigDocument, DefaultSectionIsReadWithTheDocumentKeys) {
  auto config = read(Json{{"default", kFullDefault}});
  EXPECT_EQ(config->batchMode(), 0);
  EXPECT_EQ(config->batchAmount(), 30);
  EXPECT_EQ(config->servicesUrl(), "https://svc");
  EXPECT_TRUE(config->enabled());
  EXPECT_EQ(config->batchApi(), "/api/batch");
  EXPECT_EQ(config->helloApi(), "/api/hello");
  EXPECT_EQ(config->batchContentEncoding(), "gzip");
  EXPECT_EQ(config->helloRetryCount(), 3);
  EXPECT_EQ(config->helloRetryTime(), 5);
  EXPECT_FALSE(config->messageExcludes().has_value());
  EXPECT_EQ(config->transportFormats(), "json");
  EXPECT_EQ(config->qosUpdateInterval(), 6);
  EXPECT_EQ(config->qosReportInterval(), 7);
  EXPECT_EQ(config->progressReportInterval(), 8);
  EXPECT_EQ(config->adProgressInterval(), 9);
  EXPECT_TRUE(config->telvoUserIdEnabled());
  EXPECT_EQ(config->telvoUserIdHash(), "hash");
  // The property name is not the document key in "default".
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
  }
  for (const char* text : {"yes", "true", "no", "0", "", "fals"}) {
    auto config = readDefault("telvoUserIdEnabled", text);
    EXPECT_TRUE(config->telvoUserIdEnabled()) << text;
    EXPECT_EQ(config->telvoUserIdHash(), "517telvoUID517") << text;
  }
  auto disabledWithHash =
      read(Json{{"default", {{"telvoUserIdEnabled", "false"}, {"telvoUserIdHash", "mine"}}}});
  EXPECT_EQ(disabledWithHash->telvoUserIdHash(), "mine");
  // A null hash is given (as unset), so the built-in token does not replace it.
  EXPECT_FALSE(readDefault("telvoUserIdHash", nullptr)->telvoUserIdHash().has_value());
}

// Integers read the same way from "default" (document keys) and from an
// environment section (property names).
TEST(MasterConfigConversions, Integers) {
  const std::vector<std::pair<Json, std::int64_t>> cases = {
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
      {"-9223372036854775808", kMin},
      {"-99999999999999999999", kMin},
      {1e300, kMax},
      {-1e300, kMin},
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
  const std::vector<std::pair<Json, bool>> cases = {
      {true, true},     {false, false}, {1, true},     {0, false},    {-2, true},
      {0.5, true},      {0.0, false},   {"YES", true}, {"yes", true}, {"true", true},
      {"T", true},      {"  t", true},  {"1", true},   {"9x", true},  {"-0001", true},
      {"+7", true},     {"000t", true}, {"0", false},  {"00", false}, {"no", false},
      {"false", false}, {"", false},    {"-", false},  {"x1", false}, {"+-1", false},
      {"N", false},
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
  auto config = read(document, "staging");
  EXPECT_EQ(config->batchAmount(), 50);
  EXPECT_EQ(config->servicesUrl(), "https://staging");
  EXPECT_EQ(config->batchMode(), 0);
  EXPECT_EQ(config->batchApi(), "/api/batch");
  EXPECT_EQ(config->helloRetryTime(), 5);
  EXPECT_EQ(config->telvoUserIdHash(), "hash");

  // No environment, "default" itself, or a name the document lacks: no overlay.
  document["default"] = {{"servicesUrl", "https://base"}};
  document["staging"] = {{"bogus", 1}};
  for (const auto& environment :
       {std::optional<std::string>(), std::optional<std::string>("default"),
        std::optional<std::string>("production"), std::optional<std::string>("Staging")}) {
    EXPECT_EQ(read(document, environment)->servicesUrl(), "https://base");
  }
}

TEST(MasterConfigOverlay, PropertyNamesAndTheirAsymmetries) {
  // messageExcludes comes from an environment only.
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
  auto enabled = read(Json{{"default", {{"telvoUserIdEnabled", "FALSE"}}},
                           {"prod", {{"telvoUserIdEnabled", true}}}},
                      "prod");
  EXPECT_TRUE(enabled->telvoUserIdEnabled());
  EXPECT_FALSE(enabled->telvoUserIdHash().has_value());
  // A null text clears what "default" gave.
  auto cleared =
      read(Json{{"default", {{"helloApi", "/hello"}}}, {"prod", {{"helloApi", nullptr}}}}, "prod");
  EXPECT_FALSE(cleared->helloApi().has_value());
}

TEST(MasterConfigErrors, EveryUsageErrorNamesTheKeyAndSection) {
  auto overlay = [](const char* key, const Json& value) {
    return Json{{"default", Json::object()}, {"qa", Json{{key, value}}}};
  };
  auto base = [](const char* key, const Json& value) {
    return Json{{"default", Json{{key, value}}}};
  };
  expectUsageError(overlay("batchModeAmount", 5), "qa", "batchModeAmount", "qa");
  expectUsageError(overlay("unknown", "x"), "qa", "unknown", "qa");
  for (const char* key : {"batchMode", "batchAmount", "enabled", "telvoUserIdEnabled"}) {
    expectUsageError(overlay(key, nullptr), "qa", key, "qa");
  }
  expectUsageError(overlay("helloRetryTime", Json::object()), "qa", "helloRetryTime", "qa");
  expectUsageError(overlay("servicesUrl", 5), "qa", "servicesUrl", "qa");

  for (const auto& value : {Json(0), Json(nullptr), Json(true)}) {
    expectUsageError(base("batchMode", value), std::nullopt, "batchMode", "default");
  }
  for (const auto& value : {Json(false), Json(nullptr), Json(0)}) {
    expectUsageError(base("telvoUserIdEnabled", value), std::nullopt, "telvoUserIdEnabled",
                     "default");
  }
  expectUsageError(base("batchModeAmount", nullptr), std::nullopt, "batchModeAmount", "default");
  expectUsageError(base("enabled", nullptr), std::nullopt, "enabled", "default");
  expectUsageError(base("enabled", Json::array()), std::nullopt, "enabled", "default");
  expectUsageError(base("qosReportInterval", Json::object()), std::nullopt, "qosReportInterval",
                   "default");
  expectUsageError(base("telvoUserIdHash", 517), std::nullopt, "telvoUserIdHash", "default");

  // Sections themselves must be objects.
  EXPECT_THROW(read(Json{{"default", Json::array()}}), UsageError);
  EXPECT_THROW(read(Json{{"default", nullptr}}), UsageError);
  EXPECT_THROW(read(Json{{"qa", "text"}}, "qa"), UsageError);
}

TEST(MasterConfigDescription, PrintsTheDocumentedLines) {
  Json document = {{"default", kFullDefault}, {"qa", {{"messageExcludes", "secret-excludes"}}}};
  auto config = read(document, "qa");
  char identity[32];
  std::snprintf(identity, sizeof identity, "%p", static_cast<const void*>(config.get()));
  EXPECT_EQ(config->description(),
            std::string("TelvoMasterConfig: ") + identity +
                "\nBatchMode: 0\nBatchAmount: 30\nServicesUrl: https://svc\nEnabled: 1"
                "\nBatch API: /api/batch\nHello API: /api/hello\nBatch Content Encoding: gzip"
                "\nHello Retry Count: 3\nHello Retry Time: 5\nTransport Formats: json"
                "\nQOS Update Interval: 6\nQOS Report Interval: 7\nProgress Report Interval: 8"
                "\nUser ID Hash: hash\nUser ID Enabled: true");
  EXPECT_THAT(config->description(), Not(HasSubstr("secret-excludes")));

  auto empty = read(Json{{"default", {{"telvoUserIdEnabled", "false"}}}});
  EXPECT_THAT(empty->description(),
              AllOf(HasSubstr("\nBatchMode: 1\n"), HasSubstr("\nServicesUrl: (null)\n"),
                    HasSubstr("\nEnabled: 0\n"), HasSubstr("\nUser ID Hash: (null)\n"),
                    HasSubstr("\nUser ID Enabled: false")));
}

}  // namespace
}  // namespace telvo
