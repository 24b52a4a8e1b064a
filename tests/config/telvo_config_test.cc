#include "telvo/telvo_config.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <mutex>

#include "telvo/device.h"
#include "telvo/log.h"

namespace telvo {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

class TelvoConfigTest : public ::testing::Test {
 protected:
  void SetUp() override {
    previousDevice_ = Device::currentDevice();
    Device::setCurrentDevice(std::make_shared<FixedDevice>("9.3.2"));
    setLogSink([this](const std::string& line) {
      std::lock_guard<std::mutex> lock(mutex_);
      lines_.push_back(line);
    });
  }
  void TearDown() override {
    setLogSink({});
    Device::setCurrentDevice(previousDevice_);
  }

  std::vector<std::string> logLines() {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
  }

  static Json completeSettings() {
    return Json{{"platform", "Linux"},
                {"site", "tvguide"},
                {"appVersion", "2.4"},
                {"appName", "Guide"},
                {"configBaseUrl", "https://example.test/cfg/"}};
  }

  static std::string missingMessage(const std::string& key) {
    return "TELVO INIT ERROR: TelvoConfig is missing value for \"" + key + "\"";
  }

 private:
  std::shared_ptr<Device> previousDevice_;
  std::mutex mutex_;
  std::vector<std::string> lines_;
};

TEST_F(TelvoConfigTest, SettingsFillTheRecordWithTheDeviceVersion) {
  Json settings = completeSettings();
  settings["platformVersion"] = "1.0-from-settings";
  auto config = TelvoConfig::telvoConfigWithDictionary(settings);
  ASSERT_NE(config, nullptr);
  EXPECT_EQ(config->platform(), "Linux");
  EXPECT_EQ(config->platformVersion(), "9.3.2");
  EXPECT_EQ(config->site(), "tvguide");
  EXPECT_EQ(config->appVersion(), "2.4");
  EXPECT_EQ(config->appName(), "Guide");
  EXPECT_EQ(config->configBaseUrl(), "https://example.test/cfg/");
  EXPECT_FALSE(config->highPriorityEvents().has_value());
  EXPECT_FALSE(config->configURL().has_value());
  EXPECT_FALSE(config->batchDisabled());
  EXPECT_TRUE(logLines().empty());
}

TEST_F(TelvoConfigTest, EachMissingRequiredKeyIsReportedAlone) {
  for (const char* key : {"platform", "site", "appVersion", "appName"}) {
    SCOPED_TRACE(key);
    const auto before = logLines().size();
    Json settings = completeSettings();
    settings.erase(key);
    EXPECT_EQ(TelvoConfig::telvoConfigWithDictionary(settings), nullptr);
    const auto lines = logLines();
    EXPECT_THAT(std::vector<std::string>(lines.begin() + before, lines.end()),
                ElementsAre(missingMessage(key)));
  }
}

TEST_F(TelvoConfigTest, OnlyTheFirstMissingKeyIsReported) {
  Json settings = completeSettings();
  settings.erase("site");
  settings.erase("appName");
  EXPECT_EQ(TelvoConfig::telvoConfigWithDictionary(settings), nullptr);
  EXPECT_THAT(logLines(), ElementsAre(missingMessage("site")));

  // Null settings have no keys at all.
  EXPECT_EQ(TelvoConfig::telvoConfigWithDictionary(Json()), nullptr);
  EXPECT_EQ(logLines().back(), missingMessage("platform"));
}

TEST_F(TelvoConfigTest, EmptyAndNullValuesArePresent) {
  Json settings = completeSettings();
  settings["site"] = "";
  settings["appName"] = nullptr;
  settings["configBaseUrl"] = nullptr;
  auto config = TelvoConfig::telvoConfigWithDictionary(settings);
  ASSERT_NE(config, nullptr);
  EXPECT_EQ(config->site(), "");
  EXPECT_FALSE(config->appName().has_value());
  // A null base is present, so the default base does not replace it.
  EXPECT_FALSE(config->configBaseUrl().has_value());
  EXPECT_TRUE(logLines().empty());
}

TEST_F(TelvoConfigTest, AbsentBaseTakesTheDefaultAsItStandsNow) {
  const std::string saved = TelvoConfigBaseURL;
  Json settings = completeSettings();
  settings.erase("configBaseUrl");
  EXPECT_EQ(TelvoConfig::telvoConfigWithDictionary(settings)->configBaseUrl(), saved);
  TelvoConfigBaseURL = "https://mirror.test/mdrv/telvo/config/";
  EXPECT_EQ(TelvoConfig::telvoConfigWithDictionary(settings)->configBaseUrl(),
            "https://mirror.test/mdrv/telvo/config/");
  TelvoConfigBaseURL = saved;
}

TEST_F(TelvoConfigTest, HighPriorityEventTexts) {
  auto events = [](const std::string& text) {
    Json settings = completeSettings();
    settings["highPriorityEvents"] = text;
    return *TelvoConfig::telvoConfigWithDictionary(settings)->highPriorityEvents();
  };
  EXPECT_THAT(events(" login , purchase"), ElementsAre("login", "purchase"));
  EXPECT_THAT(events("login"), ElementsAre("login"));
  EXPECT_THAT(events(" log in "), ElementsAre("login"));
  EXPECT_THAT(events(""), ElementsAre(""));
  EXPECT_THAT(events("a,b,"), ElementsAre("a", "b", ""));
  EXPECT_THAT(events(",,"), ElementsAre("", "", ""));
  // Only U+0020 is a blank; other white space stays in the names.
  EXPECT_THAT(events("a\t,\nb"), ElementsAre("a\t", "\nb"));
}

TEST_F(TelvoConfigTest, ValuesOfTheWrongTypeAreUsageErrors) {
  auto expectError = [](const Json& settings, const std::string& naming) {
    try {
      TelvoConfig::telvoConfigWithDictionary(settings);
      ADD_FAILURE() << "no UsageError for " << settings.dump();
    } catch (const UsageError& e) {
      EXPECT_THAT(e.what(), HasSubstr(naming));
    }
  };
  Json settings = completeSettings();
  settings["appVersion"] = 24;
  expectError(settings, "\"appVersion\"");
  settings = completeSettings();
  settings["configBaseUrl"] = Json::array();
  expectError(settings, "\"configBaseUrl\"");
  settings = completeSettings();
  settings["highPriorityEvents"] = Json::array({"login"});
  expectError(settings, "\"highPriorityEvents\"");
  settings["highPriorityEvents"] = nullptr;
  expectError(settings, "\"highPriorityEvents\"");
  expectError(Json::array(), "object");
}

TEST_F(TelvoConfigTest, ConstructorStoresItsArgumentsUnchanged) {
  TelvoConfig config("platform", "version", "site", "appVersion", "appName", std::nullopt);
  EXPECT_EQ(config.platform(), "platform");
  EXPECT_EQ(config.platformVersion(), "version");
  EXPECT_EQ(config.site(), "site");
  EXPECT_EQ(config.appVersion(), "appVersion");
  EXPECT_EQ(config.appName(), "appName");
  EXPECT_FALSE(config.configBaseUrl().has_value());
  EXPECT_FALSE(config.highPriorityEvents().has_value());
}

TEST_F(TelvoConfigTest, DescriptionPrintsNullForUnsetFields) {
  TelvoConfig empty(std::nullopt, std::nullopt, std::nullopt, std::nullopt, std::nullopt,
                    std::nullopt);
  char identity[32];
  std::snprintf(identity, sizeof identity, "%p", static_cast<const void*>(&empty));
  EXPECT_EQ(empty.description(), std::string("TelvoConfig: ") + identity +
                                     "\nSite: (null)\nConfig Base URL: (null)\nApp Name: (null)"
                                     "\nApp Version: (null)\nPlatform: (null)\n"
                                     "Platform Version:(null)");

  TelvoConfig full("Linux", "6.1", "news", "3.0", "Reader", "https://b/");
  EXPECT_THAT(full.description(), HasSubstr("\nSite: news\nConfig Base URL: https://b/\nApp Name: "
                                            "Reader\nApp Version: 3.0\nPlatform: Linux\n"
                                            "Platform Version:6.1"));
}

TEST_F(TelvoConfigTest, JSONStringHoldsExactlyTheSixIdentityFields) {
  TelvoConfig config("Linux", "6.1", "news", "3.0", "Reader \"beta\"", "https://b/");
  config.setHighPriorityEvents(std::vector<std::string>{"login"});
  config.setBatchDisabled(true);
  auto text = config.JSONString();
  ASSERT_TRUE(text.has_value());
  EXPECT_EQ(text->find('\n'), std::string::npos);
  EXPECT_EQ(Json::parse(*text), (Json{{"site", "news"},
                                      {"configBaseUrl", "https://b/"},
                                      {"appName", "Reader \"beta\""},
                                      {"appVersion", "3.0"},
                                      {"platform", "Linux"},
                                      {"platformVersion", "6.1"}}));

  config.setAppVersion(std::string("\xff\xfe"));
  EXPECT_FALSE(config.JSONString().has_value());

  config.setPlatformVersion(std::nullopt);
  EXPECT_THROW(config.JSONString(), UsageError);
}

TEST(TelvoConfigGlobals, HaveTheirPublishedValues) {
  const std::string base = TelvoConfigBaseURL;
  EXPECT_EQ(base.rfind("https://", 0), 0u);
  const std::string path = "/mdrv/telvo/config/";
  ASSERT_GT(base.size(), path.size());
  EXPECT_EQ(base.substr(base.size() - path.size()), path);
  EXPECT_EQ(base.find('/', 8), base.size() - path.size());  // the path follows the host
  EXPECT_EQ(TelvoConfigFile, "telvoanalytics.json");
  EXPECT_EQ(TelvoVersionNumber, 1.0);
  EXPECT_STREQ(reinterpret_cast<const char*>(TelvoVersionString),
               "@(#)PROGRAM:Telvo  PROJECT:Telvo-1\n");
}

}  // namespace
}  // namespace telvo
