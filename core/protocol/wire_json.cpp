#include "core/protocol/wire_json.h"

#include <array>
#include <charconv>
#include <cmath>
#include <concepts>
#include <cstdint>
#include <limits>
#include <optional>
#include <type_traits>
#include <utility>
#include <vector>

#include "core/text/unicode.h"

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

// How an absent optional travels: written as null, left out, or (for a
// list) written empty and read back empty when missing.
enum class Absent { null, omitted, empty };

// Writes a record's fields into a JSON object, in the order visited.
struct Encoder {
  WireJSON& j;

  template <class T>
  void operator()(const char* key, const T& value) const {
    j[key] = value;
  }
  template <class T>
  void operator()(const char* key, const std::optional<T>& value, Absent absent) const {
    if (value) {
      j[key] = *value;
    } else if (absent == Absent::null) {
      j[key] = nullptr;
    }
  }
  template <class T>
  void operator()(const char* key, const std::vector<T>& value, Absent) const {
    j[key] = value;
  }
};

// Reads a record's fields from a JSON object.
struct Decoder {
  const Fields& fields;

  template <class T>
  void operator()(const char* key, T& value) const {
    value = fields.required<T>(key);
  }
  template <class T>
  void operator()(const char* key, std::optional<T>& value, Absent) const {
    value = fields.optional<T>(key);
  }
  template <class T>
  void operator()(const char* key, std::vector<T>& value, Absent) const {
    value = fields.optional<std::vector<T>>(key).value_or(std::vector<T>{});
  }
};

template <class R, class Record>
concept RecordOf = std::same_as<std::remove_const_t<R>, Record>;

// Each record's keys, listed once for both directions, in wire order.
void eachField(RecordOf<PairRequest> auto& v, auto&& f) {
  f("code", v.code);
  f("deviceName", v.deviceName);
  f("platform", v.platform);
  f("agentVersion", v.agentVersion);
}

void eachField(RecordOf<PairResponse> auto& v, auto&& f) {
  f("token", v.token);
  f("deviceId", v.deviceId);
  f("userName", v.userName, Absent::omitted);
}

void eachField(RecordOf<AgentConfig::SelfChannel> auto& v, auto&& f) {
  f("enabled", v.enabled);
  f("handles", v.handles);
}

void eachField(RecordOf<AgentConfig> auto& v, auto&& f) {
  f("protocolVersion", v.protocolVersion);
  f("rosterHandles", v.rosterHandles);
  f("backfillDays", v.backfillDays);
  f("directoryDays", v.directoryDays);
  f("pollIntervalSec", v.pollIntervalSec);
  f("selfChannel", v.selfChannel);
  f("plan", v.plan);
}

void eachField(RecordOf<DirectoryEntry> auto& v, auto&& f) {
  f("handle", v.handle);
  f("displayName", v.displayName, Absent::null);
  f("firstName", v.firstName, Absent::null);
  f("lastName", v.lastName, Absent::null);
  f("nickname", v.nickname, Absent::null);
  f("service", v.service);
  f("lastMessageAt", v.lastMessageAt);
  f("lastFromMe", v.lastFromMe);
  f("messageCount", v.messageCount);
}

void eachField(RecordOf<SyncedMessage> auto& v, auto&& f) {
  f("guid", v.guid);
  f("handle", v.handle);
  f("text", v.text);
  f("isFromMe", v.isFromMe);
  f("sentAt", v.sentAt);
  f("service", v.service);
  f("attachments", v.attachments, Absent::empty);
  f("reaction", v.reaction, Absent::null);
  f("replyToGuid", v.replyToGuid, Absent::null);
}

void eachField(RecordOf<SyncRequest> auto& v, auto&& f) {
  f("directory", v.directory);
  f("messages", v.messages);
  f("cursor", v.cursor);
}

void eachField(RecordOf<SyncResponse> auto& v, auto&& f) {
  f("accepted", v.accepted);
  f("dropped", v.dropped);
}

void eachField(RecordOf<OutboxItem> auto& v, auto&& f) {
  f("id", v.id);
  f("handle", v.handle);
  f("text", v.text);
  f("kind", v.kind);
}

void eachField(RecordOf<OutboxResponse> auto& v, auto&& f) { f("items", v.items); }

void eachField(RecordOf<OutboxAck> auto& v, auto&& f) {
  f("status", v.status);
  f("error", v.error, Absent::null);
}

void eachField(RecordOf<SelfMessageRequest> auto& v, auto&& f) {
  f("guid", v.guid);
  f("text", v.text);
  f("sentAt", v.sentAt);
}

void eachField(RecordOf<SelfMessageResponse> auto& v, auto&& f) { f("queued", v.queued); }

void eachField(RecordOf<AgentStatusRequest> auto& v, auto&& f) {
  f("appVersion", v.appVersion);
  f("osVersion", v.osVersion);
  f("fullDiskAccess", v.fullDiskAccess);
  f("contactsAccess", v.contactsAccess);
  f("automationAccess", v.automationAccess);
  f("messagesReady", v.messagesReady);
  f("ownHandles", v.ownHandles, Absent::omitted);
}

void eachField(RecordOf<ErrorBody> auto& v, auto&& f) {
  f("error", v.error, Absent::omitted);
  f("message", v.message, Absent::omitted);
}

template <class R>
void encodeRecord(WireJSON& j, const R& record) {
  j = WireJSON::object();
  eachField(record, Encoder{j});
}

template <class R>
void decodeRecord(const WireJSON& j, R& record) {
  const Fields fields(j);
  eachField(record, Decoder{fields});
}

// Writes JSON text straight from the records, byte for byte what dumping
// their document gives: an upload batch holds thousands of messages, and
// building the document first costs several times the writing.
class TextWriter {
 public:
  explicit TextWriter(std::string& out) : out_(out) {}

  void write(std::string_view s) {
    // Broken UTF-8 should never get here; if it does, the document's own
    // replacement rules keep the bytes identical.
    if (!isValidUTF8(s)) {
      out_ += dumpWireJSON(WireJSON(s));
      return;
    }
    out_ += '"';
    std::size_t copied = 0;
    for (std::size_t i = 0; i < s.size(); ++i) {
      const auto c = static_cast<unsigned char>(s[i]);
      if (c >= 0x20 && c != '"' && c != '\\') continue;
      out_.append(s, copied, i - copied);
      copied = i + 1;
      out_ += escaped(c);
    }
    out_.append(s, copied);
    out_ += '"';
  }
  void write(const std::string& s) { write(std::string_view(s)); }
  void write(bool b) { out_ += b ? "true" : "false"; }
  void write(std::int64_t n) {
    char digits[24];
    out_.append(digits, std::to_chars(digits, digits + sizeof digits, n).ptr);
  }
  void write(std::nullptr_t) { out_ += "null"; }
  template <class E>
  requires std::is_enum_v<E>
  void write(E value) { write(wireName(value)); }
  template <class T>
  void write(const std::vector<T>& values) {
    out_ += '[';
    for (std::size_t i = 0; i < values.size(); ++i) {
      if (i > 0) out_ += ',';
      write(values[i]);
    }
    out_ += ']';
  }
  template <class R>
  requires std::is_class_v<R>
  void write(const R& record) {
    out_ += '{';
    eachField(record, FieldWriter{*this});
    out_ += '}';
  }

 private:
  // Writes a record's fields as Encoder does: an absent optional as null or
  // not at all, a list always.
  struct FieldWriter {
    TextWriter& w;
    bool first = true;

    template <class T>
    void operator()(const char* key, const T& value) {
      w.key(key, first);
      w.write(value);
    }
    template <class T>
    void operator()(const char* key, const std::optional<T>& value, Absent absent) {
      if (value) {
        w.key(key, first);
        w.write(*value);
      } else if (absent == Absent::null) {
        w.key(key, first);
        w.write(nullptr);
      }
    }
    template <class T>
    void operator()(const char* key, const std::vector<T>& value, Absent) {
      w.key(key, first);
      w.write(value);
    }
  };

  void key(const char* name, bool& first) {
    if (!first) out_ += ',';
    first = false;
    write(std::string_view(name));
    out_ += ':';
  }

  // The escapes of the document's dump: short forms where JSON has them,
  // else \u00xx in lower-case hex.
  static std::string escaped(unsigned char c) {
    switch (c) {
      case '"':
        return "\\\"";
      case '\\':
        return "\\\\";
      case '\b':
        return "\\b";
      case '\t':
        return "\\t";
      case '\n':
        return "\\n";
      case '\f':
        return "\\f";
      case '\r':
        return "\\r";
      default:
        break;
    }
    static constexpr char kHex[] = "0123456789abcdef";
    return {'\\', 'u', '0', '0', kHex[c >> 4], kHex[c & 0xF]};
  }

  std::string& out_;
};

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

void to_json(WireJSON& j, const PairRequest& v) { encodeRecord(j, v); }
void from_json(const WireJSON& j, PairRequest& v) { decodeRecord(j, v); }

void to_json(WireJSON& j, const PairResponse& v) { encodeRecord(j, v); }
void from_json(const WireJSON& j, PairResponse& v) { decodeRecord(j, v); }

void to_json(WireJSON& j, const AgentConfig::SelfChannel& v) { encodeRecord(j, v); }
void from_json(const WireJSON& j, AgentConfig::SelfChannel& v) { decodeRecord(j, v); }

void to_json(WireJSON& j, const AgentConfig& v) { encodeRecord(j, v); }
void from_json(const WireJSON& j, AgentConfig& v) { decodeRecord(j, v); }

void to_json(WireJSON& j, const DirectoryEntry& v) { encodeRecord(j, v); }
void from_json(const WireJSON& j, DirectoryEntry& v) { decodeRecord(j, v); }

void to_json(WireJSON& j, const SyncedMessage& v) { encodeRecord(j, v); }
void from_json(const WireJSON& j, SyncedMessage& v) { decodeRecord(j, v); }

void to_json(WireJSON& j, const SyncRequest& v) { encodeRecord(j, v); }
void from_json(const WireJSON& j, SyncRequest& v) { decodeRecord(j, v); }

void to_json(WireJSON& j, const SyncResponse& v) { encodeRecord(j, v); }
void from_json(const WireJSON& j, SyncResponse& v) { decodeRecord(j, v); }

void to_json(WireJSON& j, const OutboxItem& v) { encodeRecord(j, v); }
void from_json(const WireJSON& j, OutboxItem& v) { decodeRecord(j, v); }

void to_json(WireJSON& j, const OutboxResponse& v) { encodeRecord(j, v); }
void from_json(const WireJSON& j, OutboxResponse& v) { decodeRecord(j, v); }

void to_json(WireJSON& j, const OutboxAck& v) { encodeRecord(j, v); }
void from_json(const WireJSON& j, OutboxAck& v) { decodeRecord(j, v); }

void to_json(WireJSON& j, const SelfMessageRequest& v) { encodeRecord(j, v); }
void from_json(const WireJSON& j, SelfMessageRequest& v) { decodeRecord(j, v); }

void to_json(WireJSON& j, const SelfMessageResponse& v) { encodeRecord(j, v); }
void from_json(const WireJSON& j, SelfMessageResponse& v) { decodeRecord(j, v); }

void to_json(WireJSON& j, const AgentStatusRequest& v) { encodeRecord(j, v); }
void from_json(const WireJSON& j, AgentStatusRequest& v) { decodeRecord(j, v); }

void to_json(WireJSON& j, const ErrorBody& v) { encodeRecord(j, v); }
void from_json(const WireJSON& j, ErrorBody& v) { decodeRecord(j, v); }

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
  } catch (const WireJSON::out_of_range&) {
    // A number beyond a double's range ("1e999") is well-formed JSON that
    // nlohmann refuses with out_of_range, not parse_error.
    throw DecodingError({}, "not valid JSON (a number is out of range)");
  }
}

std::string encodeJSON(const SyncRequest& value) {
  std::string out;
  TextWriter(out).write(value);
  return out;
}

std::string dumpWireJSON(const WireJSON& j) {
  return j.dump(-1, ' ', false, WireJSON::error_handler_t::replace);
}

}  // namespace corvane
