#include "core/protocol/iso_time.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <ctime>

namespace corvane {
namespace {

// Dates are formatted by arithmetic; the C library's calendar is the
// reference, across leap days, century years and both ends of the range.
TEST(IsoStringTest, AgreesWithTheCLibraryCalendar) {
  const auto reference = [](std::int64_t ms) {
    std::int64_t seconds = ms / 1000;
    if (ms % 1000 < 0) --seconds;
    const std::time_t t = static_cast<std::time_t>(seconds);
    std::tm tm{};
    gmtime_r(&t, &tm);
    char buf[64];
    std::snprintf(buf, sizeof buf, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", tm.tm_year + 1900,
                  tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec,
                  static_cast<int>(ms - seconds * 1000));
    return std::string(buf);
  };
  constexpr std::int64_t kFirst = -62167219200000;  // 0000-01-01T00:00:00.000Z
  constexpr std::int64_t kLast = 253402300799999;   // 9999-12-31T23:59:59.999Z
  const std::int64_t edges[] = {kFirst,        kFirst + 1,    kFirst - 1,     kLast,
                                kLast - 1,     kLast + 1,     -2208988800001, 951868799999,
                                4107542400000, 4107456000000, -86400000,      86399999,
                                -1,            -1000,         -1001,          951782400000};
  for (const std::int64_t ms : edges) EXPECT_EQ(isoString(ms), reference(ms)) << ms;
  // About every 37 days and an odd number of milliseconds, over all ten millennia.
  for (std::int64_t ms = kFirst; ms <= kLast; ms += 3196801237) {
    ASSERT_EQ(isoString(ms), reference(ms)) << ms;
  }
}

TEST(ParseIsoStringTest, ReadsBackWhatIsoStringWrites) {
  for (const std::int64_t ms : {0LL, 1LL, -1LL, 951782400123LL /* 2000-02-29 */, 1700000000999LL,
                                -62167219200000LL, 253402300799999LL}) {
    EXPECT_EQ(parseIsoString(isoString(ms)), ms) << isoString(ms);
  }
  EXPECT_EQ(parseIsoString("2024-05-01T12:00:00Z"), 1714564800000);
}

TEST(ParseIsoStringTest, RefusesTextThatIsNoSuchTime) {
  for (const char* text : {"", "2024-05-01", "2024-05-01T12:00:00", "2024-05-01T12:00:00.1Z",
                           "2024-05-01 12:00:00Z", "2023-02-29T00:00:00Z", "1900-02-29T00:00:00Z",
                           "2024-13-01T00:00:00Z", "2024-04-31T00:00:00Z", "2024-05-01T24:00:00Z",
                           "2024-05-01T12:00:00.000Zx", "+024-05-01T12:00:00Z"}) {
    EXPECT_EQ(parseIsoString(text), std::nullopt) << text;
  }
}

}  // namespace
}  // namespace corvane
