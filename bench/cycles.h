// Whole sync cycles as the agent runs them: a real APIClient talking to the
// bench server over the loopback, the state in a FileStateStore (atomic,
// flushed saves included), no contacts and nothing to send.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "bench/bench_server.h"
#include "core/sync/sync_engine.h"

namespace corvane::bench {

class CycleRunner {
 public:
  CycleRunner(const std::string& serverURL, std::string chatDBPath, std::string stateDir);
  ~CycleRunner();

  // One cycle with the clock at `nowMs`.
  CycleResult run(std::int64_t nowMs);
  // Forgets the agent state, so that the next cycle is a first one.
  void forgetState();
  // Keeps the directory in `cache` from one cycle to the next, as the daemon
  // does; nullptr reads it in full every cycle.
  void useDirectoryCache(std::shared_ptr<DirectoryCache> cache) {
    deps_.directoryCache = std::move(cache);
  }
  // Seconds spent inside the sync calls (encoding, upload and the answer)
  // since the last take.
  double takeSyncSeconds();

 private:
  class TimedAPI;
  std::shared_ptr<TimedAPI> api_;
  CycleDeps deps_;
  std::string stateDir_;
};

struct PeakMemory {
  std::int64_t peakKB = 0;      // highest resident set of the process
  std::int64_t baselineKB = 0;  // resident set just before the cycle
  std::int64_t messages = 0;    // uploaded by the cycle
};

// Runs one first cycle against `server` (whose config must already be set)
// in a fresh process of this program, so that nothing this process holds
// counts, and reads back its peak resident memory. `self` is this program.
PeakMemory firstCyclePeakMemory(const std::string& self, const BenchServer& server,
                                const std::string& chatDBPath, std::int64_t nowMs);

// The child's side of firstCyclePeakMemory, given the arguments after the
// mode flag. Prints the figures on stdout; returns the exit status.
int firstCycleChild(int argc, char** argv);
inline constexpr const char* kChildFlag = "--first-cycle-child";

}  // namespace corvane::bench
