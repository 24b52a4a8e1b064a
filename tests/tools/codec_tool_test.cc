// Runs the built `telvo encode` and `telvo decode` commands on good and bad input.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support/launcher.h"
#include "telvo/base64.h"
#include "telvo/envelope.h"
#include "telvo/gzip.h"

namespace {

struct ToolRun {
  int status = -1;
  std::string out;
  std::string err;
};

class CodecToolTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!std::filesystem::exists(TELVO_TOOL_PATH)) {
      GTEST_SKIP() << "the telvo tool is not built (build target telvo_cli)";
    }
    char pattern[] = "/tmp/telvo-codec-tool-XXXXXX";
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

  // Runs the tool with `args`, `input` on standard input; killed after 20 s.
  ToolRun run(std::vector<std::string> args, const std::string& input = "") {
    const std::string in = write("stdin", input), out = (dir_ / "stdout").string(),
                      err = (dir_ / "stderr").string();
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, in.c_str(), O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    const auto command = telvo::test::launchCommand(TELVO_TOOL_PATH);
    args.insert(args.begin(), command.begin(), command.end());
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    pid_t pid = -1;
    const int spawned = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ToolRun result;
    if (spawned != 0) return result;
    int raw = 0;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (waitpid(pid, &raw, WNOHANG) == 0) {
      if (std::chrono::steady_clock::now() > deadline) {
        kill(pid, SIGKILL);
        waitpid(pid, &raw, 0);
        ADD_FAILURE() << "the tool did not finish in time";
        break;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    result.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    result.out = slurp(out);
    result.err = slurp(err);
    return result;
  }

  std::filesystem::path dir_;
};

std::string wrapped(const std::string& plain) {
  return *telvo::base64EncodedString(
      *telvo::compressedDataWithData(telvo::Bytes(plain.begin(), plain.end())));
}

TEST_F(CodecToolTest, EncodeWritesTheLibrarysBodyAndDecodeReversesIt) {
  const std::string json = R"({"sessionId":"s-1","events":[{"eventType":"play","n":1.5}],"é":"ü"})";
  const auto body = telvo::buildTelvoJsonParameter(json);
  const std::string expected(body->begin(), body->end());

  const ToolRun fromStdin = run({"encode"}, json + "\n");
  EXPECT_EQ(fromStdin.status, 0) << fromStdin.err;
  EXPECT_EQ(fromStdin.out, expected);  // the text as written, byte for byte

  const ToolRun fromFile = run({"encode", write("doc.json", "  {\"b\": 1,\n \"a\": 2}\n")});
  EXPECT_EQ(fromFile.status, 0) << fromFile.err;
  const auto carried = telvo::decodeTelvoJsonParameter(fromFile.out);
  EXPECT_EQ(carried.json, "{\"b\": 1,\n \"a\": 2}");
  EXPECT_EQ(run({"encode", "--compact", "-"}, "{\"b\": 1, \"a\": 2}").out, [] {
    auto b = telvo::buildTelvoJsonParameter(R"({"b":1,"a":2})");
    return std::string(b->begin(), b->end());
  }());

  const ToolRun decoded = run({"decode", write("body", expected + "\n")});
  EXPECT_EQ(decoded.status, 0) << decoded.err;
  EXPECT_EQ(decoded.out,
            "{\n  \"sessionId\": \"s-1\",\n  \"events\": [\n    {\n      \"eventType\": \"play\",\n"
            "      \"n\": 1.5\n    }\n  ],\n  \"é\": \"ü\"\n}\n");
  EXPECT_EQ(run({"decode", "--raw", "-"}, expected).out, json + "\n");
}

TEST_F(CodecToolTest, BadInputGetsOneLineNamingTheLayer) {
  const std::string good = run({"encode"}, R"({"a":1})").out;
  struct Case {
    std::vector<std::string> args;
    std::string input;
    std::string message;
  };
  const Case cases[] = {
      {{"encode"}, "{not json", "telvo encode: standard input is not JSON"},
      {{"encode"}, "", "telvo encode: standard input is not JSON"},
      {{"decode"}, "?? -- !!\n", "telvo decode: base64:"},
      {{"decode"}, "aGVsbG8gd29ybGQ=", "telvo decode: zlib:"},
      {{"decode"}, good.substr(0, good.size() - 8), "telvo decode: zlib:"},
      {{"decode"}, wrapped(R"({"a":1})"), "telvo decode: prefix:"},
      {{"decode"}, wrapped("telvoJson=\xC3("), "telvo decode: utf-8:"},
      {{"decode"}, wrapped("telvoJson={\"a\":"), "telvo decode: json:"},
      {{"decode", (dir_ / "missing").string()}, "", "telvo decode: cannot read"},
      {{"encode", dir_.string()}, "", "telvo encode: cannot read"},
  };
  for (const auto& c : cases) {
    const ToolRun result = run(c.args, c.input);
    EXPECT_EQ(result.status, 2) << c.message;
    EXPECT_EQ(result.err.rfind(c.message, 0), 0u) << result.err;
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
    EXPECT_EQ(result.out, "") << c.message;
  }
}

TEST_F(CodecToolTest, DeepDocumentsAndBombsAreRefusedInBoundedMemory) {
  const std::string deep = std::string(100000, '[') + std::string(100000, ']');
  const ToolRun encode = run({"encode", "--compact"}, deep);
  EXPECT_EQ(encode.status, 2);
  EXPECT_NE(encode.err.find("more than 128 deep"), std::string::npos) << encode.err;

  const ToolRun nested = run({"decode"}, wrapped("telvoJson=" + deep));
  EXPECT_EQ(nested.status, 2);
  EXPECT_EQ(nested.err, "telvo decode: json: the document nests arrays and objects more than 128 "
                        "deep\n");

  // 80 MiB of text in well under a megabyte: beyond the default limit.
  const std::string bomb = wrapped("telvoJson=[\"" + std::string(80u << 20, '0') + "\"]");
  ASSERT_LT(bomb.size(), 1u << 20);
  const ToolRun refused = run({"decode"}, bomb);
  EXPECT_EQ(refused.status, 2);
  EXPECT_EQ(refused.err,
            "telvo decode: zlib: the stream inflates to more than the limit of 67108864 bytes\n");
  const ToolRun limited = run({"decode", "--max-inflated", "1000"}, wrapped("telvoJson=[\"" +
                                                                            std::string(2000, 'x') +
                                                                            "\"]"));
  EXPECT_EQ(limited.status, 2);
  EXPECT_NE(limited.err.find("limit of 1000 bytes"), std::string::npos) << limited.err;
}

TEST_F(CodecToolTest, HelpExplainsEachCommand) {
  for (const std::string command : {"encode", "decode"}) {
    const ToolRun help = run({command, "--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.out.find("telvoJson="), std::string::npos) << help.out;
    EXPECT_NE(help.out.find("standard input"), std::string::npos) << help.out;
  }
}

}  // namespace
