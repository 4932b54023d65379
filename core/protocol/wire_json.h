// JSON coding of the wire records in wire_types.h.
//
// Encoding writes every key in declared order (nlohmann::ordered_json). An
// absent optional is written as null in the records the agent uploads
// (DirectoryEntry, SyncedMessage, OutboxAck) and left out in PairResponse and
// AgentStatusRequest. Decoding ignores unknown keys, treats a missing key and
// a JSON null alike, rejects enumeration strings it does not know and throws
// DecodingError naming the offending key.
//
// All functions are pure and safe to call from any thread.
#pragma once

#include <exception>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "core/protocol/wire_types.h"

namespace corvane {

using WireJSON = nlohmann::ordered_json;

// A JSON text that is not the expected record. what() reads
// `key "items[2].kind": unknown value "robot"`, or only the reason when the
// problem is the whole value (`not valid JSON (syntax error at byte 7)`).
class DecodingError : public std::exception {
 public:
  DecodingError(std::string key, std::string reason);

  // Path of the key from the top-level value, e.g. "selfChannel.enabled";
  // empty when the top-level value itself is wrong.
  const std::string& key() const { return key_; }
  const std::string& reason() const { return reason_; }
  const char* what() const noexcept override { return text_.c_str(); }

  // The same error seen from the enclosing value: `parent` is a key name or
  // an array index written as "[3]".
  DecodingError nestedIn(std::string_view parent) const;

 private:
  std::string key_;
  std::string reason_;
  std::string text_;
};

// The strings that stand for the enumerations on the wire.
std::string_view wireName(AttachmentKind value);
std::string_view wireName(OutboxItem::Kind value);
std::string_view wireName(SendStatus value);
std::string_view wireName(PermissionState value);

// nlohmann hooks, found by argument-dependent lookup, so `WireJSON j = record`
// and `j.get<Record>()` work. from_json throws DecodingError.
void to_json(WireJSON& j, AttachmentKind value);
void to_json(WireJSON& j, OutboxItem::Kind value);
void to_json(WireJSON& j, SendStatus value);
void to_json(WireJSON& j, PermissionState value);
void to_json(WireJSON& j, const PairRequest& value);
void to_json(WireJSON& j, const PairResponse& value);
void to_json(WireJSON& j, const AgentConfig::SelfChannel& value);
void to_json(WireJSON& j, const AgentConfig& value);
void to_json(WireJSON& j, const DirectoryEntry& value);
void to_json(WireJSON& j, const SyncedMessage& value);
void to_json(WireJSON& j, const SyncRequest& value);
void to_json(WireJSON& j, const SyncResponse& value);
void to_json(WireJSON& j, const OutboxItem& value);
void to_json(WireJSON& j, const OutboxResponse& value);
void to_json(WireJSON& j, const OutboxAck& value);
void to_json(WireJSON& j, const SelfMessageRequest& value);
void to_json(WireJSON& j, const SelfMessageResponse& value);
void to_json(WireJSON& j, const AgentStatusRequest& value);
void to_json(WireJSON& j, const ErrorBody& value);
void to_json(WireJSON& j, const IgnoredBody& value);

void from_json(const WireJSON& j, AttachmentKind& value);
void from_json(const WireJSON& j, OutboxItem::Kind& value);
void from_json(const WireJSON& j, SendStatus& value);
void from_json(const WireJSON& j, PermissionState& value);
void from_json(const WireJSON& j, PairRequest& value);
void from_json(const WireJSON& j, PairResponse& value);
void from_json(const WireJSON& j, AgentConfig::SelfChannel& value);
void from_json(const WireJSON& j, AgentConfig& value);
void from_json(const WireJSON& j, DirectoryEntry& value);
void from_json(const WireJSON& j, SyncedMessage& value);
void from_json(const WireJSON& j, SyncRequest& value);
void from_json(const WireJSON& j, SyncResponse& value);
void from_json(const WireJSON& j, OutboxItem& value);
void from_json(const WireJSON& j, OutboxResponse& value);
void from_json(const WireJSON& j, OutboxAck& value);
void from_json(const WireJSON& j, SelfMessageRequest& value);
void from_json(const WireJSON& j, SelfMessageResponse& value);
void from_json(const WireJSON& j, AgentStatusRequest& value);
void from_json(const WireJSON& j, ErrorBody& value);
void from_json(const WireJSON& j, IgnoredBody& value);

// Parses one complete JSON text; throws DecodingError when it is not valid
// JSON (including invalid UTF-8 inside strings).
WireJSON parseWireJSON(std::string_view text);

// Compact JSON text of `j`. Never throws: a string that is not valid UTF-8
// (which should not reach the encoder) has its bad bytes written as U+FFFD
// rather than failing a whole upload.
std::string dumpWireJSON(const WireJSON& j);

// The record `T` from a JSON text; throws DecodingError.
template <class T>
T decodeJSON(std::string_view text) {
  return parseWireJSON(text).get<T>();
}

// The compact JSON text of a record, keys in declared order.
template <class T>
std::string encodeJSON(const T& value) {
  return dumpWireJSON(WireJSON(value));
}

// The same text for an upload batch, written without building the document
// (a batch holds up to 2,000 messages).
std::string encodeJSON(const SyncRequest& value);

}  // namespace corvane
