// Plain-text tables of the figures: one line per figure with the agent's
// median [min – max], the floor's, and the ratio of the medians.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "bench/timing.h"

namespace corvane::bench {

// "1,234.5 ms" style text for a duration in seconds.
std::string milliseconds(double seconds);
// "12.3 MB" for a byte count.
std::string megabytes(double bytes);
// "1,234,567".
std::string grouped(long long n);
// "1.23×".
std::string times(double ratio);

struct Line {
  std::string figure;
  std::string agent;  // already formatted
  std::string floor;  // empty when the figure has none
  std::string ratio;  // empty when there is nothing to divide by
};

// "median [min – max]" of times.
std::string timeRange(const Stats& s);

void printTable(const std::string& title, const std::vector<Line>& lines);

// A ratio as a target sees it: the figure (of the medians) and the lowest
// and highest a single run gave.
struct Figure {
  double ratio = 0, low = 0, high = 0;
  std::size_t runs = 0;
};

struct Target {
  std::string what;
  Figure figure;
  double limit = 0;
  bool strictlyBelow = false;  // "below 4×" rather than "within 1.3×"
  std::string basis;           // which run it was measured on
  bool met() const { return strictlyBelow ? figure.ratio < limit : figure.ratio <= limit; }
};

void printTargets(const std::vector<Target>& targets);

}  // namespace corvane::bench
