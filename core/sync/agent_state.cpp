#include "core/sync/agent_state.h"

#include <limits>
#include <string_view>
#include <unordered_set>

#include "core/protocol/wire_json.h"

namespace corvane {
namespace {

using nlohmann::json;

// nlohmann's own conversion would truncate 1.5 and wrap 2^63; a state file
// holding either is corrupt, not a number to guess at.
std::int64_t toInt64(const json& v) {
  if (v.is_number_integer() && !v.is_number_unsigned()) return v.get<std::int64_t>();
  if (v.is_number_unsigned() &&
      v.get<std::uint64_t>() <=
          static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
    return static_cast<std::int64_t>(v.get<std::uint64_t>());
  }
  throw json::type_error::create(302, "expected a 64-bit integer, got " + v.dump(), &v);
}

template <typename T>
T decodeValue(const json& v) {
  if constexpr (std::is_same_v<T, std::int64_t>) {
    return toInt64(v);
  } else {
    return v.get<T>();
  }
}

template <typename T>
void readRequired(const json& j, const char* key, T& out) {
  out = decodeValue<T>(j.at(key));
}

template <typename T>
void readOptional(const json& j, const char* key, std::optional<T>& out) {
  const auto it = j.find(key);
  if (it == j.end() || it->is_null()) {
    out.reset();
  } else {
    out = decodeValue<T>(*it);
  }
}

// Collections are always written, but a hand-edited or older file without
// one is still a usable state.
template <typename T>
void readCollection(const json& j, const char* key, T& out) {
  const auto it = j.find(key);
  if (it == j.end() || it->is_null()) {
    out = T{};
  } else {
    out = it->get<T>();
  }
}

template <typename T>
void writeOptional(json& j, const char* key, const std::optional<T>& value) {
  if (value) j[key] = *value;
}

void requireObject(const json& j) {
  if (!j.is_object()) throw json::type_error::create(302, "expected an object", &j);
}

// The state file spells send statuses as the wire does.
SendStatus statusFromName(const json& v) {
  const auto name = v.get<std::string>();
  for (const SendStatus status : {SendStatus::sent, SendStatus::failed}) {
    if (wireName(status) == name) return status;
  }
  throw json::type_error::create(302, "unknown send status \"" + name + "\"", &v);
}

}  // namespace

std::vector<OutboxDone> pruneOutboxDone(const std::vector<OutboxDone>& done, std::int64_t nowMs,
                                        const std::vector<OutboxItem>& offered) {
  std::unordered_set<std::string_view> offeredIds;
  for (const auto& item : offered) offeredIds.insert(item.id);
  std::vector<OutboxDone> kept;
  for (const auto& record : done) {
    // Compared this way round, a corrupt "at" far in the past can't overflow.
    if (!record.acked || offeredIds.contains(record.id) || record.at >= nowMs - kOutboxDoneKeptMs) {
      kept.push_back(record);
    }
  }
  return kept;
}

void to_json(json& j, const SentText& value) { j = json{{"text", value.text}, {"at", value.at}}; }

void from_json(const json& j, SentText& value) {
  requireObject(j);
  readRequired(j, "text", value.text);
  readRequired(j, "at", value.at);
}

void to_json(json& j, const OutboxDone& value) {
  j = json{{"id", value.id},
           {"status", std::string(wireName(value.status))},
           {"at", value.at},
           {"acked", value.acked}};
  writeOptional(j, "error", value.error);
}

void from_json(const json& j, OutboxDone& value) {
  requireObject(j);
  readRequired(j, "id", value.id);
  value.status = statusFromName(j.at("status"));
  readOptional(j, "error", value.error);
  readRequired(j, "at", value.at);
  readRequired(j, "acked", value.acked);
}

void to_json(json& j, const AgentState& value) {
  j = json{{"backfilled", value.backfilled},
           {"directorySent", value.directorySent},
           {"assistantSent", value.assistantSent},
           {"selfPosted", value.selfPosted},
           {"outboxDone", value.outboxDone}};
  writeOptional(j, "cursor", value.cursor);
  writeOptional(j, "selfCursor", value.selfCursor);
  writeOptional(j, "directoryFullAt", value.directoryFullAt);
  writeOptional(j, "lastSyncAt", value.lastSyncAt);
  writeOptional(j, "lastError", value.lastError);
  writeOptional(j, "rosterCount", value.rosterCount);
}

void from_json(const json& j, AgentState& value) {
  requireObject(j);
  readOptional(j, "cursor", value.cursor);
  readOptional(j, "selfCursor", value.selfCursor);
  readCollection(j, "backfilled", value.backfilled);
  readCollection(j, "directorySent", value.directorySent);
  readOptional(j, "directoryFullAt", value.directoryFullAt);
  readCollection(j, "assistantSent", value.assistantSent);
  readCollection(j, "selfPosted", value.selfPosted);
  readCollection(j, "outboxDone", value.outboxDone);
  readOptional(j, "lastSyncAt", value.lastSyncAt);
  readOptional(j, "lastError", value.lastError);
  readOptional(j, "rosterCount", value.rosterCount);
}

}  // namespace corvane
