#include "telvo/device.h"

#include <gtest/gtest.h>
#include <sys/utsname.h>

#include <thread>
#include <vector>

#include "platform/system_info.h"
#include "platform/temp_folder.h"
#include "support/test_platform.h"
#include "telvo/clock.h"
#include "telvo/log.h"
#include "telvo/user_defaults.h"

namespace telvo {
namespace {

// 36 upper-case hex characters in 8-4-4-4-12, version 4, RFC 4122 variant.
bool isUUIDv4(const std::string& s) {
  return system_info::isUUIDText(s) && s[14] == '4' &&
         std::string("89AB").find(s[19]) != std::string::npos;
}

bool isDottedNumber(const std::string& s) {
  return !s.empty() && system_info::leadingDottedNumbers(s) == s;
}

TEST(SystemDevice, VendorIdentifierIsMadeOnceAndSurvivesAReopen) {
  TempFolder folder;
  std::string path = folder.file("defaults.json");
  std::string first;
  {
    auto defaults = std::make_shared<FileUserDefaults>(path);
    SystemDevice device(defaults);
    // Racing first calls agree on one identifier.
    std::vector<std::string> seen(4);
    std::vector<std::thread> threads;
    for (auto& s : seen) threads.emplace_back([&] { s = device.identifierForVendor(); });
    for (auto& t : threads) t.join();
    first = seen[0];
    for (const auto& s : seen) EXPECT_EQ(s, first);
    EXPECT_TRUE(isUUIDv4(first)) << first;
    EXPECT_EQ(defaults->objectForKey("telvoDeviceIdentifier"), Json(first));
  }
  auto reopened = std::make_shared<FileUserDefaults>(path);
  EXPECT_EQ(SystemDevice(reopened).identifierForVendor(), first);

  // A value that is not an identifier is replaced; another store gets its own.
  reopened->setObject("not-a-uuid", "telvoDeviceIdentifier");
  std::string replaced = SystemDevice(reopened).identifierForVendor();
  EXPECT_TRUE(isUUIDv4(replaced));
  EXPECT_NE(replaced, first);
}

TEST(SystemDevice, ReportsTheSystemUnlessOverridden) {
  SystemDevice device(std::make_shared<MemoryUserDefaults>());
  utsname names{};
  ASSERT_EQ(::uname(&names), 0);
  EXPECT_EQ(device.machine(), names.machine);
  EXPECT_EQ(device.model(), "Linux");
  EXPECT_TRUE(isDottedNumber(device.systemVersion())) << device.systemVersion();

  device.setModel("Living-room TV");
  device.setMachine("armv7l");
  device.setSystemVersion("9.3.2");
  device.setIdentifierForVendor("ABC");
  EXPECT_EQ(device.model(), "Living-room TV");
  EXPECT_EQ(device.machine(), "armv7l");
  EXPECT_EQ(device.systemVersion(), "9.3.2");
  EXPECT_EQ(device.identifierForVendor(), "ABC");
  device.setModel(std::nullopt);
  device.setMachine(std::nullopt);
  EXPECT_EQ(device.model(), "Linux");
  EXPECT_EQ(device.machine(), names.machine);
}

TEST(SystemInfo, VersionTextFromOsReleaseAndKernel) {
  using system_info::leadingDottedNumbers;
  using system_info::versionFromOsRelease;
  EXPECT_EQ(versionFromOsRelease("NAME=\"Debian\"\nVERSION_ID=\"12\"\nID=debian\n"), "12");
  EXPECT_EQ(versionFromOsRelease("VERSION_ID=22.04\r\n"), "22.04");
  EXPECT_EQ(versionFromOsRelease("VERSION_ID='3.19.1'"), "3.19.1");
  EXPECT_EQ(versionFromOsRelease("PRETTY_VERSION_ID=1\nNAME=Arch\n"), "");
  EXPECT_EQ(versionFromOsRelease("VERSION_ID=rolling"), "");
  EXPECT_EQ(versionFromOsRelease("\n\nID=x\r\n\nVERSION_ID=\"7.4.1 \" \r\nVERSION_ID=8"), "7.4.1");
  EXPECT_EQ(versionFromOsRelease("ID=x\nVERSION_ID=5"), "5");
  EXPECT_EQ(versionFromOsRelease(""), "");
  EXPECT_EQ(leadingDottedNumbers("6.1.0-18-amd64"), "6.1.0");
  EXPECT_EQ(leadingDottedNumbers("5.15.0."), "5.15.0");
  EXPECT_EQ(leadingDottedNumbers(".5"), "");
  EXPECT_TRUE(system_info::isUUIDText("0A1B2C3D-4E5F-4A6B-8C7D-8E9F0A1B2C3D"));
  EXPECT_FALSE(system_info::isUUIDText("0a1b2c3d-4e5f-4a6b-8c7d-8e9f0a1b2c3d"));  // lower case
  EXPECT_FALSE(system_info::isUUIDText("0A1B2C3D4E5F-4A6B-8C7D-8E9F0A1B2C3D-"));
}

TEST(ClockAndLog, SystemClockAndReplaceableSink) {
  double now = Clock::defaultClock()->now();
  EXPECT_NEAR(now, static_cast<double>(::time(nullptr)), 2.0);
  auto test = std::make_shared<TestClock>(100.5);
  Clock::setDefaultClock(test);
  EXPECT_EQ(Clock::defaultClock()->now(), 100.5);
  Clock::setDefaultClock(nullptr);
  EXPECT_NEAR(Clock::defaultClock()->now(), now, 2.0);

  // The sink runs without a library lock: it may log and replace the sink.
  std::vector<std::string> lines;
  setLogSink([&](const std::string& line) {
    lines.push_back(line);
    if (line == "replace") setLogSink([&](const std::string& l) { lines.push_back("new:" + l); });
  });
  log("one");
  log("replace");
  log("two");
  setLogSink(nullptr);
  EXPECT_EQ(lines, (std::vector<std::string>{"one", "replace", "new:two"}));
}

}  // namespace
}  // namespace telvo
