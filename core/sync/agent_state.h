// AgentState: everything the agent remembers between sync cycles, kept by a
// StateStore (state_store.h) as the JSON file "state.json". Plain values; the
// JSON coding below is pure and safe from any thread.
#pragma once

#include <cstdint>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "core/protocol/wire_types.h"

namespace corvane {

// One text the agent sent into the self chat or posted to the server,
// remembered for echo and duplicate checks.
struct SentText {
  std::string text{};
  std::int64_t at = 0;  // Unix milliseconds
  bool operator==(const SentText&) const = default;
};

// What happened to one outbox item, and whether the server knows yet.
struct OutboxDone {
  // The write-ahead error recorded just before a send starts; a process that
  // dies mid-send leaves it behind, so the item is reported failed, not resent.
  static constexpr const char* interruptedError = "interrupted before send completed";

  std::string id{};
  SendStatus status = SendStatus::sent;
  std::optional<std::string> error{};
  std::int64_t at = 0;  // Unix milliseconds
  bool acked = false;
  bool operator==(const OutboxDone&) const = default;
};

// The default value is what a new agent starts from.
struct AgentState {
  std::optional<std::int64_t> cursor{};                // highest message row id uploaded
  std::optional<std::int64_t> selfCursor{};            // highest note-to-self row id handled
  std::vector<std::string> backfilled{};               // roster handles whose history was backfilled
  std::map<std::string, std::string> directorySent{};  // handle -> fingerprint last uploaded
  std::optional<std::int64_t> directoryFullAt{};       // last full directory upload, Unix ms
  std::vector<SentText> assistantSent{};               // replies sent into the self chat
  std::vector<SentText> selfPosted{};                  // notes posted to the server
  std::vector<OutboxDone> outboxDone{};
  std::optional<std::string> lastSyncAt{};  // ISO-8601 time of the last successful cycle
  std::optional<std::string> lastError{};
  std::optional<std::int64_t> rosterCount{};
  bool operator==(const AgentState&) const = default;
};

// How long an acknowledged outbox record is kept. The record is what stops
// an item from being sent twice, and the server offers an item again only
// until its acknowledgement has arrived: a lost answer to the ack, a restore
// of the server's data, a Mac asleep for a while. Thirty days is far beyond
// any of those, and keeps "state.json" (rewritten and synced at every
// write-ahead save) to about one month of sends.
inline constexpr std::int64_t kOutboxDoneKeptMs = 30LL * 86'400'000;

// The records of `done` worth keeping at `nowMs`: every unacknowledged one
// (its status has yet to reach the server), every one whose item is among
// `offered` (the outbox just fetched) whatever its age, and acknowledged ones
// no older than kOutboxDoneKeptMs. Order is kept. Pure.
std::vector<OutboxDone> pruneOutboxDone(const std::vector<OutboxDone>& done, std::int64_t nowMs,
                                        const std::vector<OutboxItem>& offered);

// JSON coding with the member names as keys. Absent optionals are left out;
// collections are always written. Decoding treats a missing collection as
// empty and a null optional as absent, and throws nlohmann::json::exception
// for anything else it can't take (a wrong type, a missing required key).
void to_json(nlohmann::json& j, const SentText& value);
void from_json(const nlohmann::json& j, SentText& value);
void to_json(nlohmann::json& j, const OutboxDone& value);
void from_json(const nlohmann::json& j, OutboxDone& value);
void to_json(nlohmann::json& j, const AgentState& value);
void from_json(const nlohmann::json& j, AgentState& value);

}  // namespace corvane
