// SyncEngine: one complete pass of the agent (runCycle) and the loop that
// repeats it (runDaemon). A cycle reads what is new in the Messages database
// for the roster, uploads it with the directory of recent correspondents,
// runs the self channel, delivers the outbox and records all of it in the
// agent state. Everything a cycle touches comes in through CycleDeps, so
// tests run whole cycles against in-memory stores and a loopback server.
//
// A cycle runs on the caller's thread and throws on any stage it cannot
// complete (APIError, ChatDB::OpenError, SQLiteError, a failed save, or
// CycleStopped); what was saved before the failing stage stays saved.
// classifyCycleFailure (cycle_failure.h) says what a failure means.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>

#include "core/api/agent_api.h"
#include "core/contacts/contact_book.h"
#include "core/send/message_sender.h"
#include "core/sync/state_store.h"
#include "core/sync/stop_source.h"
#include "core/sync/sync_logger.h"

namespace corvane {

class DirectoryCache;

// The fingerprints of the last cycle's directory entries, so that a cycle
// hashes only the entries that changed. Kept beside the DirectoryCache by
// whoever runs cycles one after another; safe to call from any thread.
class FingerprintMemo {
 public:
  // SyncEngine::fingerprint(entry).
  std::string print(const DirectoryEntry& entry);
  // Forgets the entries this cycle did not ask for.
  void endCycle();

 private:
  struct Known {
    DirectoryEntry entry;
    std::string print;
  };
  std::mutex mutex_;
  std::unordered_map<std::string, Known> last_, next_;
};

struct CycleDeps {
  std::shared_ptr<AgentAPI> api;
  std::string chatDBPath;
  std::shared_ptr<StateStore> store;
  std::shared_ptr<MessageSender> sender;
  // Names for the directory; absent (or returning nullptr) means no names.
  std::function<std::shared_ptr<const ContactBook>()> contacts;
  std::optional<std::string> region;
  bool dryRun = false;
  std::shared_ptr<SyncLogger> log;
  std::function<std::int64_t()> now;  // Unix milliseconds
  // Checked between stages and between two outbox items, never during a
  // send; a requested stop ends the cycle with CycleStopped.
  StopToken stop{};
  // Keeps the directory's aggregates from one cycle to the next; absent, the
  // directory is read in full every cycle.
  std::shared_ptr<DirectoryCache> directoryCache{};
  // Keeps the directory's fingerprints between cycles; absent, every entry
  // is hashed every cycle.
  std::shared_ptr<FingerprintMemo> fingerprints{};
};

struct CycleResult {
  struct Sync {
    std::int64_t messages = 0, backfilled = 0, directory = 0, batches = 0, accepted = 0,
                 dropped = 0;
    bool operator==(const Sync&) const = default;
  };
  struct SelfStats {
    std::int64_t posted = 0, skipped = 0;
    bool operator==(const SelfStats&) const = default;
  };
  struct Outbox {
    std::int64_t sent = 0, failed = 0, reacked = 0;
    bool operator==(const Outbox&) const = default;
  };
  Sync sync;
  SelfStats selfStats;
  Outbox outbox;
  std::int64_t pollIntervalSec = 0;
  std::int64_t cursor = 0;
  std::int64_t rosterCount = 0;
  bool operator==(const CycleResult&) const = default;
};

namespace SyncEngine {

inline constexpr std::int64_t dayMs = 86'400'000;
inline constexpr std::size_t maxBatchMessages = 2'000;
inline constexpr std::size_t maxBatchDirectory = 5'000;
inline constexpr std::int64_t directoryFullRefreshMs = 21'600'000;
inline constexpr int maxBackoffSec = 900;
// Notes posted to the server are clipped to this many UTF-16 units.
inline constexpr std::size_t maxNoteLength = 5'000;

struct DaemonOptions {
  bool once = false;
  double contactsTTLSec = 3600.0;
  std::int32_t revokedExitCode = 2;
  std::function<std::shared_ptr<const ContactBook>()> loadContacts{};
  // Waits between cycles; by default sleeps, waking early when stop is requested.
  std::function<void(std::int64_t seconds)> sleep{};
  // Uniform in [0, 1) for the back-off jitter; a fresh random source by default.
  std::function<double()> random{};
};

CycleResult runCycle(const CycleDeps& deps);

// Runs cycles until `stop` is requested (returns 0 after logging "stopped"),
// the device is revoked (revokedExitCode), or, with `once`, after one cycle
// (0 on success, 1 on failure). A stop never interrupts a running cycle.
std::int32_t runDaemon(CycleDeps deps, DaemonOptions options, StopToken stop = {});

// About base × 2^(failures − 1) seconds, capped at 900, with ±15% jitter.
int backoffSec(int base, int failures, const std::function<double()>& random = {});

// Remembers `description` as the state's lastError (not in a dry run).
void recordError(StateStore& store, const std::string& description, bool dry, std::int64_t nowMs);

// The directory entry's change fingerprint: SHA-1 of its sorted-key JSON,
// base64url, first 16 characters.
std::string fingerprint(const DirectoryEntry& entry);

}  // namespace SyncEngine
}  // namespace corvane
