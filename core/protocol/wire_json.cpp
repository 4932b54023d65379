#include "core/protocol/wire_json.h"

#include <array>
#include <cmath>
#include <cstdint>
#include <limits>
#include <optional>
#include <type_traits>
#include <utility>
#include <vector>

namespace corvane {

DecodingError::DecodingError(std::string key, std::string reason)
    : key_(std::move(key)), reason_(std::move(reason)) {
  text_ = key_.empty() ? reason_ : "key \"" + key_ + "\": " + reason_;
}

DecodingError DecodingError::nestedIn(std::string_view parent) const {
  std::string path(parent);
  if (!key_.empty() && key_.front() != '[') path += '.';
  path += key_;
  return DecodingError(std::move(path), reason_);
}

namespace {

// Wire names in enumerator order, so a value indexes its own name.
constexpr std::array<std::string_view, 5> kAttachmentKinds = {"image", "video", "audio", "sticker",
                                                              "file"};
constexpr std::array<std::string_view, 2> kOutboxKinds = {"user", "assistant"};
constexpr std::array<std::string_view, 2> kSendStatuses = {"sent", "failed"};
constexpr std::array<std::string_view, 3> kPermissionStates = {"granted", "denied", "unknown"};

template <class E>
constexpr const auto& namesOf() {
  if constexpr (std::is_same_v<E, AttachmentKind>) return kAttachmentKinds;
  if constexpr (std::is_same_v<E, OutboxItem::Kind>) return kOutboxKinds;
  if constexpr (std::is_same_v<E, SendStatus>) return kSendStatuses;
  if constexpr (std::is_same_v<E, PermissionState>) return kPermissionStates;
}

template <class E>
std::string_view nameOf(E value) {
  const auto& names = namesOf<E>();
  const auto index = static_cast<std::size_t>(value);
  return index < names.size() ? names[index] : std::string_view("?");
}

std::string describe(const WireJSON& j) {
  switch (j.type()) {
    case WireJSON::value_t::null:
      return "null";
    case WireJSON::value_t::boolean:
      return "a boolean";
    case WireJSON::value_t::string:
      return "a string";
    case WireJSON::value_t::array:
      return "an array";
    case WireJSON::value_t::object:
      return "an object";
    case WireJSON::value_t::number_float:
      return "the number " + j.dump();
    default:
      return "a number";
  }
}

[[noreturn]] void wrongType(const char* expected, const WireJSON& j) {
  throw DecodingError({}, std::string("expected ") + expected + ", found " + describe(j));
}

template <class T>
struct IsVector : std::false_type {};
template <class T>
struct IsVector<std::vector<T>> : std::true_type {};

std::int64_t decodeInteger(const WireJSON& j) {
  constexpr auto kMax = std::numeric_limits<std::int64_t>::max();
  if (j.is_number_unsigned()) {
    const auto u = j.get<std::uint64_t>();
    if (u > static_cast<std::uint64_t>(kMax)) {
      throw DecodingError({}, "the number " + j.dump() + " is too large");
    }
    return static_cast<std::int64_t>(u);
  }
  if (j.is_number_integer()) return j.get<std::int64_t>();
  if (j.is_number_float()) {
    // 3.0 is an integer written as a float; 3.5 is not an integer at all.
    const double d = j.get<double>();
    if (std::trunc(d) == d && d >= -9.2e18 && d <= 9.2e18) return static_cast<std::int64_t>(d);
  }
  wrongType("an integer", j);
}

template <class E>
E decodeEnum(const WireJSON& j) {
  if (!j.is_string()) wrongType("a string", j);
  const auto& text = j.get_ref<const std::string&>();
  const auto& names = namesOf<E>();
  for (std::size_t i = 0; i < names.size(); ++i) {
    if (names[i] == text) return static_cast<E>(i);
  }
  throw DecodingError({}, "unknown value " + WireJSON(text).dump());
}

template <class T>
T decodeValue(const WireJSON& j) {
  if constexpr (std::is_same_v<T, std::string>) {
    if (!j.is_string()) wrongType("a string", j);
    return j.get_ref<const std::string&>();
  } else if constexpr (std::is_same_v<T, bool>) {
    if (!j.is_boolean()) wrongType("a boolean", j);
    return j.get<bool>();
  } else if constexpr (std::is_same_v<T, std::int64_t>) {
    return decodeInteger(j);
  } else if constexpr (std::is_enum_v<T>) {
    return decodeEnum<T>(j);
  } else if constexpr (IsVector<T>::value) {
    if (!j.is_array()) wrongType("an array", j);
    T out;
    out.reserve(j.size());
    for (std::size_t i = 0; i < j.size(); ++i) {
      try {
        out.push_back(decodeValue<typename T::value_type>(j[i]));
      } catch (const DecodingError& e) {
        throw e.nestedIn("[" + std::to_string(i) + "]");
      }
    }
    return out;
  } else {
    T record;
    from_json(j, record);
    return record;
  }
}

// Reads the keys of one JSON object, attributing failures to the key.
class Fields {
 public:
  explicit Fields(const WireJSON& j) : j_(j) {
    if (!j.is_object()) wrongType("an object", j);
  }

  template <class T>
  T required(const char* key) const {
    const auto it = j_.find(key);
    if (it == j_.end()) throw DecodingError(key, "missing");
    if (it->is_null()) throw DecodingError(key, "null, but a value is required");
    return decodeAt<T>(key, *it);
  }

  template <class T>
  std::optional<T> optional(const char* key) const {
    const auto it = j_.find(key);
    if (it == j_.end() || it->is_null()) return std::nullopt;
    return decodeAt<T>(key, *it);
  }

 private:
  template <class T>
  static T decodeAt(const char* key, const WireJSON& value) {
    try {
      return decodeValue<T>(value);
    } catch (const DecodingError& e) {
      throw e.nestedIn(key);
    }
  }

  const WireJSON& j_;
};

template <class T>
void putOrNull(WireJSON& j, const char* key, const std::optional<T>& value) {
  if (value) {
    j[key] = *value;
  } else {
    j[key] = nullptr;
  }
}

template <class T>
void putIfPresent(WireJSON& j, const char* key, const std::optional<T>& value) {
  if (value) j[key] = *value;
}

}  // namespace

std::string_view wireName(AttachmentKind value) { return nameOf(value); }
std::string_view wireName(OutboxItem::Kind value) { return nameOf(value); }
std::string_view wireName(SendStatus value) { return nameOf(value); }
std::string_view wireName(PermissionState value) { return nameOf(value); }

void to_json(WireJSON& j, AttachmentKind value) { j = wireName(value); }
void to_json(WireJSON& j, OutboxItem::Kind value) { j = wireName(value); }
void to_json(WireJSON& j, SendStatus value) { j = wireName(value); }
void to_json(WireJSON& j, PermissionState value) { j = wireName(value); }

void from_json(const WireJSON& j, AttachmentKind& value) { value = decodeValue<AttachmentKind>(j); }
void from_json(const WireJSON& j, OutboxItem::Kind& value) {
  value = decodeValue<OutboxItem::Kind>(j);
}
void from_json(const WireJSON& j, SendStatus& value) { value = decodeValue<SendStatus>(j); }
void from_json(const WireJSON& j, PermissionState& value) {
  value = decodeValue<PermissionState>(j);
}

void to_json(WireJSON& j, const PairRequest& v) {
  j = WireJSON::object();
  j["code"] = v.code;
  j["deviceName"] = v.deviceName;
  j["platform"] = v.platform;
  j["agentVersion"] = v.agentVersion;
}

void from_json(const WireJSON& j, PairRequest& v) {
  const Fields f(j);
  v.code = f.required<std::string>("code");
  v.deviceName = f.required<std::string>("deviceName");
  v.platform = f.required<std::string>("platform");
  v.agentVersion = f.required<std::string>("agentVersion");
}

void to_json(WireJSON& j, const PairResponse& v) {
  j = WireJSON::object();
  j["token"] = v.token;
  j["deviceId"] = v.deviceId;
  putIfPresent(j, "userName", v.userName);
}

void from_json(const WireJSON& j, PairResponse& v) {
  const Fields f(j);
  v.token = f.required<std::string>("token");
  v.deviceId = f.required<std::string>("deviceId");
  v.userName = f.optional<std::string>("userName");
}

void to_json(WireJSON& j, const AgentConfig::SelfChannel& v) {
  j = WireJSON::object();
  j["enabled"] = v.enabled;
  j["handles"] = v.handles;
}

void from_json(const WireJSON& j, AgentConfig::SelfChannel& v) {
  const Fields f(j);
  v.enabled = f.required<bool>("enabled");
  v.handles = f.required<std::vector<std::string>>("handles");
}

void to_json(WireJSON& j, const AgentConfig& v) {
  j = WireJSON::object();
  j["protocolVersion"] = v.protocolVersion;
  j["rosterHandles"] = v.rosterHandles;
  j["backfillDays"] = v.backfillDays;
  j["directoryDays"] = v.directoryDays;
  j["pollIntervalSec"] = v.pollIntervalSec;
  j["selfChannel"] = v.selfChannel;
  j["plan"] = v.plan;
}

void from_json(const WireJSON& j, AgentConfig& v) {
  const Fields f(j);
  v.protocolVersion = f.required<std::int64_t>("protocolVersion");
  v.rosterHandles = f.required<std::vector<std::string>>("rosterHandles");
  v.backfillDays = f.required<std::int64_t>("backfillDays");
  v.directoryDays = f.required<std::int64_t>("directoryDays");
  v.pollIntervalSec = f.required<std::int64_t>("pollIntervalSec");
  v.selfChannel = f.required<AgentConfig::SelfChannel>("selfChannel");
  v.plan = f.required<std::string>("plan");
}

void to_json(WireJSON& j, const DirectoryEntry& v) {
  j = WireJSON::object();
  j["handle"] = v.handle;
  putOrNull(j, "displayName", v.displayName);
  putOrNull(j, "firstName", v.firstName);
  putOrNull(j, "lastName", v.lastName);
  putOrNull(j, "nickname", v.nickname);
  j["service"] = v.service;
  j["lastMessageAt"] = v.lastMessageAt;
  j["lastFromMe"] = v.lastFromMe;
  j["messageCount"] = v.messageCount;
}

void from_json(const WireJSON& j, DirectoryEntry& v) {
  const Fields f(j);
  v.handle = f.required<std::string>("handle");
  v.displayName = f.optional<std::string>("displayName");
  v.firstName = f.optional<std::string>("firstName");
  v.lastName = f.optional<std::string>("lastName");
  v.nickname = f.optional<std::string>("nickname");
  v.service = f.required<std::string>("service");
  v.lastMessageAt = f.required<std::string>("lastMessageAt");
  v.lastFromMe = f.required<bool>("lastFromMe");
  v.messageCount = f.required<std::int64_t>("messageCount");
}

void to_json(WireJSON& j, const SyncedMessage& v) {
  j = WireJSON::object();
  j["guid"] = v.guid;
  j["handle"] = v.handle;
  j["text"] = v.text;
  j["isFromMe"] = v.isFromMe;
  j["sentAt"] = v.sentAt;
  j["service"] = v.service;
  j["attachments"] = v.attachments;
  putOrNull(j, "reaction", v.reaction);
  putOrNull(j, "replyToGuid", v.replyToGuid);
}

void from_json(const WireJSON& j, SyncedMessage& v) {
  const Fields f(j);
  v.guid = f.required<std::string>("guid");
  v.handle = f.required<std::string>("handle");
  v.text = f.required<std::string>("text");
  v.isFromMe = f.required<bool>("isFromMe");
  v.sentAt = f.required<std::string>("sentAt");
  v.service = f.required<std::string>("service");
  v.attachments = f.optional<std::vector<AttachmentKind>>("attachments").value_or(
      std::vector<AttachmentKind>{});
  v.reaction = f.optional<std::string>("reaction");
  v.replyToGuid = f.optional<std::string>("replyToGuid");
}

void to_json(WireJSON& j, const SyncRequest& v) {
  j = WireJSON::object();
  j["directory"] = v.directory;
  j["messages"] = v.messages;
  j["cursor"] = v.cursor;
}

void from_json(const WireJSON& j, SyncRequest& v) {
  const Fields f(j);
  v.directory = f.required<std::vector<DirectoryEntry>>("directory");
  v.messages = f.required<std::vector<SyncedMessage>>("messages");
  v.cursor = f.required<std::int64_t>("cursor");
}

void to_json(WireJSON& j, const SyncResponse& v) {
  j = WireJSON::object();
  j["accepted"] = v.accepted;
  j["dropped"] = v.dropped;
}

void from_json(const WireJSON& j, SyncResponse& v) {
  const Fields f(j);
  v.accepted = f.required<std::int64_t>("accepted");
  v.dropped = f.required<std::int64_t>("dropped");
}

void to_json(WireJSON& j, const OutboxItem& v) {
  j = WireJSON::object();
  j["id"] = v.id;
  j["handle"] = v.handle;
  j["text"] = v.text;
  j["kind"] = v.kind;
}

void from_json(const WireJSON& j, OutboxItem& v) {
  const Fields f(j);
  v.id = f.required<std::string>("id");
  v.handle = f.required<std::string>("handle");
  v.text = f.required<std::string>("text");
  v.kind = f.required<OutboxItem::Kind>("kind");
}

void to_json(WireJSON& j, const OutboxResponse& v) {
  j = WireJSON::object();
  j["items"] = v.items;
}

void from_json(const WireJSON& j, OutboxResponse& v) {
  const Fields f(j);
  v.items = f.required<std::vector<OutboxItem>>("items");
}

void to_json(WireJSON& j, const OutboxAck& v) {
  j = WireJSON::object();
  j["status"] = v.status;
  putOrNull(j, "error", v.error);
}

void from_json(const WireJSON& j, OutboxAck& v) {
  const Fields f(j);
  v.status = f.required<SendStatus>("status");
  v.error = f.optional<std::string>("error");
}

void to_json(WireJSON& j, const SelfMessageRequest& v) {
  j = WireJSON::object();
  j["guid"] = v.guid;
  j["text"] = v.text;
  j["sentAt"] = v.sentAt;
}

void from_json(const WireJSON& j, SelfMessageRequest& v) {
  const Fields f(j);
  v.guid = f.required<std::string>("guid");
  v.text = f.required<std::string>("text");
  v.sentAt = f.required<std::string>("sentAt");
}

void to_json(WireJSON& j, const SelfMessageResponse& v) {
  j = WireJSON::object();
  j["queued"] = v.queued;
}

void from_json(const WireJSON& j, SelfMessageResponse& v) {
  v.queued = Fields(j).required<std::int64_t>("queued");
}

void to_json(WireJSON& j, const AgentStatusRequest& v) {
  j = WireJSON::object();
  j["appVersion"] = v.appVersion;
  j["osVersion"] = v.osVersion;
  j["fullDiskAccess"] = v.fullDiskAccess;
  j["contactsAccess"] = v.contactsAccess;
  j["automationAccess"] = v.automationAccess;
  j["messagesReady"] = v.messagesReady;
  putIfPresent(j, "ownHandles", v.ownHandles);
}

void from_json(const WireJSON& j, AgentStatusRequest& v) {
  const Fields f(j);
  v.appVersion = f.required<std::string>("appVersion");
  v.osVersion = f.required<std::string>("osVersion");
  v.fullDiskAccess = f.required<bool>("fullDiskAccess");
  v.contactsAccess = f.required<PermissionState>("contactsAccess");
  v.automationAccess = f.required<PermissionState>("automationAccess");
  v.messagesReady = f.required<bool>("messagesReady");
  v.ownHandles = f.optional<std::vector<std::string>>("ownHandles");
}

void to_json(WireJSON& j, const ErrorBody& v) {
  j = WireJSON::object();
  putIfPresent(j, "error", v.error);
  putIfPresent(j, "message", v.message);
}

void from_json(const WireJSON& j, ErrorBody& v) {
  const Fields f(j);
  v.error = f.optional<std::string>("error");
  v.message = f.optional<std::string>("message");
}

void to_json(WireJSON& j, const IgnoredBody&) { j = WireJSON::object(); }

void from_json(const WireJSON&, IgnoredBody&) {}

WireJSON parseWireJSON(std::string_view text) {
  if (text.empty()) throw DecodingError({}, "not valid JSON (the text is empty)");
  try {
    return WireJSON::parse(text);
  } catch (const WireJSON::parse_error& e) {
    // nlohmann's own message quotes the text around the error; the byte
    // offset is enough and keeps server-supplied bytes out of our messages.
    throw DecodingError({}, "not valid JSON (syntax error at byte " + std::to_string(e.byte) + ")");
  }
}

std::string dumpWireJSON(const WireJSON& j) {
  return j.dump(-1, ' ', false, WireJSON::error_handler_t::replace);
}

}  // namespace corvane
