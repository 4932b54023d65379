#include "bench/report.h"

#include <algorithm>
#include <cstdio>

namespace corvane::bench {
namespace {

std::string format(const char* pattern, double value) {
  char buf[64];
  std::snprintf(buf, sizeof buf, pattern, value);
  return buf;
}

// Thousands separators for the integer part of an already formatted number.
std::string withSeparators(const std::string& number) {
  const std::size_t dot = std::min(number.find('.'), number.size());
  const std::size_t digitsStart = number[0] == '-' ? 1 : 0;
  std::string out = number.substr(dot);
  for (std::size_t i = dot, n = 0; i-- > digitsStart; ++n) {
    if (n > 0 && n % 3 == 0) out.insert(out.begin(), ',');
    out.insert(out.begin(), number[i]);
  }
  return number.substr(0, digitsStart) + out;
}

std::size_t width(const std::string& s) {
  // Display width: count code points, not bytes (× and – are multi-byte).
  return static_cast<std::size_t>(std::count_if(
      s.begin(), s.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; }));
}

std::string padded(const std::string& s, std::size_t w, bool right = false) {
  const std::string fill(w > width(s) ? w - width(s) : 0, ' ');
  return right ? fill + s : s + fill;
}

}  // namespace

namespace {

std::string msNumber(double seconds) {
  const double ms = seconds * 1000;
  const char* pattern = ms < 10 ? "%.2f" : ms < 100 ? "%.1f" : "%.0f";
  return withSeparators(format(pattern, ms));
}

}  // namespace

std::string milliseconds(double seconds) { return msNumber(seconds) + " ms"; }

std::string megabytes(double bytes) { return format("%.1f MB", bytes / 1e6); }

std::string grouped(long long n) { return withSeparators(std::to_string(n)); }

std::string times(double ratio) { return format("%.2f", ratio) + "\u00d7"; }

std::string timeRange(const Stats& s) {
  return milliseconds(s.median) + " [" + msNumber(s.min) + " \u2013 " + msNumber(s.max) + "]";
}

void printTable(const std::string& title, const std::vector<Line>& lines) {
  std::size_t w0 = 6, w1 = 5, w2 = 5;
  for (const auto& l : lines) {
    w0 = std::max(w0, width(l.figure));
    w1 = std::max(w1, width(l.agent));
    w2 = std::max(w2, width(l.floor));
  }
  std::printf("\n%s\n", title.c_str());
  std::printf("  %s  %s  %s  %s\n", padded("figure", w0).c_str(), padded("agent", w1).c_str(),
              padded("floor", w2).c_str(), "ratio");
  for (const auto& l : lines) {
    std::printf("  %s  %s  %s  %s\n", padded(l.figure, w0).c_str(), padded(l.agent, w1).c_str(),
                padded(l.floor, w2).c_str(), padded(l.ratio, 6, true).c_str());
  }
}

void printTargets(const std::vector<Target>& targets) {
  std::printf("\nTargets: the figure of the medians [the lowest \u2013 highest single run]\n");
  std::size_t w = 0;
  for (const auto& t : targets) w = std::max(w, width(t.what));
  for (const auto& t : targets) {
    const Figure& f = t.figure;
    const std::string spread = "[" + format("%.2f", f.low) + " \u2013 " + times(f.high) + "]";
    const std::string verdict =
        t.met() ? "met" : "MISSED by " + times(std::max(f.ratio - t.limit, 0.0));
    std::printf("  %s  %s %s (limit %s%s)  %s  (%s, %zu runs)\n", padded(t.what, w).c_str(),
                padded(times(f.ratio), 7, true).c_str(), padded(spread, 16).c_str(),
                t.strictlyBelow ? "<" : "", times(t.limit).c_str(),
                padded(verdict, 16).c_str(), t.basis.c_str(), f.runs);
  }
}

}  // namespace corvane::bench
