// The records exchanged with the server as JSON. Plain values: member-wise
// construction and equality, keys equal to the member names. JSON coding
// lives beside them in wire_json.h. Values, so safe to share between threads
// as long as nobody mutates them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace corvane {

namespace QuoddleProtocol {
// Sent on every request in the "X-Quoddle-Protocol" header.
inline constexpr int version = 1;
// Scheme of connect links ("corvane://connect?code=...").
inline constexpr const char* deepLinkScheme = "corvane";
}  // namespace QuoddleProtocol

struct PairRequest {
  std::string code{};
  std::string deviceName{};
  std::string platform{};
  std::string agentVersion{};
  bool operator==(const PairRequest&) const = default;
};

struct PairResponse {
  std::string token{};
  std::string deviceId{};
  std::optional<std::string> userName{};
  bool operator==(const PairResponse&) const = default;
};

struct AgentConfig {
  struct SelfChannel {
    bool enabled = false;
    std::vector<std::string> handles{};
    bool operator==(const SelfChannel&) const = default;
  };
  std::int64_t protocolVersion = 0;
  std::vector<std::string> rosterHandles{};
  std::int64_t backfillDays = 0;
  std::int64_t directoryDays = 0;
  std::int64_t pollIntervalSec = 0;
  SelfChannel selfChannel;
  std::string plan{};
  bool operator==(const AgentConfig&) const = default;
};

struct DirectoryEntry {
  std::string handle{};
  std::optional<std::string> displayName{};
  std::optional<std::string> firstName{};
  std::optional<std::string> lastName{};
  std::optional<std::string> nickname{};
  std::string service{};
  std::string lastMessageAt{};
  bool lastFromMe = false;
  std::int64_t messageCount = 0;
  bool operator==(const DirectoryEntry&) const = default;
};

enum class AttachmentKind { image, video, audio, sticker, file };

struct SyncedMessage {
  std::string guid{};
  std::string handle{};
  std::string text{};
  bool isFromMe = false;
  std::string sentAt{};
  std::string service{};
  std::vector<AttachmentKind> attachments{};
  std::optional<std::string> reaction{};
  std::optional<std::string> replyToGuid{};
  bool operator==(const SyncedMessage&) const = default;
};

struct SyncRequest {
  std::vector<DirectoryEntry> directory{};
  std::vector<SyncedMessage> messages{};
  std::int64_t cursor = 0;
  bool operator==(const SyncRequest&) const = default;
};

struct SyncResponse {
  std::int64_t accepted = 0;
  std::int64_t dropped = 0;
  bool operator==(const SyncResponse&) const = default;
};

struct OutboxItem {
  enum class Kind { user, assistant };
  std::string id{};
  std::string handle{};
  std::string text{};
  Kind kind = Kind::user;
  bool operator==(const OutboxItem&) const = default;
};

struct OutboxResponse {
  std::vector<OutboxItem> items{};
  bool operator==(const OutboxResponse&) const = default;
};

enum class SendStatus { sent, failed };

struct OutboxAck {
  SendStatus status = SendStatus::sent;
  std::optional<std::string> error{};
  bool operator==(const OutboxAck&) const = default;
};

struct SelfMessageRequest {
  std::string guid{};
  std::string text{};
  std::string sentAt{};
  bool operator==(const SelfMessageRequest&) const = default;
};

struct SelfMessageResponse {
  std::int64_t queued = 0;
  bool operator==(const SelfMessageResponse&) const = default;
};

enum class PermissionState { granted, denied, unknown };

struct AgentStatusRequest {
  std::string appVersion{};
  std::string osVersion{};
  bool fullDiskAccess = false;
  PermissionState contactsAccess = PermissionState::unknown;
  PermissionState automationAccess = PermissionState::unknown;
  bool messagesReady = false;
  std::optional<std::vector<std::string>> ownHandles{};
  bool operator==(const AgentStatusRequest&) const = default;
};

// The body of an error answer; only its texts are of interest.
struct ErrorBody {
  std::optional<std::string> error{};
  std::optional<std::string> message{};
  bool operator==(const ErrorBody&) const = default;
};

// The answer of calls whose result is discarded (ack, status): decodes from
// any JSON value and carries nothing.
struct IgnoredBody {
  bool operator==(const IgnoredBody&) const = default;
};

}  // namespace corvane
