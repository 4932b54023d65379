// The timing harness: whole operations run several times, summarised as
// median, min and max. Wall time is a steady clock; CPU time is the calling
// thread's, so a loopback server answering on its own threads is not
// charged to the agent.
#pragma once

#include <cstddef>
#include <functional>
#include <vector>

namespace corvane::bench {

struct Stats {
  double median = 0, min = 0, max = 0;  // seconds, or whatever was sampled
};

Stats summarize(std::vector<double> samples);

double wallSeconds();
double threadCpuSeconds();

// What one run of an operation took. `extra` is a figure the operation
// measured inside itself (time in the upload calls, say), 0 when none.
struct Sample {
  double wall = 0, cpu = 0, extra = 0;
};

struct Measured {
  Stats wall, cpu, extra;
};

// An operation to time; it returns its `extra` figure.
using Operation = std::function<double()>;

// One untimed warm-up run, then `runs` timed ones.
Measured measure(std::size_t runs, const Operation& op);

// The same for an agent operation and its floor, alternating the two so that
// a burst of load elsewhere on the machine hits both alike.
struct MeasuredPair {
  Measured agent, floor;
  Stats ratio;  // agent ÷ floor wall time, run by run: the spread of the ratio
};
MeasuredPair measurePair(std::size_t runs, const Operation& agent, const Operation& floor);
// The same with `prepare` run, untimed, before each run of `agent` (the
// warm-up's included): a change the agent's run then has to take in.
MeasuredPair measurePair(std::size_t runs, const Operation& agent, const Operation& floor,
                         const std::function<void()>& prepare);

}  // namespace corvane::bench
