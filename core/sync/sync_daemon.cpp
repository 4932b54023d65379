// The daemon loop: pacing, back-off and which failures stop the agent.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <random>

#include "core/chatdb/directory_cache.h"
#include "core/protocol/iso_time.h"
#include "core/sync/contacts_cache.h"
#include "core/sync/cycle_failure.h"
#include "core/sync/heap.h"
#include "core/sync/sync_engine.h"
#include "core/text/unicode.h"

namespace corvane::SyncEngine {
namespace {

constexpr int kMissingDatabaseWaitSec = 300;
constexpr int kDatabaseWaitCapSec = 300;
constexpr int kInitialBaseSec = 30;
constexpr std::size_t kLastErrorMax = 500;

// Sleeps `seconds`, returning early when stop is requested.
void interruptibleSleep(std::int64_t seconds, const StopToken& stop) {
  if (seconds < 0) {
    std::fprintf(stderr, "daemon: negative sleep of %lld s\n", static_cast<long long>(seconds));
    std::abort();
  }
  stop.waitFor(std::chrono::seconds(seconds));
}

std::function<double()> freshRandom() {
  auto engine = std::make_shared<std::mt19937_64>(std::random_device{}());
  return [engine] { return std::uniform_real_distribution<double>(0.0, 1.0)(*engine); };
}

// What a failed cycle means for the loop: a log line and how long to wait
// (absent: stop with the revoked exit code).
struct FailurePlan {
  std::optional<int> waitSec;
  std::function<void(SyncLogger&)> report;
};

FailurePlan planFor(const std::exception& error, int failures, int base, int databaseBase,
                    const std::function<double()>& random) {
  const std::string message = error.what();
  const auto retryIn = [&](int b) { return backoffSec(b, failures, random); };
  switch (classifyCycleFailure(error)) {
    case CycleFailure::revoked:
      return {std::nullopt, [message](SyncLogger& log) {
                log.error(message +
                          "\nThis Mac was disconnected from Corvane (or its token revoked). "
                          "Stopping. Reconnect from the Corvane menu \u203A Setup\u2026.");
              }};
    case CycleFailure::transient: {
      const int wait = retryIn(base);
      return {wait, [message, wait](SyncLogger& log) {
                log.warn(message + " \u2014 retrying in " + std::to_string(wait) + "s");
              }};
    }
    case CycleFailure::databaseMissing:
      return {kMissingDatabaseWaitSec, [message](SyncLogger& log) { log.error(message); }};
    case CycleFailure::noFullDiskAccess:
    case CycleFailure::database:
      return {std::min(retryIn(databaseBase), kDatabaseWaitCapSec),
              [message](SyncLogger& log) { log.error(message); }};
    case CycleFailure::stopped:
    case CycleFailure::other:
      break;
  }
  const int wait = retryIn(base);
  return {wait, [message, wait](SyncLogger& log) {
            log.error("cycle failed: " + message + " \u2014 retrying in " + std::to_string(wait) +
                      "s");
          }};
}

std::string summary(const CycleResult& r) {
  return "cycle done: " + std::to_string(r.sync.messages) + " msg, " +
         std::to_string(r.sync.directory) + " dir, " + std::to_string(r.selfStats.posted) +
         " self, " + std::to_string(r.outbox.sent) + " sent / " + std::to_string(r.outbox.failed) +
         " failed; cursor " + std::to_string(r.cursor);
}

}  // namespace

int backoffSec(int base, int failures, const std::function<double()>& random) {
  int exponent = 0;
  if (__builtin_sub_overflow(failures, 1, &exponent)) {
    std::fprintf(stderr, "backoff: failure count %d is out of range\n", failures);
    std::abort();
  }
  exponent = std::max(exponent, 0);
  const double raw = std::min(std::ldexp(static_cast<double>(base), exponent),
                              static_cast<double>(maxBackoffSec));
  const double unit = random ? random() : freshRandom()();
  return static_cast<int>(std::llround(raw * (0.85 + 0.3 * unit)));
}

void recordError(StateStore& store, const std::string& description, bool dry, std::int64_t nowMs) {
  if (dry) return;
  AgentState state = store.load();
  state.lastError = clipUTF16(isoString(nowMs) + " " + description, kLastErrorMax);
  try {
    store.save(state);
  } catch (const std::exception&) {
    // The error itself is already being reported; a state we can't write
    // will surface on the next cycle's save.
  }
}

std::int32_t runDaemon(CycleDeps deps, DaemonOptions options, StopToken stop) {
  auto cache = std::make_shared<ContactsCache>(options.contactsTTLSec, options.loadContacts);
  deps.contacts = [cache] { return cache->get(); };
  // Between cycles the directory is read again only where the database changed.
  if (!options.once && !deps.directoryCache) deps.directoryCache = std::make_shared<DirectoryCache>();
  if (!options.once && !deps.fingerprints) deps.fingerprints = std::make_shared<FingerprintMemo>();
  const auto sleep = options.sleep ? options.sleep
                                   : [stop](std::int64_t s) { interruptibleSleep(s, stop); };
  const auto random = options.random ? options.random : freshRandom();

  int failures = 0;
  int base = kInitialBaseSec, databaseBase = kInitialBaseSec;
  while (!stop.stopRequested()) {
    int waitSec = 0;
    try {
      const CycleResult result = runCycle(deps);
      Heap::releaseFree();
      if (options.once) {
        deps.log->info(summary(result));
        return 0;
      }
      failures = 0;
      // A broken server must not make the agent spin: wait at least a second.
      base = databaseBase = static_cast<int>(std::clamp<std::int64_t>(result.pollIntervalSec, 1, 86400));
      waitSec = base;
    } catch (const std::exception& error) {
      ++failures;
      Heap::releaseFree();
      recordError(*deps.store, error.what(), deps.dryRun, deps.now());
      const FailurePlan plan = planFor(error, failures, base, databaseBase, random);
      plan.report(*deps.log);
      if (!plan.waitSec) return options.revokedExitCode;
      if (options.once) return 1;
      waitSec = *plan.waitSec;
    }
    sleep(waitSec);
  }
  deps.log->info("stopped");
  return 0;
}

}  // namespace corvane::SyncEngine
