#include "telvo/user_defaults.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>
#include <vector>

#include "support/captured_log.h"
#include "platform/temp_folder.h"

namespace telvo {
namespace {

std::string readFile(const std::string& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

void writeFile(const std::string& path, const std::string& text) { std::ofstream(path) << text; }

TEST(FileUserDefaults, ValuesSurviveAReopen) {
  TempFolder folder;
  std::string path = folder.file("nested/deeper/defaults.json");  // folders are created
  {
    FileUserDefaults defaults(path);
    EXPECT_FALSE(defaults.objectForKey("telvoUUIDCookie"));
    defaults.setObject("cookie=1", "telvoUUIDCookie");
    defaults.setObject({{"a", 1}, {"b", {true, nullptr}}}, "dict");
    defaults.setObject(3.5, "gone");
    defaults.removeObjectForKey("gone");
    EXPECT_TRUE(defaults.synchronize());
    defaults.setObject(7, "unsynchronised");  // written when the store is destroyed
  }
  FileUserDefaults reopened(path);
  EXPECT_EQ(reopened.objectForKey("telvoUUIDCookie"), Json("cookie=1"));
  EXPECT_EQ(reopened.objectForKey("dict"), (Json{{"a", 1}, {"b", {true, nullptr}}}));
  EXPECT_EQ(reopened.objectForKey("unsynchronised"), Json(7));
  EXPECT_FALSE(reopened.objectForKey("gone"));
  EXPECT_TRUE(reopened.synchronize());  // nothing pending
  // No temporary file is left beside the store.
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder.file("nested/deeper")),
                          std::filesystem::directory_iterator()),
            1);
}

TEST(FileUserDefaults, CorruptOrUnreadableFileStartsEmptyWithOneLogLine) {
  TempFolder folder;
  for (std::string content : {"{\"telvoUUIDCookie\": \"tr", "[1,2]", "\xff\xfe garbage"}) {
    CapturedLog logs;
    std::string path = folder.file("defaults.json");
    writeFile(path, content);
    FileUserDefaults defaults(path);
    EXPECT_FALSE(defaults.objectForKey("telvoUUIDCookie"));
    EXPECT_EQ(logs.lines().size(), 1u) << content;
    defaults.setObject("fresh", "k");
    EXPECT_TRUE(defaults.synchronize());
    EXPECT_EQ(Json::parse(readFile(path)), (Json{{"k", "fresh"}}));
  }
  CapturedLog logs;
  FileUserDefaults folderInsteadOfFile(folder.path());  // read fails with EISDIR
  EXPECT_EQ(logs.lines().size(), 1u);
}

TEST(FileUserDefaults, HostileFilesStartEmptyWithOneLogLine) {
  TempFolder folder;
  const std::string deep =
      "{\"k\":" + std::string(100000, '[') + std::string(100000, ']') + "}";
  const std::string huge = "{\"k\":\"" + std::string(2 << 20, 'x') + "\"}";
  for (const std::string& content : {deep, huge}) {
    CapturedLog logs;
    std::string path = folder.file("defaults.json");
    writeFile(path, content);
    FileUserDefaults defaults(path);
    EXPECT_FALSE(defaults.objectForKey("k"));
    EXPECT_EQ(logs.lines().size(), 1u);
  }
  // A pipe where the file should be is not waited on.
  CapturedLog logs;
  const std::string fifo = folder.file("fifo.json");
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  FileUserDefaults pipe(fifo);
  EXPECT_FALSE(pipe.objectForKey("k"));
  EXPECT_EQ(logs.lines().size(), 1u);
}

TEST(FileUserDefaults, UnwritableFolderKeepsValuesInMemoryAndLogsOnce) {
  // A regular file where a parent folder should be: cannot be created even
  // when running as root, where permission bits are not enforced.
  TempFolder folder;
  writeFile(folder.file("blocker"), "");
  CapturedLog logs;
  FileUserDefaults defaults(folder.file("blocker/telvo/defaults.json"));
  for (int i = 0; i < 3; ++i) {
    defaults.setObject(i, "k");
    EXPECT_FALSE(defaults.synchronize());
    EXPECT_EQ(defaults.objectForKey("k"), Json(i));
  }
  EXPECT_EQ(logs.lines().size(), 1u);
}

TEST(FileUserDefaults, InterruptedWriteLeavesTheOldContent) {
  TempFolder folder;
  std::string path = folder.file("defaults.json");
  {
    FileUserDefaults defaults(path);
    defaults.setObject("old", "k");
    ASSERT_TRUE(defaults.synchronize());
  }
  // What a process killed mid-write leaves behind: a torn temporary file
  // named after a process that no longer runs (beyond the largest pid).
  std::string torn = path + ".2147483646.0.tmp";
  writeFile(torn, "{\"k\": \"ne");
  FileUserDefaults reopened(path);
  EXPECT_EQ(reopened.objectForKey("k"), Json("old"));
  EXPECT_FALSE(std::filesystem::exists(torn));  // the stale temporary is cleaned up
}

TEST(FileUserDefaults, ConcurrentWritersAndSynchronize) {
  TempFolder folder;
  std::string path = folder.file("defaults.json");
  {
    FileUserDefaults defaults(path);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
      threads.emplace_back([&, t] {
        for (int i = 0; i < 50; ++i) {
          defaults.setObject(i, "key" + std::to_string(t));
          if (i % 10 == 0) defaults.synchronize();
          (void)defaults.objectForKey("key0");
        }
      });
    }
    for (auto& t : threads) t.join();
    EXPECT_TRUE(defaults.synchronize());
  }
  Json written = Json::parse(readFile(path));
  for (int t = 0; t < 4; ++t) EXPECT_EQ(written["key" + std::to_string(t)], 49);
}

TEST(FileUserDefaults, DefaultPathFollowsTheEnvironment) {
  auto saved = [](const char* name) -> std::optional<std::string> {
    const char* value = ::getenv(name);
    return value ? std::optional<std::string>(value) : std::nullopt;
  };
  auto restore = [](const char* name, const std::optional<std::string>& value) {
    value ? ::setenv(name, value->c_str(), 1) : ::unsetenv(name);
  };
  auto telvoHome = saved("TELVO_HOME"), xdg = saved("XDG_CONFIG_HOME"), home = saved("HOME");

  ::setenv("TELVO_HOME", "/t", 1);
  ::setenv("XDG_CONFIG_HOME", "/x", 1);
  ::setenv("HOME", "/h", 1);
  EXPECT_EQ(FileUserDefaults::defaultPath(), "/t/defaults.json");
  ::unsetenv("TELVO_HOME");
  EXPECT_EQ(FileUserDefaults::defaultPath(), "/x/telvo/defaults.json");
  ::setenv("XDG_CONFIG_HOME", "", 1);
  EXPECT_EQ(FileUserDefaults::defaultPath(), "/h/.config/telvo/defaults.json");

  restore("TELVO_HOME", telvoHome);
  restore("XDG_CONFIG_HOME", xdg);
  restore("HOME", home);
}

TEST(UserDefaults, StandardStoreIsReplaceable) {
  auto memory = std::make_shared<MemoryUserDefaults>();
  UserDefaults::setStandardUserDefaults(memory);
  UserDefaults::standardUserDefaults()->setObject("v", "k");
  EXPECT_EQ(memory->objectForKey("k"), Json("v"));
  memory->removeObjectForKey("k");
  EXPECT_FALSE(memory->objectForKey("k"));
  EXPECT_TRUE(memory->synchronize());
  UserDefaults::setStandardUserDefaults(nullptr);
}

}  // namespace
}  // namespace telvo
