// Seeded random choices for the database generator. The output of
// std::mt19937_64 is fixed by the standard but the std:: distributions are
// not, so every mapping onto a range is done here in integer arithmetic: a
// seed gives the same database with every standard library. One Random is
// passed down through a generation run; it is not shared between threads.
#pragma once

#include <cstdint>
#include <random>
#include <span>
#include <vector>

namespace corvane::chatdbgen {

class Random {
 public:
  explicit Random(std::uint64_t seed) : engine_(seed) {}

  std::uint64_t next() { return engine_(); }

  // Uniform in [0, n); requires n > 0.
  std::uint64_t below(std::uint64_t n);

  // Uniform in [lo, hi]; requires lo <= hi.
  std::int64_t between(std::int64_t lo, std::int64_t hi);

  // True with probability p; p <= 0 never, p >= 1 always.
  bool chance(double p);

  template <class T>
  const T& pick(std::span<const T> items) {
    return items[static_cast<std::size_t>(below(items.size()))];
  }
  template <class T>
  const T& pick(const std::vector<T>& items) {
    return pick(std::span<const T>(items));
  }

  // Fisher-Yates, since std::shuffle's order differs between libraries.
  template <class T>
  void shuffle(std::vector<T>& items) {
    for (std::size_t i = items.size(); i > 1; --i) {
      std::swap(items[i - 1], items[static_cast<std::size_t>(below(i))]);
    }
  }

 private:
  std::mt19937_64 engine_;
};

// Picks indices with probability proportional to integer weights.
class WeightedPicker {
 public:
  // Requires a positive total weight.
  explicit WeightedPicker(const std::vector<std::uint64_t>& weights);
  std::size_t pick(Random& random) const;

 private:
  std::vector<std::uint64_t> cumulative_;
};

}  // namespace corvane::chatdbgen
