// Runs the built `telvo config` command on documents written to a scratch folder.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

struct ToolRun {
  int status = -1;
  std::string out;
  std::string err;
};

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
    const auto path = dir_ / name;
    std::ofstream(path, std::ios::binary) << text;
    return path.string();
  }

  static std::string slurp(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
  }

  // `arguments` is shell text; the run is bounded so a hung tool fails the test.
  ToolRun run(const std::string& arguments) {
    const auto out = dir_ / "stdout", err = dir_ / "stderr";
    const std::string command = "timeout 20 '" + std::string(TELVO_TOOL_PATH) + "' config " +
                                arguments + " >'" + out.string() + "' 2>'" + err.string() + "'";
    const int raw = std::system(command.c_str());
    ToolRun result;
    result.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    result.out = slurp(out);
    result.err = slurp(err);
    return result;
  }

  std::filesystem::path dir_;
};

const char kDocument[] = R"({
  "default": {"batchMode": "timer", "batchModeAmount": "20", "enabled": "true",
              "servicesUrl": "https://svc.test", "telvoUserIdEnabled": "no"},
  "staging": {"batchAmount": 5, "servicesUrl": "https://staging.test"}
})";

TEST_F(ConfigToolTest, PrintsTheMasterConfigurationForAnEnvironment) {
  const auto file = write("doc.json", kDocument);

  ToolRun base = run("'" + file + "'");
  EXPECT_EQ(base.status, 0) << base.err;
  EXPECT_THAT(base.out, StartsWith("TelvoMasterConfig: "));
  EXPECT_THAT(base.out, HasSubstr("\nBatchMode: 0\nBatchAmount: 20\nServicesUrl: https://svc.test\n"
                                  "Enabled: 1\n"));
  EXPECT_THAT(base.out, HasSubstr("\nUser ID Hash: 517telvoUID517\nUser ID Enabled: true\n"));
  EXPECT_TRUE(base.err.empty());

  ToolRun staging = run("--env staging '" + file + "'");
  EXPECT_EQ(staging.status, 0) << staging.err;
  EXPECT_THAT(staging.out, HasSubstr("\nBatchAmount: 5\nServicesUrl: https://staging.test\n"));

  ToolRun piped = run("--env staging - <'" + file + "'");
  EXPECT_EQ(piped.status, 0) << piped.err;
  EXPECT_THAT(piped.out, HasSubstr("\nBatchAmount: 5\n"));
}

TEST_F(ConfigToolTest, BadInputGivesOneLineAndStatusTwo) {
  struct Case {
    std::string arguments;
    std::string mentions;
  };
  const Case cases[] = {
      {"'" + write("broken.json", "{\"default\": {") + "'", "invalid JSON"},
      {"--env qa '" + write("unknown.json", R"({"qa": {"batchModeAmount": 5}})") + "'",
       "\"batchModeAmount\""},
      {"'" + write("null.json", R"({"default": {"enabled": null}})") + "'", "\"enabled\""},
      {"'" + (dir_ / "absent.json").string() + "'", "absent.json"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.arguments);
    ToolRun result = run(c.arguments);
    EXPECT_EQ(result.status, 2);
    EXPECT_TRUE(result.out.empty());
    EXPECT_THAT(result.err, HasSubstr(c.mentions));
    ASSERT_FALSE(result.err.empty());
    EXPECT_EQ(result.err.find('\n'), result.err.size() - 1) << "not one line: " << result.err;
  }
}

}  // namespace
