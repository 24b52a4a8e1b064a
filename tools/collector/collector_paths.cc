#include "collector/collector_paths.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>

#include "encoding/civil_time.h"

namespace telvo::tool {
namespace {

// Reads exactly `width` digits at `pos`.
bool digits(const std::string& text, std::size_t& pos, int width, int* out) {
  if (pos + static_cast<std::size_t>(width) > text.size()) return false;
  int value = 0;
  for (int i = 0; i < width; ++i) {
    char c = text[pos + static_cast<std::size_t>(i)];
    if (!std::isdigit(static_cast<unsigned char>(c))) return false;
    value = value * 10 + (c - '0');
  }
  pos += static_cast<std::size_t>(width);
  *out = value;
  return true;
}

bool expect(const std::string& text, std::size_t& pos, char c) {
  if (pos < text.size() && text[pos] == c) {
    ++pos;
    return true;
  }
  return false;
}

}  // namespace

std::filesystem::path defaultCollectorDataDir() {
  const char* home = std::getenv("TELVO_HOME");
  if (home && *home) return std::filesystem::path(home) / "collector";
  return std::filesystem::path(".telvo") / "collector";
}

std::filesystem::path collectorDatabasePath(const std::filesystem::path& dataDir) {
  return dataDir / "collector.db";
}

std::string formatIsoTime(std::int64_t ms) {
  std::int64_t seconds = ms / 1000;
  std::int64_t fraction = ms % 1000;
  if (fraction < 0) {
    fraction += 1000;
    seconds -= 1;
  }
  std::int64_t days = seconds / 86400;
  std::int64_t inDay = seconds % 86400;
  if (inDay < 0) {
    inDay += 86400;
    days -= 1;
  }
  const civil::Date date = civil::civilFromDays(days);
  char text[96];
  std::snprintf(text, sizeof text, "%04lld-%02d-%02dT%02d:%02d:%02d.%03dZ",
                static_cast<long long>(date.year), date.month, date.day,
                static_cast<int>(inDay / 3600), static_cast<int>(inDay / 60 % 60),
                static_cast<int>(inDay % 60), static_cast<int>(fraction));
  return text;
}

std::optional<std::int64_t> parseTime(const std::string& text) {
  if (text.empty()) return std::nullopt;
  bool allDigits = true;
  for (char c : text) allDigits = allDigits && std::isdigit(static_cast<unsigned char>(c));
  if (allDigits) {
    if (text.size() > 18) return std::nullopt;
    return std::stoll(text);
  }

  std::size_t pos = 0;
  int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0, millis = 0;
  if (!digits(text, pos, 4, &year) || !expect(text, pos, '-') || !digits(text, pos, 2, &month) ||
      !expect(text, pos, '-') || !digits(text, pos, 2, &day)) {
    return std::nullopt;
  }
  if (expect(text, pos, 'T') || expect(text, pos, ' ')) {
    if (!digits(text, pos, 2, &hour) || !expect(text, pos, ':') || !digits(text, pos, 2, &minute)) {
      return std::nullopt;
    }
    if (expect(text, pos, ':')) {
      if (!digits(text, pos, 2, &second)) return std::nullopt;
      if (expect(text, pos, '.')) {
        // Up to millisecond precision; further digits are ignored.
        int scale = 100;
        std::size_t start = pos;
        while (pos < text.size() && std::isdigit(static_cast<unsigned char>(text[pos]))) {
          millis += (text[pos] - '0') * scale;
          scale /= 10;
          ++pos;
        }
        if (pos == start) return std::nullopt;
      }
    }
  }
  int offsetMinutes = 0;
  if (expect(text, pos, 'Z')) {
  } else if (pos < text.size() && (text[pos] == '+' || text[pos] == '-')) {
    int sign = text[pos] == '-' ? -1 : 1;
    ++pos;
    int oh = 0, om = 0;
    if (!digits(text, pos, 2, &oh)) return std::nullopt;
    expect(text, pos, ':');
    if (!digits(text, pos, 2, &om)) return std::nullopt;
    offsetMinutes = sign * (oh * 60 + om);
  }
  if (pos != text.size()) return std::nullopt;
  if (month < 1 || month > 12 || day < 1 || day > 31 || hour > 23 || minute > 59 || second > 60) {
    return std::nullopt;
  }
  // Days past the month's end run on into the next month.
  const std::int64_t seconds = civil::secondsFromCivil(year, month, day, hour, minute, second);
  return (seconds - offsetMinutes * 60LL) * 1000 + millis;
}

}  // namespace telvo::tool
