#include "core/protocol/iso_time.h"

#include <chrono>
#include <cmath>
#include <cstdio>
#include <ctime>

namespace corvane {

std::int64_t nowMs() {
  using namespace std::chrono;
  const double seconds =
      duration<double>(system_clock::now().time_since_epoch()).count();
  return static_cast<std::int64_t>(std::llround(seconds * 1000.0));
}

namespace {

// Years 0 to 9999, the range whose text has exactly four year digits.
constexpr std::int64_t kFirstMs = -62167219200000;  // 0000-01-01T00:00:00.000Z
constexpr std::int64_t kLastMs = 253402300799999;   // 9999-12-31T23:59:59.999Z

void putDigits(char* at, int value, int count) {
  for (int i = count - 1; i >= 0; --i, value /= 10) at[i] = static_cast<char>('0' + value % 10);
}

// Every message row's date passes through here, so the common range is
// formatted by arithmetic (days to civil date, after Howard Hinnant's
// algorithm) instead of gmtime_r and snprintf, which cost several times more.
std::string civilString(std::int64_t seconds, int millis) {
  std::int64_t days = seconds / 86400;
  std::int64_t secondOfDay = seconds % 86400;
  if (secondOfDay < 0) {
    secondOfDay += 86400;
    --days;
  }
  const std::int64_t z = days + 719468;
  const std::int64_t era = (z >= 0 ? z : z - 146096) / 146097;
  const std::int64_t dayOfEra = z - era * 146097;
  const std::int64_t yearOfEra =
      (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
  const std::int64_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
  const std::int64_t mp = (5 * dayOfYear + 2) / 153;
  const int day = static_cast<int>(dayOfYear - (153 * mp + 2) / 5 + 1);
  const int month = static_cast<int>(mp < 10 ? mp + 3 : mp - 9);
  const int year = static_cast<int>(yearOfEra + era * 400 + (month <= 2 ? 1 : 0));

  std::string out = "0000-00-00T00:00:00.000Z";
  putDigits(&out[0], year, 4);
  putDigits(&out[5], month, 2);
  putDigits(&out[8], day, 2);
  putDigits(&out[11], static_cast<int>(secondOfDay / 3600), 2);
  putDigits(&out[14], static_cast<int>(secondOfDay / 60 % 60), 2);
  putDigits(&out[17], static_cast<int>(secondOfDay % 60), 2);
  putDigits(&out[20], millis, 3);
  return out;
}

}  // namespace

std::string isoString(std::int64_t ms) {
  // Floor division, so the millisecond part is always 0..999.
  std::int64_t seconds = ms / 1000;
  if (ms % 1000 < 0) --seconds;
  const int millis = static_cast<int>(ms - seconds * 1000);
  if (ms >= kFirstMs && ms <= kLastMs) return civilString(seconds, millis);
  const std::time_t t = static_cast<std::time_t>(seconds);
  std::tm tm{};
  if (gmtime_r(&t, &tm) == nullptr) tm = std::tm{};
  char buf[64];
  std::snprintf(buf, sizeof buf, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", tm.tm_year + 1900,
                tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, millis);
  return buf;
}

namespace {

// Days from 1970-01-01 to the civil date (Howard Hinnant's days_from_civil).
std::int64_t daysFromCivil(std::int64_t y, int m, int d) {
  y -= m <= 2 ? 1 : 0;
  const std::int64_t era = (y >= 0 ? y : y - 399) / 400;
  const std::int64_t yoe = y - era * 400;
  const std::int64_t doy = (153 * (m > 2 ? m - 3 : m + 9) + 2) / 5 + d - 1;
  const std::int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + doe - 719468;
}

std::optional<int> digitsAt(std::string_view s, std::size_t at, std::size_t count) {
  if (at + count > s.size()) return std::nullopt;
  int value = 0;
  for (std::size_t i = at; i < at + count; ++i) {
    if (s[i] < '0' || s[i] > '9') return std::nullopt;
    value = value * 10 + (s[i] - '0');
  }
  return value;
}

}  // namespace

std::optional<std::int64_t> parseIsoString(std::string_view s) {
  const auto year = digitsAt(s, 0, 4), month = digitsAt(s, 5, 2), day = digitsAt(s, 8, 2),
             hour = digitsAt(s, 11, 2), minute = digitsAt(s, 14, 2), second = digitsAt(s, 17, 2);
  if (!year || !month || !day || !hour || !minute || !second || s[4] != '-' || s[7] != '-' ||
      s[10] != 'T' || s[13] != ':' || s[16] != ':') {
    return std::nullopt;
  }
  int millis = 0;
  std::size_t end = 19;
  if (s.size() > end && s[end] == '.') {
    const auto fraction = digitsAt(s, end + 1, 3);
    if (!fraction) return std::nullopt;
    millis = *fraction;
    end += 4;
  }
  if (s.size() != end + 1 || s[end] != 'Z') return std::nullopt;
  static constexpr int kMonthDays[] = {31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  const bool leap = (*year % 4 == 0 && *year % 100 != 0) || *year % 400 == 0;
  if (*month < 1 || *month > 12 || *day < 1 || *day > kMonthDays[*month - 1] ||
      (*month == 2 && *day == 29 && !leap) || *hour > 23 || *minute > 59 || *second > 59) {
    return std::nullopt;
  }
  const std::int64_t seconds =
      daysFromCivil(*year, *month, *day) * 86400 + *hour * 3600 + *minute * 60 + *second;
  return seconds * 1000 + millis;
}

}  // namespace corvane
