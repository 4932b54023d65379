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

std::string isoString(std::int64_t ms) {
  // Floor division, so the millisecond part is always 0..999.
  std::int64_t seconds = ms / 1000;
  if (ms % 1000 < 0) --seconds;
  const int millis = static_cast<int>(ms - seconds * 1000);
  const std::time_t t = static_cast<std::time_t>(seconds);
  std::tm tm{};
  if (gmtime_r(&t, &tm) == nullptr) tm = std::tm{};
  char buf[64];
  std::snprintf(buf, sizeof buf, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", tm.tm_year + 1900,
                tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, millis);
  return buf;
}

}  // namespace corvane
