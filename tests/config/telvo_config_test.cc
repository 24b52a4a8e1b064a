#include "telvo/telvo_config.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <functional>

#include "support/test_platform.h"
#include "telvo/device.h"
#include "telvo/log.h"

namespace telvo {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using Names = std::vector<std::string>;

class TelvoConfigTest : public ::testing::Test {
 protected:
  void SetUp() override {
    previousDevice_ = Device::currentDevice();
    Device::setCurrentDevice(std::make_shared<FixedDevice>("9.3.2"));
    setLogSink([this](const std::string& line) { lines_.push_back(line); });
  }
  void TearDown() override {
    setLogSink({});
    Device::setCurrentDevice(previousDevice_);
  }

  // Builds from complete settings changed by `edit`, keeping the log lines it wrote.
  std::shared_ptr<TelvoConfig> build(const std::function<void(Json&)>& edit) {
    Json settings = {{"platform", "Linux"},
                     {"site", "tvguide"},
                     {"appVersion", "2.4"},
                     {"appName", "Guide"},
                     {"configBaseUrl", "https://example.test/cfg/"}};
    edit(settings);
    lines_.clear();
    return TelvoConfig::telvoConfigWithDictionary(settings);
  }

  static std::string missing(const std::string& key) {
    return "TELVO INIT ERROR: TelvoConfig is missing value for \"" + key + "\"";
  }

  std::shared_ptr<Device> previousDevice_;
  Names lines_;
};

TEST_F(TelvoConfigTest, SettingsFillTheRecordWithTheDeviceVersion) {
  auto config = build([](Json& s) { s["platformVersion"] = "1.0-from-settings"; });
  ASSERT_NE(config, nullptr);
  EXPECT_EQ(config->platform(), "Linux");
  EXPECT_EQ(config->platformVersion(), "9.3.2");
  EXPECT_EQ(config->site(), "tvguide");
  EXPECT_EQ(config->appVersion(), "2.4");
  EXPECT_EQ(config->appName(), "Guide");
  EXPECT_EQ(config->configBaseUrl(), "https://example.test/cfg/");
  EXPECT_FALSE(config->highPriorityEvents() || config->configURL() || config->batchDisabled());
  EXPECT_TRUE(lines_.empty());
}

TEST_F(TelvoConfigTest, MissingKeysReportOnlyTheFirst) {
  for (const char* key : {"platform", "site", "appVersion", "appName"}) {
    EXPECT_EQ(build([&](Json& s) { s.erase(key); }), nullptr);
    EXPECT_THAT(lines_, ElementsAre(missing(key)));
  }
  EXPECT_EQ(build([](Json& s) { s.erase("site"), s.erase("appName"); }), nullptr);
  EXPECT_THAT(lines_, ElementsAre(missing("site")));
  EXPECT_EQ(build([](Json& s) { s = nullptr; }), nullptr);  // null settings have no keys
  EXPECT_THAT(lines_, ElementsAre(missing("platform")));
}

TEST_F(TelvoConfigTest, EmptyAndNullValuesArePresent) {
  auto config = build([](Json& s) { s["site"] = "", s["appName"] = s["configBaseUrl"] = nullptr; });
  ASSERT_NE(config, nullptr);
  EXPECT_EQ(config->site(), "");
  EXPECT_FALSE(config->appName().has_value());
  EXPECT_FALSE(config->configBaseUrl().has_value());  // present, so no default base
  // Stored as the settings gave them: JSON null, shown as <null>.
  EXPECT_TRUE(config->holdsNull("appName"));
  EXPECT_TRUE(config->holdsNull("configBaseUrl"));
  EXPECT_FALSE(config->holdsNull("site"));
  EXPECT_NE(config->description().find("\nConfig Base URL: <null>\nApp Name: <null>\n"),
            std::string::npos)
      << config->description();
  EXPECT_EQ(Json::parse(*config->JSONString())["appName"], nullptr);
  config->setAppName("Player");  // a value replaces the null
  EXPECT_FALSE(config->holdsNull("appName"));

  const std::string saved = TelvoConfigBaseURL;
  TelvoConfigBaseURL = "https://mirror.test/mdrv/telvo/config/";
  EXPECT_EQ(build([](Json& s) { s.erase("configBaseUrl"); })->configBaseUrl(), TelvoConfigBaseURL);
  TelvoConfigBaseURL = saved;
}

TEST_F(TelvoConfigTest, HighPriorityEventTexts) {
  auto events = [this](const std::string& text) {
    return *build([&](Json& s) { s["highPriorityEvents"] = text; })->highPriorityEvents();
  };
  EXPECT_EQ(events(" login , purchase"), (Names{"login", "purchase"}));
  EXPECT_EQ(events(" log in "), (Names{"login"}));
  EXPECT_EQ(events(""), (Names{""}));
  EXPECT_EQ(events("a,b,"), (Names{"a", "b", ""}));
  EXPECT_EQ(events(",,"), (Names{"", "", ""}));
  EXPECT_EQ(events("a\t,\nb"), (Names{"a\t", "\nb"}));  // only U+0020 is removed
}

TEST_F(TelvoConfigTest, ValuesOfTheWrongTypeAreUsageErrors) {
  const std::pair<const char*, Json> cases[] = {{"appVersion", 24},
                                                {"configBaseUrl", Json::array()},
                                                {"highPriorityEvents", Json::array({"login"})},
                                                {"highPriorityEvents", nullptr}};
  for (const auto& [key, value] : cases) {
    try {
      build([&](Json& s) { s[key] = value; });
      ADD_FAILURE() << "no UsageError for " << key;
    } catch (const UsageError& e) {
      EXPECT_THAT(e.what(), HasSubstr(std::string("\"") + key + "\""));
    }
  }
  EXPECT_THROW(build([](Json& s) { s = Json::array(); }), UsageError);
}

TEST_F(TelvoConfigTest, ConstructorDescriptionAndJSON) {
  TelvoConfig unset(std::nullopt, std::nullopt, std::nullopt, std::nullopt, std::nullopt,
                    std::nullopt);
  char identity[32];
  std::snprintf(identity, sizeof identity, "%p", static_cast<const void*>(&unset));
  EXPECT_EQ(unset.description(), std::string("TelvoConfig: ") + identity +
                                     "\nSite: (null)\nConfig Base URL: (null)\nApp Name: (null)"
                                     "\nApp Version: (null)\nPlatform: (null)\n"
                                     "Platform Version:(null)");
  EXPECT_THROW(unset.JSONString(), UsageError);

  TelvoConfig config("Linux", "6.1", "news", "3.0", "Reader \"beta\"", "https://b/");
  EXPECT_THAT(config.description(), HasSubstr("\nSite: news\nConfig Base URL: https://b/\nApp "
                                              "Name: Reader \"beta\"\nApp Version: 3.0\n"
                                              "Platform: Linux\nPlatform Version:6.1"));
  config.setHighPriorityEvents(Names{"login"});
  auto text = config.JSONString();
  ASSERT_TRUE(text.has_value());
  EXPECT_EQ(text->find('\n'), std::string::npos);
  EXPECT_EQ(Json::parse(*text), (Json{{"site", "news"},
                                      {"configBaseUrl", "https://b/"},
                                      {"appName", "Reader \"beta\""},
                                      {"appVersion", "3.0"},
                                      {"platform", "Linux"},
                                      {"platformVersion", "6.1"}}));
  // One line, the fields in a fixed order, escaped as the JSON writer escapes.
  EXPECT_EQ(*text, R"({"site":"news","configBaseUrl":"https://b/","appName":"Reader \"beta\"",)"
                   R"("appVersion":"3.0","platform":"Linux","platformVersion":"6.1"})");
  config.setPlatform(std::string("TV\x7f\t\xC3\xA9\x01"));
  EXPECT_EQ(Json::parse(*config.JSONString())["platform"], "TV\x7f\t\xC3\xA9\x01");
  EXPECT_NE(config.JSONString()->find(R"("platform":"TV)"
                                      "\x7f"
                                      R"(\t)"
                                      "\xC3\xA9"
                                      R"(\u0001")"),
            std::string::npos)
      << *config.JSONString();
  config.setAppVersion(std::string("\xff\xfe"));
  EXPECT_FALSE(config.JSONString().has_value());  // not UTF-8
  // An unset field is the host's mistake, whatever the other fields hold.
  config.setPlatformVersion(std::nullopt);
  EXPECT_THROW(config.JSONString(), UsageError);
}

TEST(TelvoConfigGlobals, HaveTheirPublishedValues) {
  const std::string base = TelvoConfigBaseURL, path = "/mdrv/telvo/config/";
  EXPECT_EQ(base.rfind("https://", 0), 0u);
  EXPECT_EQ(base.find('/', 8), base.size() - path.size());  // the path follows the host
  EXPECT_EQ(base.substr(base.find('/', 8)), path);
  EXPECT_EQ(TelvoConfigFile, "telvoanalytics.json");
  EXPECT_EQ(TelvoVersionNumber, 1.0);
  EXPECT_STREQ(reinterpret_cast<const char*>(TelvoVersionString),
               "@(#)PROGRAM:Telvo  PROJECT:Telvo-1\n");
}

}  // namespace
}  // namespace telvo
