#include "core/protocol/iso_time.h"

#include <gtest/gtest.h>

#include <chrono>

namespace corvane {
namespace {

TEST(IsoStringTest, FormatsUTCWithMilliseconds) {
  struct Case {
    std::int64_t ms;
    const char* expected;
  };
  const Case cases[] = {
      {0, "1970-01-01T00:00:00.000Z"},
      {-1, "1969-12-31T23:59:59.999Z"},
      {-1000, "1969-12-31T23:59:59.000Z"},
      {-1001, "1969-12-31T23:59:58.999Z"},
      {1700000000123, "2023-11-14T22:13:20.123Z"},
      {978307200000, "2001-01-01T00:00:00.000Z"},
      {951782400000, "2000-02-29T00:00:00.000Z"},
      {253402300799999, "9999-12-31T23:59:59.999Z"},
  };
  for (const auto& c : cases) EXPECT_EQ(isoString(c.ms), c.expected) << c.ms;
}

TEST(IsoStringTest, ChronologicalOrderMatchesTextOrder) {
  EXPECT_LT(isoString(1700000000123), isoString(1700000000124));
  EXPECT_LT(isoString(999), isoString(1000));
}

TEST(NowMsTest, FollowsTheSystemClock) {
  using namespace std::chrono;
  const auto before = duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
  const auto now = nowMs();
  const auto after = duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
  EXPECT_GE(now, before);
  EXPECT_LE(now, after + 1);
}

}  // namespace
}  // namespace corvane
