#include "bench/timing.h"

#include <time.h>

#include <algorithm>
#include <chrono>

namespace corvane::bench {
namespace {

Sample timeOnce(const Operation& op) {
  const double wall0 = wallSeconds(), cpu0 = threadCpuSeconds();
  const double extra = op();
  return {wallSeconds() - wall0, threadCpuSeconds() - cpu0, extra};
}

Measured summarizeAll(const std::vector<Sample>& samples) {
  std::vector<double> wall, cpu, extra;
  for (const auto& s : samples) {
    wall.push_back(s.wall);
    cpu.push_back(s.cpu);
    extra.push_back(s.extra);
  }
  return {summarize(wall), summarize(cpu), summarize(extra)};
}

}  // namespace

Stats summarize(std::vector<double> samples) {
  if (samples.empty()) return {};
  std::sort(samples.begin(), samples.end());
  const std::size_t n = samples.size();
  const double median = n % 2 == 1 ? samples[n / 2] : (samples[n / 2 - 1] + samples[n / 2]) / 2;
  return {median, samples.front(), samples.back()};
}

double wallSeconds() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

double threadCpuSeconds() {
  timespec ts{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

Measured measure(std::size_t runs, const Operation& op) {
  op();
  std::vector<Sample> samples;
  for (std::size_t i = 0; i < runs; ++i) samples.push_back(timeOnce(op));
  return summarizeAll(samples);
}

MeasuredPair measurePair(std::size_t runs, const Operation& agent, const Operation& floor) {
  return measurePair(runs, agent, floor, [] {});
}

MeasuredPair measurePair(std::size_t runs, const Operation& agent, const Operation& floor,
                         const std::function<void()>& prepare) {
  prepare();
  agent();
  floor();
  std::vector<Sample> a, f;
  std::vector<double> ratios;
  for (std::size_t i = 0; i < runs; ++i) {
    f.push_back(timeOnce(floor));
    prepare();
    a.push_back(timeOnce(agent));
    if (f.back().wall > 0) ratios.push_back(a.back().wall / f.back().wall);
  }
  return {summarizeAll(a), summarizeAll(f), summarize(ratios)};
}

}  // namespace corvane::bench
