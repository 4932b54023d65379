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

using rows::isNonZeroInteger;
using rows::placeholders;

bool isInt(const SQLValue& v) { return v.kind() == SQLValue::Kind::integer; }

// The position of a column the statement is known to have.
std::size_t columnAt(const SQLRow& row, std::string_view name) { return *row.indexOf(name); }

// Column positions of the message statement, resolved once per result.
struct MessageColumns {
  std::size_t rowid, guid, text, body, fromMe, service, sentMs, amt, assocGuid, threadGuid,
      itemType, hasAttachments, chatId;

  explicit MessageColumns(const SQLRow& row)
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

  explicit AttachmentColumns(const SQLRow& row)
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

// clipUTF16 without a copy for the strings that fit, which is nearly all.
std::string clipped(std::string s, std::size_t max) {
  if (s.size() <= max) return s;
  return clipUTF16(s, max);
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
  std::optional<std::string> chosen = text.string();
  if (!chosen || chosen->empty()) {
    const auto bytes = attributedBody.data();
    chosen = bytes ? TypedStream::decodeAttributedBody(*bytes) : std::nullopt;
  }
  return chosen ? cleaned(std::move(*chosen)) : std::string();
}

std::optional<std::string> ChatDB::stripAssociatedGuid(const std::optional<std::string>& s) {
  if (!s || s->empty()) return std::nullopt;
  std::string_view v = *s;
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
  if (v.empty()) return prefixGraphemes(*s, kGuidMax);
  return clipUTF16(v, kGuidMax);
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

  db_->forEach(messageSQL(where), params, [&](const SQLRow& row) {
    if (!col) col.emplace(row);
    const SQLValue& rowid = row.at(col->rowid);
    // Rows come in ROWID order, so a message joined to two chats is adjacent.
    if (isInt(rowid) && !(isInt(row.at(col->hasAttachments)) &&
                          *row.at(col->hasAttachments).int64() == 0) &&
        (withAttachments.empty() || withAttachments.back() != *rowid.int64())) {
      withAttachments.push_back(*rowid.int64());
    }

    const SQLValue& chatId = row.at(col->chatId);
    const SQLValue& sentMs = row.at(col->sentMs);
    if (!isInt(rowid) || !isInt(chatId) || !isInt(sentMs)) return;
    const auto chat = chats.find(*chatId.int64());
    if (chat == chats.end()) return;
    auto guid = row.at(col->guid).string();
    if (!guid || guid->empty()) return;
    if (isNonZeroInteger(row.at(col->itemType))) return;

    std::string text = extractMessageText(row.at(col->text), row.at(col->body));
    std::optional<std::string> reaction;
    std::optional<std::string> replyTarget;
    const SQLValue& amt = row.at(col->amt);
    const bool reactionRow = isNonZeroInteger(amt);
    if (reactionRow) {
      reaction = reactionWord(*amt.int64());
      if (!reaction) return;
      if (text.empty()) {
        text = *reaction + " a message";
        text[0] = static_cast<char>(text[0] - 'a' + 'A');
      }
      replyTarget = row.at(col->assocGuid).string();
    } else {
      replyTarget = row.at(col->threadGuid).string();
    }

    ExtractedMessage& e = out.emplace_back();
    e.rowid = *rowid.int64();
    e.sentAtMs = *sentMs.int64();
    SyncedMessage& m = e.message;
    m.guid = clipped(std::move(*guid), kGuidMax);
    m.handle = chat->second;
    m.text = clipped(std::move(text), kTextMax);
    m.isFromMe = isInt(row.at(col->fromMe)) && *row.at(col->fromMe).int64() == 1;
    m.sentAt = isoString(e.sentAtMs);
    m.service = clipped(row.at(col->service).string().value_or(kDefaultService), kServiceMax);
    m.reaction = std::move(reaction);
    m.replyToGuid = stripAssociatedGuid(replyTarget);
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
  // `rowids` ascend and each statement orders by message id, so the entries
  // come out sorted by ROWID, as extract's look-up needs.
  for (std::size_t start = 0; start < rowids.size(); start += kAttachmentChunk) {
    const std::size_t n = std::min(kAttachmentChunk, rowids.size() - start);
    std::vector<SQLValue> params(rowids.begin() + static_cast<std::ptrdiff_t>(start),
                                 rowids.begin() + static_cast<std::ptrdiff_t>(start + n));
    std::optional<AttachmentColumns> col;
    db_->forEach(attachmentSQL(n), params, [&](const SQLRow& row) {
      if (!col) col.emplace(row);
      const SQLValue& mid = row.at(col->mid);
      if (!isInt(mid)) return;
      const auto kind = attachmentKind(row.at(col->mime).string(), row.at(col->uti).string(),
                                       row.at(col->transfer).string(),
                                       isNonZeroInteger(row.at(col->sticker)));
      if (!kind) return;
      if (kinds.empty() || kinds.back().first != *mid.int64()) {
        kinds.emplace_back(*mid.int64(), std::vector<AttachmentKind>{});
      }
      kinds.back().second.push_back(*kind);
    });
  }
  return kinds;
}

}  // namespace corvane
