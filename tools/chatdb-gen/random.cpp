#include "tools/chatdb-gen/random.h"

#include <algorithm>
#include <limits>
#include <stdexcept>

namespace corvane::chatdbgen {

std::uint64_t Random::below(std::uint64_t n) {
  // Rejecting the top partial block keeps every residue equally likely.
  const std::uint64_t max = std::numeric_limits<std::uint64_t>::max();
  const std::uint64_t limit = max - max % n;
  for (;;) {
    const std::uint64_t x = next();
    if (x < limit) return x % n;
  }
}

std::int64_t Random::between(std::int64_t lo, std::int64_t hi) {
  const auto span = static_cast<std::uint64_t>(hi) - static_cast<std::uint64_t>(lo);
  if (span == std::numeric_limits<std::uint64_t>::max()) return static_cast<std::int64_t>(next());
  return static_cast<std::int64_t>(static_cast<std::uint64_t>(lo) + below(span + 1));
}

bool Random::chance(double p) {
  if (!(p > 0)) return false;
  if (p >= 1) return true;
  // p · 2^53 is exact in binary floating point, so the threshold is too.
  constexpr double kScale = 9007199254740992.0;
  return (next() >> 11) < static_cast<std::uint64_t>(p * kScale);
}

WeightedPicker::WeightedPicker(const std::vector<std::uint64_t>& weights) {
  cumulative_.reserve(weights.size());
  std::uint64_t total = 0;
  for (const auto w : weights) cumulative_.push_back(total += w);
  if (total == 0) throw std::invalid_argument("weights must not all be zero");
}

std::size_t WeightedPicker::pick(Random& random) const {
  const std::uint64_t x = random.below(cumulative_.back());
  return static_cast<std::size_t>(std::upper_bound(cumulative_.begin(), cumulative_.end(), x) -
                                  cumulative_.begin());
}

}  // namespace corvane::chatdbgen
