// Extraction of upload-ready messages from the one-to-one chats of roster people.
#include <algorithm>
#include <array>

#include "core/chatdb/chat_db.h"
#include "core/chatdb/row_reading.h"
#include "core/chatdb/typed_stream.h"
#include "core/protocol/iso_time.h"
#include "core/text/unicode.h"

namespace corvane {
namespace {

constexpr std::size_t kAttachmentChunk = 500;  // keeps host parameters within SQLite's limit
constexpr std::size_t kGuidMax = 100;
constexpr std::size_t kTextMax = 20000;
constexpr std::size_t kServiceMax = 20;
constexpr const char* kDefaultService = "iMessage";
constexpr std::string_view kObjectReplacement = "\xEF\xBF\xBC";  // U+FFFC

using rows::placeholders;

bool isInt(const SQLCell& c) { return c.kind == SQLValue::Kind::integer; }
bool isNonZeroInteger(const SQLCell& c) { return isInt(c) && c.integer != 0; }

// The position of a column the statement is known to have.
std::size_t columnAt(const SQLiteRowView& row, std::string_view name) { return *row.indexOf(name); }

// Column positions of the message statement, resolved once per result.
struct MessageColumns {
  std::size_t rowid, guid, text, body, fromMe, service, sentMs, amt, assocGuid, threadGuid,
      itemType, hasAttachments, chatId;

  explicit MessageColumns(const SQLiteRowView& row)
      : rowid(columnAt(row, "rowid")), guid(columnAt(row, "guid")), text(columnAt(row, "text")),
        body(columnAt(row, "attributedBody")), fromMe(columnAt(row, "is_from_me")),
        service(columnAt(row, "service")), sentMs(columnAt(row, "sent_ms")),
        amt(columnAt(row, "amt")), assocGuid(columnAt(row, "associated_message_guid")),
        threadGuid(columnAt(row, "thread_originator_guid")), itemType(columnAt(row, "item_type")),
        hasAttachments(columnAt(row, "cache_has_attachments")), chatId(columnAt(row, "chat_id")) {}
};

// Column positions of the attachment statement.
struct AttachmentColumns {
  std::size_t mid, mime, uti, transfer, sticker;

  explicit AttachmentColumns(const SQLiteRowView& row)
      : mid(columnAt(row, "mid")), mime(columnAt(row, "mime_type")), uti(columnAt(row, "uti")),
        transfer(columnAt(row, "transfer_name")), sticker(columnAt(row, "is_sticker")) {}
};

// Removes NUL and U+FFFC and trims, in `s` itself: most texts need neither,
// and every message row comes through here.
std::string cleaned(std::string s) {
  if (s.find('\0') != std::string::npos || s.find(kObjectReplacement) != std::string::npos) {
    std::size_t to = 0;
    for (std::size_t i = 0; i < s.size();) {
      if (s[i] == '\0') {
        ++i;
      } else if (std::string_view(s).compare(i, kObjectReplacement.size(), kObjectReplacement) ==
                 0) {
        i += kObjectReplacement.size();
      } else {
        s[to++] = s[i++];
      }
    }
    s.resize(to);
  }
  const std::string_view trimmed = trimWhitespace(s);
  const auto begin = static_cast<std::size_t>(trimmed.data() - s.data());
  s.erase(begin + trimmed.size());
  s.erase(0, begin);
  return s;
}

// The same from a view of the row: only the bytes kept are copied.
std::string cleanedCopy(std::string_view s) {
  if (s.find('\0') == std::string_view::npos &&
      s.find(kObjectReplacement) == std::string_view::npos) {
    return std::string(trimWhitespace(s));
  }
  return cleaned(std::string(s));
}

// The text of a message row from a view of its "text" column; `body()` gives
// the attributed body's bytes, read only when the text is empty.
template <class Body>
std::string messageText(std::optional<std::string_view> text, const Body& body) {
  if (text && !text->empty()) return cleanedCopy(*text);
  const auto bytes = body();
  auto decoded = bytes ? TypedStream::decodeAttributedBody(*bytes) : std::nullopt;
  return decoded ? cleaned(std::move(*decoded)) : std::string();
}

// clipUTF16 that skips the grapheme walk for the strings that fit, nearly all.
std::string clippedCopy(std::string_view s, std::size_t max) {
  if (s.size() <= max) return std::string(s);
  return clipUTF16(s, max);
}

std::optional<std::string> strippedGuid(std::string_view s) {
  if (s.empty()) return std::nullopt;
  std::string_view v = s;
  if (v.starts_with("bp:")) {
    v.remove_prefix(3);
  } else if (v.starts_with("p:")) {
    const std::size_t slash = v.find('/', 2);
    if (slash != std::string_view::npos) {
      const std::string_view index = v.substr(2, slash - 2);
      bool digits = true;
      for (std::size_t i = 0; i < index.size() && digits;) {
        digits = isDecimalDigit(decodeUTF8At(index, i));
      }
      if (digits) v.remove_prefix(slash + 1);
    }
  }
  if (v.empty()) return prefixGraphemes(s, kGuidMax);
  return clipUTF16(v, kGuidMax);
}

// isoString for messages in ROWID order, which nearly always share their day
// with the one before: the date part is formatted once a day.
class IsoDates {
 public:
  std::string operator()(std::int64_t ms) {
    constexpr std::int64_t kDayMs = 86400000;
    // From 1970 to 9999 every field of the text has a fixed place.
    constexpr std::int64_t kYear10000Ms = 253402300800000;
    if (ms < 0 || ms >= kYear10000Ms) return isoString(ms);
    if (ms / kDayMs != day_) {
      day_ = ms / kDayMs;
      last_ = isoString(ms);
      return last_;
    }
    std::string out = last_;
    std::int64_t t = ms % kDayMs;
    put(out, 20, t % 1000, 3);
    t /= 1000;
    put(out, 17, t % 60, 2);
    put(out, 14, t / 60 % 60, 2);
    put(out, 11, t / 3600, 2);
    return out;
  }

 private:
  static void put(std::string& s, std::size_t at, std::int64_t value, std::size_t digits) {
    for (std::size_t i = digits; i-- > 0; value /= 10) {
      s[at + i] = static_cast<char>('0' + value % 10);
    }
  }
  std::int64_t day_ = -1;
  std::string last_;
};

std::optional<std::string_view> viewOf(const std::optional<std::string>& s) {
  return s ? std::optional<std::string_view>(*s) : std::nullopt;
}

std::optional<AttachmentKind> kindOf(std::optional<std::string_view> mime,
                                     std::optional<std::string_view> uti,
                                     std::optional<std::string_view> transferName, bool isSticker) {
  if (lowercased(transferName.value_or("")).ends_with(".pluginpayloadattachment")) {
    return std::nullopt;  // app payloads are not attachments a person sent
  }
  if (isSticker) return AttachmentKind::sticker;
  const std::string m = lowercased(mime.value_or(""));
  if (m.starts_with("image/")) return AttachmentKind::image;
  if (m.starts_with("video/")) return AttachmentKind::video;
  if (m.starts_with("audio/")) return AttachmentKind::audio;
  const std::string u = lowercased(uti.value_or(""));
  const auto containsAny = [&u](std::initializer_list<std::string_view> needles) {
    return std::any_of(needles.begin(), needles.end(),
                       [&u](std::string_view n) { return u.find(n) != std::string::npos; });
  };
  if (containsAny({"jpeg", "png", "heic", "heif", "gif", "tiff", "image"})) {
    return AttachmentKind::image;
  }
  if (containsAny({"movie", "video", "mpeg-4", "quicktime"})) return AttachmentKind::video;
  if (containsAny({"audio", "caf", "m4a", "amr"})) return AttachmentKind::audio;
  return AttachmentKind::file;
}

}  // namespace

std::string appleDateToUnixMsSQL(const std::string& c) {
  const std::string epoch = std::to_string(ChatDB::appleEpochMs);
  return "(CASE WHEN " + c + " IS NULL OR " + c + " = 0 THEN NULL WHEN " + c +
         " > 100000000000 THEN " + c + " / 1000000 + " + epoch + " ELSE " + c + " * 1000 + " +
         epoch + " END)";
}

std::string ChatDB::cleanText(const std::optional<std::string>& s) {
  return s ? cleaned(*s) : std::string();
}

std::string extractMessageText(const SQLValue& text, const SQLValue& attributedBody) {
  const auto body = [&] { return attributedBody.data(); };
  if (const std::string* t = text.textIf()) return messageText(*t, body);
  return messageText(viewOf(text.string()), body);
}

std::optional<std::string> ChatDB::stripAssociatedGuid(const std::optional<std::string>& s) {
  return s ? strippedGuid(*s) : std::nullopt;
}

std::optional<std::string> ChatDB::reactionWord(std::int64_t code) {
  static constexpr std::array<const char*, 7> kWords = {
      "loved", "liked", "disliked", "laughed", "emphasized", "questioned", "reacted"};
  if (code < 2000 || code > 2006) return std::nullopt;
  return kWords[static_cast<std::size_t>(code - 2000)];
}

std::optional<AttachmentKind> ChatDB::attachmentKind(const std::optional<std::string>& mime,
                                                     const std::optional<std::string>& uti,
                                                     const std::optional<std::string>& transferName,
                                                     bool isSticker) {
  return kindOf(viewOf(mime), viewOf(uti), viewOf(transferName), isSticker);
}

std::string ChatDB::messageItem(const std::string& column, const std::string& alias) const {
  if (messageCols_.contains(column)) return "m." + column + " AS " + alias;
  return "NULL AS " + alias;
}

std::string ChatDB::messageSQL(const std::string& where) const {
  return "SELECT m.ROWID AS rowid, m.guid AS guid, m.text AS text, " +
         messageItem("attributedBody") + ",\n       m.is_from_me AS is_from_me, " +
         messageItem("service") + ", " + appleDateToUnixMsSQL("m.date") + " AS sent_ms,\n       " +
         messageItem("associated_message_type", "amt") + ", " +
         messageItem("associated_message_guid") + ",\n       " +
         messageItem("thread_originator_guid") + ", " + messageItem("item_type") + ",\n       " +
         messageItem("cache_has_attachments") + ", " + messageItem("error") +
         ", cmj.chat_id AS chat_id\nFROM message m\nJOIN chat_message_join cmj ON cmj.message_id = "
         "m.ROWID\nWHERE " +
         where + "\nORDER BY m.ROWID";
}

std::string ChatDB::attachmentSQL(std::size_t count) const {
  const auto item = [this](const char* column, const char* absent) {
    return attachmentCols_.contains(column) ? std::string("a.") + column : std::string(absent);
  };
  return "SELECT maj.message_id AS mid, a.mime_type AS mime_type, " + item("uti", "NULL") +
         " AS uti, " + item("transfer_name", "NULL") + " AS transfer_name,\n       " +
         item("is_sticker", "0") +
         " AS is_sticker\nFROM message_attachment_join maj JOIN attachment a ON a.ROWID = "
         "maj.attachment_id\nWHERE maj.message_id IN (" +
         placeholders(count) + ")\nORDER BY maj.message_id, a.ROWID";
}

std::vector<ChatDB::ExtractedMessage> ChatDB::messagesAfter(const ChatMap& chats,
                                                            std::int64_t cursor,
                                                            std::int64_t upTo) {
  if (chats.empty() || upTo <= cursor) return {};
  std::vector<SQLValue> params;
  for (const auto& [id, _] : chats) params.emplace_back(id);
  params.emplace_back(cursor);
  params.emplace_back(upTo);
  return extract(chats,
                 "cmj.chat_id IN (" + placeholders(chats.size()) +
                     ") AND m.ROWID > ? AND m.ROWID <= ?",
                 std::move(params));
}

std::vector<ChatDB::ExtractedMessage> ChatDB::messagesSince(const ChatMap& chats,
                                                            std::int64_t sinceMs,
                                                            std::int64_t upTo) {
  if (chats.empty()) return {};
  std::vector<SQLValue> params;
  for (const auto& [id, _] : chats) params.emplace_back(id);
  params.emplace_back(sinceMs);
  params.emplace_back(upTo);
  return extract(chats,
                 "cmj.chat_id IN (" + placeholders(chats.size()) + ") AND " +
                     appleDateToUnixMsSQL("m.date") + " >= ? AND m.ROWID <= ?",
                 std::move(params));
}

std::vector<ChatDB::ExtractedMessage> ChatDB::extract(const ChatMap& chats,
                                                      const std::string& where,
                                                      std::vector<SQLValue> params) {
  std::vector<ExtractedMessage> out;
  std::vector<bool> isReaction;  // per entry of `out`
  std::vector<std::int64_t> withAttachments;
  std::optional<MessageColumns> col;
  // The map's chats in its (ascending) order, in one block: every row looks
  // its chat up.
  std::vector<std::pair<std::int64_t, const std::string*>> handles;
  handles.reserve(chats.size());
  for (const auto& [id, handle] : chats) handles.emplace_back(id, &handle);
  // Numbers read as text are rendered here, one buffer per column used.
  std::string guidNumber, textNumber, serviceNumber, replyNumber;
  IsoDates isoDates;

  // Columns are read in place and only when the row needs them; the strings
  // of the message are the only copies.
  db_->forEachInPlace(messageSQL(where), params, [&](const SQLiteRowView& row) {
    if (!col) col.emplace(row);
    const SQLCell rowid = row.at(col->rowid);
    const SQLCell flag = row.at(col->hasAttachments);
    // Rows come in ROWID order, so a message joined to two chats is adjacent.
    if (isInt(rowid) && !(isInt(flag) && flag.integer == 0) &&
        (withAttachments.empty() || withAttachments.back() != rowid.integer)) {
      withAttachments.push_back(rowid.integer);
    }

    const SQLCell chatId = row.at(col->chatId);
    const SQLCell sentMs = row.at(col->sentMs);
    if (!isInt(rowid) || !isInt(chatId) || !isInt(sentMs)) return;
    const auto chat = std::lower_bound(
        handles.begin(), handles.end(), chatId.integer,
        [](const auto& entry, std::int64_t id) { return entry.first < id; });
    if (chat == handles.end() || chat->first != chatId.integer) return;
    const auto guid = row.at(col->guid).string(guidNumber);
    if (!guid || guid->empty()) return;
    if (isNonZeroInteger(row.at(col->itemType))) return;
    const SQLCell amt = row.at(col->amt);
    const bool reactionRow = isNonZeroInteger(amt);
    std::optional<std::string> reaction;
    if (reactionRow) {
      reaction = reactionWord(amt.integer);
      if (!reaction) return;
    }

    std::string text = messageText(row.at(col->text).string(textNumber),
                                   [&] { return row.at(col->body).data(); });
    if (reactionRow && text.empty()) {
      text = *reaction + " a message";
      text[0] = static_cast<char>(text[0] - 'a' + 'A');
    }
    const auto replyTarget =
        row.at(reactionRow ? col->assocGuid : col->threadGuid).string(replyNumber);

    ExtractedMessage& e = out.emplace_back();
    e.rowid = rowid.integer;
    e.sentAtMs = sentMs.integer;
    SyncedMessage& m = e.message;
    m.guid = clippedCopy(*guid, kGuidMax);
    m.handle = *chat->second;
    m.text = text.size() <= kTextMax ? std::move(text) : clipUTF16(text, kTextMax);
    const SQLCell fromMe = row.at(col->fromMe);
    m.isFromMe = isInt(fromMe) && fromMe.integer == 1;
    m.sentAt = isoDates(e.sentAtMs);
    m.service = clippedCopy(
        row.at(col->service).string(serviceNumber).value_or(kDefaultService), kServiceMax);
    m.reaction = std::move(reaction);
    if (replyTarget) m.replyToGuid = strippedGuid(*replyTarget);
    isReaction.push_back(reactionRow);
  });

  // Plain messages take their attachments now; those left with neither text
  // nor attachments go. Compacted in place: a second list of every message
  // would double the peak memory of a large backfill.
  const AttachmentsByRow attachments = attachmentsFor(withAttachments);
  std::size_t kept = 0;
  for (std::size_t i = 0; i < out.size(); ++i) {
    SyncedMessage& m = out[i].message;
    if (!isReaction[i]) {
      const auto it = std::lower_bound(
          attachments.begin(), attachments.end(), out[i].rowid,
          [](const auto& entry, std::int64_t rowid) { return entry.first < rowid; });
      if (it != attachments.end() && it->first == out[i].rowid) m.attachments = it->second;
      if (m.text.empty() && m.attachments.empty()) continue;
    }
    if (kept != i) out[kept] = std::move(out[i]);
    ++kept;
  }
  out.erase(out.begin() + static_cast<std::ptrdiff_t>(kept), out.end());
  return out;
}

ChatDB::AttachmentsByRow ChatDB::attachmentsFor(const std::vector<std::int64_t>& rowids) {
  AttachmentsByRow kinds;
  // Older or stripped databases without an attachment table have nothing to join.
  if (rowids.empty() || attachmentCols_.empty()) return kinds;
  std::string mimeNumber, utiNumber, transferNumber;
  // `rowids` ascend and each statement orders by message id, so the entries
  // come out sorted by ROWID, as extract's look-up needs.
  for (std::size_t start = 0; start < rowids.size(); start += kAttachmentChunk) {
    const std::size_t n = std::min(kAttachmentChunk, rowids.size() - start);
    std::vector<SQLValue> params(rowids.begin() + static_cast<std::ptrdiff_t>(start),
                                 rowids.begin() + static_cast<std::ptrdiff_t>(start + n));
    std::optional<AttachmentColumns> col;
    db_->forEachInPlace(attachmentSQL(n), params, [&](const SQLiteRowView& row) {
      if (!col) col.emplace(row);
      const SQLCell mid = row.at(col->mid);
      if (!isInt(mid)) return;
      const auto kind = kindOf(row.at(col->mime).string(mimeNumber),
                               row.at(col->uti).string(utiNumber),
                               row.at(col->transfer).string(transferNumber),
                               isNonZeroInteger(row.at(col->sticker)));
      if (!kind) return;
      if (kinds.empty() || kinds.back().first != mid.integer) {
        kinds.emplace_back(mid.integer, std::vector<AttachmentKind>{});
      }
      kinds.back().second.push_back(*kind);
    });
  }
  return kinds;
}

}  // namespace corvane
