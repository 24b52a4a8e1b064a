// The whole path with real parts: the collector on a free loopback port,
// `telvo send` and the example host as clients, and the rows they leave.
// Every child runs with its own TELVO_HOME, so the client's cookie and device
// identifier stay in the test's folder.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <random>
#include <string>
#include <thread>

#include "telvo/types.h"
#include "tools/collector_process.h"

namespace telvo {
namespace {

using testing::CollectorProcess;
using testing::runProgram;
using testing::runTool;
using testing::TempDir;
using testing::ToolResult;

constexpr std::int64_t kSkewMs = 250000;

class DemoEndToEndTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(std::string(TELVO_TOOL_PATH).empty()) << "the telvo tool is not built";
    env_ = {"TELVO_HOME=" + dir_.file("home")};
  }

  void start(const std::vector<std::string>& extra) {
    ASSERT_TRUE(collector_.start(dir_.file("data"), extra)) << "collector did not start";
  }

  ToolResult send(const std::string& configBase, const std::string& app,
                  const std::vector<std::string>& extra, const std::string& timeout = "10") {
    std::vector<std::string> args{"send",
                                  "--config-base",
                                  configBase,
                                  "--app",
                                  app,
                                  "--site",
                                  "lab",
                                  "--app-version",
                                  "2.0",
                                  "--platform",
                                  "linux",
                                  "--property",
                                  "cli",
                                  "--environment",
                                  "count",
                                  "--cacert",
                                  collector_.certificatePath(),
                                  "--timeout",
                                  timeout};
    args.insert(args.end(), extra.begin(), extra.end());
    return runTool(args, env_);
  }

  std::string configBase() const { return collector_.baseUrl() + "/mdrv/telvo/config/"; }

  Json stored() {
    auto result = runTool({"events", "--json", "--data", dir_.file("data")});
    EXPECT_EQ(result.status, 0) << result.err;
    return Json::parse(result.out, nullptr, false);
  }

  TempDir dir_;
  std::vector<std::string> env_;
  CollectorProcess collector_;
};

// Rows stamped by a client carry the service's clock: the collector's own
// clock at arrival plus the skew it announced, less the little time in flight.
void expectServiceTime(const Json& row, const char* field) {
  ASSERT_TRUE(row[field].is_number_integer()) << row.dump();
  std::int64_t offset = row[field].get<std::int64_t>() - row["received"].get<std::int64_t>();
  EXPECT_GE(offset, kSkewMs - 5000) << row.dump();
  EXPECT_LE(offset, kSkewMs + 50) << row.dump();
}

TEST_F(DemoEndToEndTest, SendAndExampleHostArriveWhole) {
  start({"--clock-skew", std::to_string(kSkewMs), "--set-cookie", "telvoUUID=cafe; Path=/"});

  auto sent = send(configBase(), "demo",
                   {"--event", R"(play={"title":"Intro"})", "--event", "pause", "--error",
                    R"(E42={"where":"player"})"});
  ASSERT_EQ(sent.status, 0) << sent.out << sent.err;

  Json rows = stored();
  ASSERT_EQ(rows["sessions"].size(), 1u);
  const Json& session = rows["sessions"][0];
  EXPECT_EQ(session["hello"]["propertyName"], "cli");
  EXPECT_EQ(session["hello"]["applicationVersion"], "2.0");
  EXPECT_TRUE(session["cookie"].is_null());  // the first hello has nothing to send back
  ASSERT_EQ(rows["events"].size(), 2u);
  EXPECT_EQ(rows["events"][0]["eventType"], "play");
  EXPECT_EQ(rows["events"][0]["eventData"]["title"], "Intro");
  expectServiceTime(rows["events"][0], "eventTime");
  EXPECT_EQ(rows["events"][1]["eventType"], "pause");
  EXPECT_EQ(rows["events"][1]["eventData"], (Json{{"applicationName", "demo"}}));
  for (const auto& event : rows["events"]) EXPECT_EQ(event["sessionId"], session["sessionId"]);
  ASSERT_EQ(rows["errors"].size(), 1u);
  EXPECT_EQ(rows["errors"][0]["errorCode"], "E42");
  EXPECT_EQ(rows["errors"][0]["data"]["where"], "player");
  EXPECT_EQ(rows["errors"][0]["sessionId"], session["sessionId"]);
  expectServiceTime(rows["errors"][0], "errorTime");
  EXPECT_TRUE(rows["problems"].empty()) << rows["problems"].dump();

  if (std::string(TELVO_EXAMPLE_PATH).empty()) GTEST_SKIP() << "the example host is not built";
  auto host = runProgram(TELVO_EXAMPLE_PATH,
                         {"--config-base", configBase(), "--app", "demo", "--site", "lab",
                          "--cacert", collector_.certificatePath(), "--timeout", "20"},
                         env_, std::chrono::seconds(60));
  ASSERT_EQ(host.status, 0) << host.out << host.err;

  rows = stored();
  ASSERT_EQ(rows["sessions"].size(), 3u);
  std::set<std::string> hostSessions;
  for (std::size_t i = 1; i < 3; ++i) {
    const Json& s = rows["sessions"][i];
    hostSessions.insert(s["sessionId"].get<std::string>());
    EXPECT_EQ(s["hello"]["propertyName"], "example");
    // The cookie the collector set on the first hello comes back on later ones.
    ASSERT_TRUE(s["cookie"].is_string()) << s.dump();
    EXPECT_NE(s["cookie"].get<std::string>().find("telvoUUID=cafe"), std::string::npos);
  }
  std::multiset<std::string> types;
  for (std::size_t i = 2; i < rows["events"].size(); ++i) {
    const Json& event = rows["events"][i];
    types.insert(event["eventType"].get<std::string>());
    EXPECT_TRUE(hostSessions.count(event["sessionId"].get<std::string>())) << event.dump();
    expectServiceTime(event, "eventTime");
  }
  EXPECT_EQ(types, (std::multiset<std::string>{"page_view", "page_view", "page_view", "play",
                                               "purchase", "error", "pause", "stop"}));
  ASSERT_EQ(rows["errors"].size(), 2u);
  EXPECT_EQ(rows["errors"][1]["errorCode"], "E42");
  EXPECT_TRUE(hostSessions.count(rows["errors"][1]["sessionId"].get<std::string>()));
  EXPECT_TRUE(rows["problems"].empty()) << rows["problems"].dump();
}

TEST_F(DemoEndToEndTest, TheCHostDeliversThroughTheCInterface) {
  if (std::string(TELVO_EXAMPLE_C_PATH).empty()) GTEST_SKIP() << "the C example is not built";
  start({});
  auto host = runProgram(TELVO_EXAMPLE_C_PATH,
                         {"--config-base", configBase(), "--app", "demo", "--site", "lab",
                          "--cacert", collector_.certificatePath(), "--timeout", "20"},
                         env_, std::chrono::seconds(60));
  ASSERT_EQ(host.status, 0) << host.out << host.err;
  EXPECT_NE(host.out.find("initialised"), std::string::npos) << host.out;

  const Json rows = stored();
  ASSERT_EQ(rows["sessions"].size(), 1u);
  ASSERT_EQ(rows["events"].size(), 2u) << rows["events"].dump();
  EXPECT_EQ(rows["events"][0]["eventType"], "c_start");
  EXPECT_EQ(rows["events"][0]["eventData"]["language"], "C");
  EXPECT_EQ(rows["events"][0]["eventData"]["details"]["compiler"], "cc");
  EXPECT_EQ(rows["events"][1]["eventData"]["tick"], 1);
  ASSERT_EQ(rows["errors"].size(), 1u);
  EXPECT_EQ(rows["errors"][0]["errorCode"], "C42");
  EXPECT_TRUE(rows["problems"].empty()) << rows["problems"].dump();
}

TEST_F(DemoEndToEndTest, SendSaysWhyTheClientDidNotStart) {
  std::string configDir = dir_.file("config");
  auto write = [&](const std::string& app, const Json& section) {
    std::filesystem::create_directories(configDir + "/" + app + "/lab");
    std::ofstream(configDir + "/" + app + "/lab/telvoanalytics.json")
        << Json{{"default", section}}.dump();
  };
  write("off", {{"enabled", false}});
  write("unreadable", {{"enabled", true}, {"batchModeAmount", Json::object()}});
  start({"--config-dir", configDir});
  // Written after the start, once the port is known: a hello path the
  // collector does not answer with a session.
  write("nohello", {{"enabled", true},
                    {"servicesUrl", collector_.baseUrl()},
                    {"helloApi", "/api/nohello"},
                    {"batchMode", "timer"},
                    {"batchModeAmount", "2"}});

  auto disabled = send(configBase(), "off", {"--event", "x"}, "3");
  EXPECT_EQ(disabled.status, 1);
  EXPECT_NE(disabled.err.find("reporting disabled"), std::string::npos) << disabled.err;

  auto noSession = send(configBase(), "nohello", {"--event", "x"}, "2");
  EXPECT_EQ(noSession.status, 1);
  EXPECT_NE(noSession.err.find("no session id"), std::string::npos) << noSession.err;

  // Refused at once, and said why, instead of waiting out the time-out.
  const auto started = std::chrono::steady_clock::now();
  auto unreadable = send(configBase(), "unreadable", {"--event", "x"}, "20");
  EXPECT_EQ(unreadable.status, 1);
  EXPECT_NE(unreadable.err.find("cannot be read: TelvoMasterConfig: \"batchModeAmount\""),
            std::string::npos)
      << unreadable.err;
  EXPECT_EQ(unreadable.err.find("configuration unreachable"), std::string::npos);
  EXPECT_LT(std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count(), 10);

  auto unreachable = send("https://127.0.0.1:1/mdrv/telvo/config/", "off", {}, "2");
  EXPECT_EQ(unreachable.status, 1);
  EXPECT_NE(unreachable.err.find("configuration unreachable"), std::string::npos)
      << unreachable.err;

  auto badEvent = send(configBase(), "off", {"--event", "x=[1]"});
  EXPECT_EQ(badEvent.status, 2);
  EXPECT_NE(badEvent.err.find("JSON object"), std::string::npos) << badEvent.err;

  EXPECT_TRUE(stored()["events"].empty());
}

// A box whose app starts before its network: with --retry the events are
// taken at once and delivered once the service is there.
TEST_F(DemoEndToEndTest, SendWithRetryWaitsForTheServiceToComeUp) {
  start({});
  const int port = collector_.port();
  const std::string base = configBase();
  ASSERT_EQ(collector_.stop(), 0);

  const std::string out = dir_.file("retry-out"), err = dir_.file("retry-err");
  const int outFd = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  const int errFd = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  std::vector<std::string> args{"send",        "--config-base", base,    "--app",      "Player",
                                "--site",      "lab",           "--app-version", "2.0",
                                "--platform",  "linux",         "--property",    "cli",
                                "--environment", "count",       "--cacert",
                                collector_.certificatePath(),   "--timeout",     "30",
                                "--retry",     "--event",       "boot={\"n\":1}", "--event",
                                "menu",        "--error",       "E7"};
  const pid_t sender = testing::spawnProgram(TELVO_TOOL_PATH, args, outFd, errFd, env_);
  close(outFd);
  close(errFd);
  ASSERT_GT(sender, 0);
  std::this_thread::sleep_for(std::chrono::milliseconds(1500));
  ASSERT_TRUE(collector_.start(dir_.file("data"), {}, port)) << "collector did not come back";

  const auto status = testing::waitForExit(sender, std::chrono::seconds(40));
  if (!status) kill(sender, SIGKILL), waitpid(sender, nullptr, 0);
  EXPECT_EQ(status.value_or(-1), 0) << testing::readFile(err);
  EXPECT_NE(testing::readFile(out).find("2 event(s) and 1 error report(s) delivered"),
            std::string::npos)
      << testing::readFile(out);
  EXPECT_NE(testing::readFile(err).find("trying again in"), std::string::npos);
  const Json rows = stored();
  ASSERT_EQ(rows["events"].size(), 2u) << rows.dump();
  std::set<std::string> types;
  for (const Json& row : rows["events"]) types.insert(row["eventType"].get<std::string>());
  EXPECT_EQ(types, (std::set<std::string>{"boot", "menu"}));
}

// The spool through a crash: `telvo send --retry --spool` is killed (-9) at
// a random moment more than a second after it took its events, while the
// service is down; a later run delivers every one of them, once.
TEST_F(DemoEndToEndTest, SpooledEventsSurviveAKillAndGoOutWithTheNextRun) {
  start({});
  const int port = collector_.port();
  const std::string base = configBase();
  ASSERT_EQ(collector_.stop(), 0);
  std::mt19937 random(20261123);
  const int rounds = 3;
  for (int round = 0; round < rounds; ++round) {
    const std::string spool = dir_.file("spool");
    std::vector<std::string> args{"send",          "--config-base", base,       "--app",
                                  "Player",        "--site",        "lab",      "--app-version",
                                  "2.0",           "--platform",    "linux",    "--property",
                                  "cli",           "--environment", "count",    "--cacert",
                                  collector_.certificatePath(),     "--timeout", "60",
                                  "--retry",       "--spool",       spool};
    for (int i = 0; i < 3; ++i) {
      args.push_back("--event");
      args.push_back("r" + std::to_string(round) + "e" + std::to_string(i));
    }
    const int devNull = open("/dev/null", O_WRONLY | O_CLOEXEC);
    const pid_t sender = testing::spawnProgram(TELVO_TOOL_PATH, args, devNull, devNull, env_);
    close(devNull);
    ASSERT_GT(sender, 0);
    // (The emulator takes longer to start the tool before it takes its events.)
    std::this_thread::sleep_for(std::chrono::milliseconds(static_cast<int>(
        std::uniform_int_distribution<int>(1300, 2500)(random) * test::timeScale())));
    kill(sender, SIGKILL);
    waitpid(sender, nullptr, 0);
  }
  ASSERT_TRUE(collector_.start(dir_.file("data"), {}, port));
  auto drained = send(base, "Player", {"--retry", "--spool", dir_.file("spool")}, "30");
  EXPECT_EQ(drained.status, 0) << drained.err;
  EXPECT_NE(drained.out.find("9 from the spool"), std::string::npos) << drained.out;
  const Json rows = stored();
  std::multiset<std::string> types;
  for (const Json& row : rows["events"]) types.insert(row["eventType"].get<std::string>());
  EXPECT_EQ(types.size(), 9u) << rows.dump();
  for (int round = 0; round < rounds; ++round) {
    for (int i = 0; i < 3; ++i) {
      EXPECT_EQ(types.count("r" + std::to_string(round) + "e" + std::to_string(i)), 1u);
    }
  }
}

}  // namespace
}  // namespace telvo
