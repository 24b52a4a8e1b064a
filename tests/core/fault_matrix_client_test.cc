// A real client over libcurl against a service on 127.0.0.1 whose
// configuration documents and hello answers carry the wrong type in every
// field. Each case states the outcome: a document the reader refuses leaves
// the client unconfigured (no hello); a field read leniently is read as the
// design reads it; an answer without a session id leaves it uninitialised.
// Every case ends within its time-out and without a crash.
#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <string>

#include "support/captured_log.h"
#include "support/https_test_server.h"
#include "support/test_platform.h"
#include "telvo/notification_center.h"
#include "telvo/telvo.h"
#include "telvo/thread_executor.h"
#include "telvo/user_defaults.h"

namespace telvo {
namespace {

Json goodSection() {
  return {{"enabled", true},         {"batchMode", "count"},     {"batchModeAmount", 10},
          {"servicesUrl", "SERVICES"}, {"helloApi", "/api/hello"}, {"batchApi", "/api/batch"},
          {"telvoUserIdEnabled", "false"}};
}

class ClientFaultMatrix : public ::testing::Test {
 protected:
  // The handlers read the members below: the server's threads end first.
  ~ClientFaultMatrix() override { server_.stop(); }
  void SetUp() override {
    server_.route("GET", "/config/Player/den/telvoanalytics.json",
                  [this](const httplib::Request&, httplib::Response& response) {
                    std::lock_guard<std::mutex> lock(mutex_);
                    response.set_content(document_, "application/json");
                  });
    server_.route("POST", "/api/hello", [this](const httplib::Request&, httplib::Response& response) {
      std::lock_guard<std::mutex> lock(mutex_);
      response.set_content(answer_, "application/json");
    });
    TelvoTransport::Options options;
    options.caFile = server_.certificateFile();
    platform_.transport =
        TelvoTransport::makeCurlTransport(options, std::make_shared<MemoryUserDefaults>());
    platform_.mainQueue = std::make_shared<ThreadExecutor>();
    platform_.backgroundQueue = std::make_shared<ThreadExecutor>();
    platform_.notificationCenter = std::make_shared<NotificationCenter>();
    platform_.userDefaults = std::make_shared<MemoryUserDefaults>();
    platform_.device = std::make_shared<FixedDevice>();
  }

  // A client whose document is {"default": section} and whose hello answer
  // is `answer`, once both exchanges are over.
  std::shared_ptr<Telvo> run(const Json& section, const std::string& answer) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      std::string text = Json{{"default", section}}.dump();
      const auto at = text.find("SERVICES");
      if (at != std::string::npos) text.replace(at, 8, server_.url());
      document_ = text;
      answer_ = answer;
    }
    auto config = std::make_shared<TelvoConfig>("linux", "12", "den", "3.0", "Player",
                                                server_.url("/config/"));
    auto client = Telvo::create(config, "web", "prod", platform_);
    EXPECT_TRUE(platform_.transport->waitUntilIdle(20));
    return client;
  }

  test::HttpsTestServer server_;
  Platform platform_;
  std::mutex mutex_;
  std::string document_;  // guarded by mutex_
  std::string answer_;    // guarded by mutex_
};

TEST_F(ClientFaultMatrix, ConfigurationFieldsOfTheWrongTypeLeaveTheClientUnconfigured) {
  const std::pair<const char*, Json> refused[] = {
      {"enabled", Json::object()},        {"batchMode", 5},
      {"batchModeAmount", Json::array()}, {"servicesUrl", 5},
      {"helloApi", true},                 {"batchApi", Json::object()},
      {"batchContentEncoding", 1},        {"transportFormats", Json::array()},
      {"helloRetryCount", Json::object()}, {"helloRetryTime", Json::array()},
      {"qosUpdateInterval", nullptr},     {"qosReportInterval", Json::object()},
      {"progressReportInterval", Json::array()},
      {"adProgressInterval", Json::object()}, {"telvoUserIdEnabled", true},
      {"telvoUserIdHash", 5},
  };
  for (const auto& [field, value] : refused) {
    Json section = goodSection();
    section[field] = value;
    CapturedLog log;
    auto client = run(section, R"({"sessionId":"S"})");
    EXPECT_FALSE(client->masterConfig()) << field;
    EXPECT_FALSE(client->isInitialized()) << field;
    ASSERT_EQ(log.lines().size(), 1u) << field;
    EXPECT_NE(log.lines()[0].find(std::string("\"") + field + "\""), std::string::npos)
        << log.lines()[0];
  }
}

TEST_F(ClientFaultMatrix, LenientConfigurationFieldsAreReadAsTheReaderReadsThem) {
  Json section = goodSection();
  section["batchModeAmount"] = "12 events";  // leading digits
  section["helloRetryCount"] = "none";       // no digits: 0
  section["enabled"] = "Yes";                // truth from text
  section["qosUpdateInterval"] = 1e300;      // saturates
  auto client = run(section, R"({"sessionId":"S"})");
  ASSERT_TRUE(client->masterConfig());
  EXPECT_EQ(client->masterConfig()->batchAmount(), 12);
  EXPECT_EQ(client->masterConfig()->helloRetryCount(), 0);
  EXPECT_EQ(client->masterConfig()->qosUpdateInterval(), INT64_MAX);
  EXPECT_TRUE(client->isInitialized());

  // Documents that are not objects read as empty: reporting stays off.
  for (const char* document : {"[1,2]", "\"text\"", "not json at all"}) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      document_ = document;
    }
    auto config = std::make_shared<TelvoConfig>("linux", "12", "den", "3.0", "Player",
                                                server_.url("/config/"));
    auto plain = Telvo::create(config, "web", "prod", platform_);
    ASSERT_TRUE(platform_.transport->waitUntilIdle(20));
    ASSERT_TRUE(plain->masterConfig()) << document;
    EXPECT_FALSE(plain->masterConfig()->enabled()) << document;
    EXPECT_FALSE(plain->isInitialized()) << document;
  }
}

TEST_F(ClientFaultMatrix, HelloFieldsOfEveryTypeGiveTheDesignsOutcome) {
  struct Case {
    std::string answer;
    bool initialised;
    Json session;
    bool throttled;
  };
  const Case cases[] = {
      {R"({"sessionId":42})", true, 42, false},
      {R"({"sessionId":null})", true, nullptr, false},
      {R"({"sessionId":{"id":[1,2]}})", true, {{"id", {1, 2}}}, false},
      {R"({"sessionId":"S","throttled":"yes"})", true, "S", true},
      {R"({"sessionId":"S","throttled":{}})", true, "S", false},
      {R"({"sessionId":"S","throttled":7})", true, "S", true},
      {R"({"sessionId":"S","timestamp":"abc"})", true, "S", false},
      {R"({"sessionId":"S","timestamp":[1]})", true, "S", false},
      {R"({"session":"S"})", false, "", false},
      {R"(["sessionId"])", false, "", false},
      {R"("sessionId")", false, "", false},
      {"{\"sessionId\":" + std::string(5000, '[') + std::string(5000, ']') + "}", false, "",
       false},
  };
  for (const auto& c : cases) {
    auto client = run(goodSection(), c.answer);
    ASSERT_TRUE(client->masterConfig()) << c.answer.substr(0, 60);
    EXPECT_EQ(client->isInitialized(), c.initialised) << c.answer.substr(0, 60);
    EXPECT_EQ(client->sessionID(), c.session) << c.answer.substr(0, 60);
    EXPECT_EQ(client->isThrottled(), c.throttled) << c.answer.substr(0, 60);
    EXPECT_TRUE(std::isfinite(client->timeStampDelta()));
  }
}

}  // namespace
}  // namespace telvo
