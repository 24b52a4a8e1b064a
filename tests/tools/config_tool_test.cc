// Runs the built `telvo config` command on documents written to a scratch folder.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "support/launcher.h"

namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

class ConfigToolTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!std::filesystem::exists(TELVO_TOOL_PATH)) {
      GTEST_SKIP() << "the telvo tool is not built (build target telvo_cli)";
    }
    char pattern[] = "/tmp/telvo-config-tool-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
  }
  void TearDown() override {
    if (!dir_.empty()) std::filesystem::remove_all(dir_);
  }

  std::string write(const std::string& name, const std::string& text) {
    std::ofstream(dir_ / name, std::ios::binary) << text;
    return "'" + (dir_ / name).string() + "'";
  }

  std::string slurp(const char* name) {
    std::ostringstream text;
    text << std::ifstream(dir_ / name, std::ios::binary).rdbuf();
    return text.str();
  }

  // Runs `telvo config <arguments>` (shell text), bounded in time; fills out_ and err_.
  int run(const std::string& arguments) {
    const std::string command = "timeout 20 " + telvo::test::launchShellCommand(TELVO_TOOL_PATH) + " config " +
                                arguments + " >'" + (dir_ / "out").string() + "' 2>'" +
                                (dir_ / "err").string() + "'";
    const int raw = std::system(command.c_str());
    out_ = slurp("out");
    err_ = slurp("err");
    return WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
  }

  std::filesystem::path dir_;
  std::string out_, err_;
};

TEST_F(ConfigToolTest, PrintsTheMasterConfigurationForAnEnvironment) {
  const auto file = write("doc.json", R"({
    "default": {"batchMode": "timer", "batchModeAmount": "20", "enabled": "true",
                "servicesUrl": "https://svc.test", "telvoUserIdEnabled": "no"},
    "staging": {"batchAmount": 5, "servicesUrl": "https://staging.test"}})");

  EXPECT_EQ(run(file), 0) << err_;
  EXPECT_THAT(out_, StartsWith("TelvoMasterConfig: "));
  EXPECT_THAT(out_, HasSubstr("\nBatchMode: 0\nBatchAmount: 20\nServicesUrl: https://svc.test\n"
                              "Enabled: 1\n"));
  EXPECT_THAT(out_, HasSubstr("\nUser ID Hash: 517telvoUID517\nUser ID Enabled: true\n"));
  EXPECT_EQ(err_, "");

  EXPECT_EQ(run("--env staging " + file), 0) << err_;
  EXPECT_THAT(out_, HasSubstr("\nBatchAmount: 5\nServicesUrl: https://staging.test\n"));
  EXPECT_EQ(run("--env staging - <" + file), 0) << err_;
  EXPECT_THAT(out_, HasSubstr("\nBatchAmount: 5\n"));
}

TEST_F(ConfigToolTest, BadInputGivesOneLineAndStatusTwo) {
  const std::pair<std::string, std::string> cases[] = {
      {write("broken.json", "{\"default\": {"), "invalid JSON"},
      {"--env qa " + write("unknown.json", R"({"qa": {"batchModeAmount": 5}})"),
       "\"batchModeAmount\""},
      {write("null.json", R"({"default": {"enabled": null}})"), "\"enabled\""},
      {write("deep.json",
             "{\"default\": " + std::string(100000, '[') + std::string(100000, ']') + "}"),
       "more than 128 deep"},
      {"'" + (dir_ / "absent.json").string() + "'", "absent.json"},
  };
  for (const auto& [arguments, mentions] : cases) {
    SCOPED_TRACE(arguments);
    EXPECT_EQ(run(arguments), 2);
    EXPECT_EQ(out_, "");
    EXPECT_THAT(err_, HasSubstr(mentions));
    EXPECT_EQ(err_.find('\n'), err_.size() - 1) << "not one line: " << err_;
  }
}

}  // namespace
