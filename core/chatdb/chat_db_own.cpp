// The user's own handles, notes-to-self rows and outgoing rows.
#include <algorithm>
#include <unordered_set>

#include "core/chatdb/chat_db.h"
#include "core/chatdb/row_reading.h"
#include "core/contacts/phone.h"
#include "core/text/unicode.h"

namespace corvane {
namespace {

constexpr std::int64_t kDayMs = 86400000;
constexpr std::size_t kHandleMax = 320;

bool containsWhitespace(std::string_view s) {
  for (std::size_t i = 0; i < s.size();) {
    if (isWhitespaceOrNewline(decodeUTF8At(s, i))) return true;
  }
  return false;
}

// Normalisation also yields bare digits and odd e-mail shapes; only real
// addresses and international numbers are the user's own handles.
bool isPlausibleHandle(std::string_view h) {
  if (const auto at = h.find('@'); at != std::string_view::npos) {
    return at > 0 && at + 1 < h.size() && h.find('@', at + 1) == std::string_view::npos &&
           !containsWhitespace(h);
  }
  if (!h.starts_with('+')) return false;
  std::size_t count = 0;
  for (std::size_t i = 1; i < h.size(); ++count) {
    if (!isDecimalDigit(decodeUTF8At(h, i))) return false;
  }
  return count >= 7 && count <= 15;
}

}  // namespace

std::string ChatDB::ownHandlesSQL(const std::string& column) {
  return "SELECT DISTINCT m." + column + " AS v FROM message m\nWHERE m.date >= ? AND m." + column +
         " IS NOT NULL AND m." + column + " != ''";
}

std::vector<std::string> ChatDB::ownHandles(std::int64_t sinceMs, int max) {
  std::vector<std::string> values;
  for (const char* column : {"destination_caller_id", "account"}) {
    if (!messageCols_.contains(column)) continue;
    // Compared with the raw date: on databases that count seconds the period
    // is empty, which is accepted.
    db_->forEach(ownHandlesSQL(column), {toAppleNanos(sinceMs)}, [&](const SQLRow& row) {
      if (auto v = row["v"].string()) values.push_back(std::move(*v));
    });
  }
  return ownHandles(values, region_, max);
}

std::vector<std::string> ChatDB::ownHandles(const std::vector<std::string>& values,
                                            const std::optional<std::string>& region, int max) {
  std::vector<std::string> handles;
  std::unordered_set<std::string> seen;
  for (const auto& raw : values) {
    if (static_cast<int>(handles.size()) >= max) break;
    std::string_view value = trimWhitespace(raw);
    // Account values carry a kind letter: "E:alex@example.org", "P:+1415...".
    if (value.size() >= 2 && value[1] == ':' &&
        (value[0] == 'e' || value[0] == 'E' || value[0] == 'p' || value[0] == 'P')) {
      value.remove_prefix(2);
    }
    auto handle = Phone::normalize(value, region);
    if (!handle || utf16Length(*handle) > kHandleMax || !isPlausibleHandle(*handle)) continue;
    if (seen.insert(*handle).second) handles.push_back(std::move(*handle));
  }
  return handles;
}

std::optional<std::vector<std::string>> ChatDB::detectOwnHandles(
    const std::string& path, const std::optional<std::string>& region, std::int64_t lookbackDays,
    std::int64_t now) {
  try {
    ChatDB db(path, region);
    return db.ownHandles(now - lookbackDays * kDayMs, ownHandlesMax);
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

std::vector<ChatDB::SelfRow> ChatDB::selfRows(const std::vector<std::int64_t>& chatIds,
                                              std::int64_t cursor, std::int64_t upTo) {
  if (chatIds.empty() || upTo <= cursor) return {};
  std::vector<SQLValue> params(chatIds.begin(), chatIds.end());
  params.emplace_back(cursor);
  params.emplace_back(upTo);
  const std::string sql = messageSQL("cmj.chat_id IN (" + rows::placeholders(chatIds.size()) +
                                     ") AND m.ROWID > ? AND m.ROWID <= ?");

  std::vector<SelfRow> out;
  std::unordered_set<std::int64_t> seen;
  db_->forEach(sql, params, [&](const SQLRow& row) {
    const auto rowid = rows::integer(row["rowid"]);
    if (!rowid || !seen.insert(*rowid).second) return;  // once, even if in several chats
    if (rows::isNonZeroInteger(row["item_type"]) || rows::isNonZeroInteger(row["amt"])) return;
    const auto sentMs = rows::integer(row["sent_ms"]);
    if (!sentMs) return;
    std::string text = extractMessageText(row["text"], row["attributedBody"]);
    if (text.empty()) return;
    auto guid = row["guid"].string();
    if (!guid || guid->empty()) return;
    out.push_back(SelfRow{.rowid = *rowid,
                          .guid = std::move(*guid),
                          .text = std::move(text),
                          .isFromMe = rows::integer(row["is_from_me"]) == 1,
                          .sentAtMs = *sentMs,
                          .error = rows::integer(row["error"]).value_or(0)});
  });
  return out;
}

std::string ChatDB::outgoingSQL() const {
  return "SELECT m.ROWID AS rowid, m.text AS text, " + messageItem("attributedBody") + ", " +
         messageItem("error") + ", " + messageItem("service") +
         "\nFROM message m WHERE m.ROWID > ? AND m.is_from_me = 1 ORDER BY m.ROWID";
}

std::vector<ChatDB::OutgoingRow> ChatDB::outgoingAfter(std::int64_t rowid) {
  std::vector<OutgoingRow> out;
  db_->forEach(outgoingSQL(), {rowid}, [&](const SQLRow& row) {
    const auto id = rows::integer(row["rowid"]);
    if (!id) return;
    out.push_back(OutgoingRow{.rowid = *id,
                              .text = extractMessageText(row["text"], row["attributedBody"]),
                              .error = rows::integer(row["error"]).value_or(0),
                              .service = row["service"].string()});
  });
  return out;
}

}  // namespace corvane
