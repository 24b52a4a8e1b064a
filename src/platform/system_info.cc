#include "platform/system_info.h"

#include <sys/utsname.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <random>
#include <string_view>

namespace telvo {
namespace system_info {

std::string leadingDottedNumbers(const std::string& text) {
  std::size_t end = 0;
  while (end < text.size() &&
         ((text[end] >= '0' && text[end] <= '9') || (text[end] == '.' && end > 0))) {
    ++end;
  }
  std::string result = text.substr(0, end);
  while (!result.empty() && result.back() == '.') result.pop_back();
  return result;
}

std::string versionFromOsRelease(const std::string& text) {
  static const std::string_view kKey = "VERSION_ID=";
  std::string_view rest = text;
  while (!rest.empty()) {
    const auto newline = rest.find('\n');
    const std::string_view line = rest.substr(0, newline);
    rest = newline == std::string_view::npos ? std::string_view() : rest.substr(newline + 1);
    if (line.compare(0, kKey.size(), kKey) != 0) continue;
    std::string_view value = line.substr(kKey.size());
    while (!value.empty() && (value.back() == '\r' || value.back() == ' ')) value.remove_suffix(1);
    if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') &&
        value.back() == value.front()) {
      value = value.substr(1, value.size() - 2);
    }
    return leadingDottedNumbers(std::string(value));
  }
  return {};
}

namespace {

// The whole of a file, or nothing when it cannot be opened (what cannot be
// read of an opened one is left out).
std::optional<std::string> readFile(const char* path) {
  std::FILE* file = std::fopen(path, "re");
  if (!file) return std::nullopt;
  std::string text;
  char buffer[4096];
  std::size_t length;
  while ((length = std::fread(buffer, 1, sizeof buffer, file)) > 0) text.append(buffer, length);
  std::fclose(file);
  return text;
}

}  // namespace

std::string systemVersion() {
  for (const char* file : {"/etc/os-release", "/usr/lib/os-release"}) {
    const auto text = readFile(file);
    if (!text) continue;
    std::string version = versionFromOsRelease(*text);
    if (!version.empty()) return version;
    break;  // the first file that exists is the one that counts
  }
  utsname names{};
  if (::uname(&names) == 0) {
    std::string version = leadingDottedNumbers(names.release);
    if (!version.empty()) return version;
  }
  return "0";
}

std::string machine() {
  utsname names{};
  if (::uname(&names) != 0 || names.machine[0] == '\0') return "unknown";
  return names.machine;
}

std::string makeUUID() {
  std::random_device device;
  std::array<std::uint8_t, 16> bytes{};
  for (std::size_t i = 0; i < bytes.size(); i += 4) {
    std::uint32_t word = device();
    for (std::size_t j = 0; j < 4; ++j) bytes[i + j] = static_cast<std::uint8_t>(word >> (8 * j));
  }
  bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0F) | 0x40);  // version 4
  bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3F) | 0x80);  // RFC 4122 variant
  static const char kHex[] = "0123456789ABCDEF";
  std::string text;
  text.reserve(36);
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (i == 4 || i == 6 || i == 8 || i == 10) text.push_back('-');
    text.push_back(kHex[bytes[i] >> 4]);
    text.push_back(kHex[bytes[i] & 0x0F]);
  }
  return text;
}

bool isUUIDText(const std::string& text) {
  if (text.size() != 36) return false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    if (i == 8 || i == 13 || i == 18 || i == 23) {
      if (c != '-') return false;
    } else if (!((c >= '0' && c <= '9') || (c >= 'A' && c <= 'F'))) {
      return false;
    }
  }
  return true;
}

}  // namespace system_info
}  // namespace telvo
