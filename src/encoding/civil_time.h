// Calendar arithmetic on 64-bit seconds, whatever the width of time_t: on a
// 32-bit device time_t ends in January 2038, and timegm and gmtime fail
// for any date after it (a cookie that expires in 2040, a device clock
// set far ahead).
#pragma once

#include <cstdint>

namespace telvo::civil {

struct Date {
  std::int64_t year;
  int month;  // 1..12
  int day;    // 1..31
};

// Days from 1970-01-01 to the given date of the proleptic Gregorian
// calendar; a day past the month's end runs on into the next month.
constexpr std::int64_t daysFromCivil(std::int64_t year, int month, int day) {
  year -= month <= 2;
  const std::int64_t era = (year >= 0 ? year : year - 399) / 400;
  const std::int64_t yearOfEra = year - era * 400;
  const std::int64_t dayOfYear = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
  const std::int64_t dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
  return era * 146097 + dayOfEra - 719468;
}

// The date `days` after 1970-01-01.
constexpr Date civilFromDays(std::int64_t days) {
  days += 719468;
  const std::int64_t era = (days >= 0 ? days : days - 146096) / 146097;
  const std::int64_t dayOfEra = days - era * 146097;
  const std::int64_t yearOfEra =
      (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
  const std::int64_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
  const std::int64_t monthIndex = (5 * dayOfYear + 2) / 153;
  const int day = static_cast<int>(dayOfYear - (153 * monthIndex + 2) / 5 + 1);
  const int month = static_cast<int>(monthIndex < 10 ? monthIndex + 3 : monthIndex - 9);
  return Date{yearOfEra + era * 400 + (month <= 2), month, day};
}

constexpr int daysInMonth(std::int64_t year, int month) {
  if (month == 2) {
    const bool leap = year % 4 == 0 && (year % 100 != 0 || year % 400 == 0);
    return leap ? 29 : 28;
  }
  return month == 4 || month == 6 || month == 9 || month == 11 ? 30 : 31;
}

// Seconds since 1970-01-01T00:00:00Z of a UTC date and time.
constexpr std::int64_t secondsFromCivil(std::int64_t year, int month, int day, int hour,
                                        int minute, int second) {
  return daysFromCivil(year, month, day) * 86400 + hour * 3600 + minute * 60 + second;
}

static_assert(daysFromCivil(1970, 1, 1) == 0);
static_assert(secondsFromCivil(2038, 1, 19, 3, 14, 8) == 2147483648LL);
static_assert(civilFromDays(daysFromCivil(2100, 3, 1)).day == 1);

}  // namespace telvo::civil
