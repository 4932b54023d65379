// One-to-one chats, the roster chat map and the directory of correspondents.
#include <algorithm>
#include <unordered_map>
#include <unordered_set>

#include "core/chatdb/chat_db.h"
#include "core/chatdb/row_reading.h"
#include "core/contacts/phone.h"
#include "core/protocol/iso_time.h"
#include "core/text/unicode.h"

namespace corvane {
namespace {

// A chat is one-to-one when it has exactly one distinct handle and is not a
// group (style 43); a missing style counts as 45.
constexpr const char* kOneToOne =
    "  o2o AS (\n"
    "    SELECT c.ROWID AS chat_id, MIN(chj.handle_id) AS handle_rowid\n"
    "    FROM chat c\n"
    "    JOIN chat_handle_join chj ON chj.chat_id = c.ROWID\n"
    "    GROUP BY c.ROWID\n"
    "    HAVING COUNT(DISTINCT chj.handle_id) = 1 AND COALESCE(c.style, 45) != 43\n"
    "  )";

constexpr std::size_t kDisplayNameMax = 200;
constexpr std::size_t kNamePartMax = 100;
constexpr std::size_t kServiceMax = 20;
constexpr const char* kDefaultService = "iMessage";

std::string upperASCII(std::string s) {
  for (char& c : s) {
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  }
  return s;
}

std::optional<std::string> clipped(const std::optional<std::string>& s, std::size_t max) {
  if (!s) return std::nullopt;
  return clipUTF16(*s, max);
}

std::optional<std::string> nonEmpty(std::optional<std::string> s) {
  if (s && s->empty()) return std::nullopt;
  return s;
}

struct Correspondent {
  std::int64_t lastMs = 0;
  bool lastFromMe = false;
  std::string service;
  std::int64_t count = 0;
};

}  // namespace

std::string ChatDB::oneToOneChatsSQL() const {
  const std::string country = handleCols_.contains("country") ? "h.country" : "NULL";
  return std::string("WITH ") + kOneToOne +
         "\nSELECT o.chat_id AS chatId, o.handle_rowid AS handleRowId, h.id AS rawHandle,\n       " +
         country +
         " AS country, c.service_name AS service\nFROM o2o o JOIN handle h ON h.ROWID = "
         "o.handle_rowid JOIN chat c ON c.ROWID = o.chat_id";
}

std::string ChatDB::directoryAggregateSQL() {
  return std::string("WITH ") + kOneToOne +
         "\nSELECT o.chat_id AS chatId, COUNT(m.ROWID) AS cnt, MAX(" +
         appleDateToUnixMsSQL("m.date") +
         ") AS lastMs\nFROM o2o o\nJOIN chat_message_join cmj ON cmj.chat_id = o.chat_id\nJOIN "
         "message m ON m.ROWID = cmj.message_id\nWHERE COALESCE(m.item_type, 0) = 0 AND "
         "COALESCE(m.associated_message_type, 0) = 0\nGROUP BY o.chat_id\nHAVING lastMs >= ?";
}

std::string ChatDB::latestMessageSQL() const {
  const std::string service =
      messageCols_.contains("service") ? "m.service AS service" : "NULL AS service";
  return "SELECT m.is_from_me AS fromMe, " + service +
         "\nFROM chat_message_join cmj JOIN message m ON m.ROWID = cmj.message_id\nWHERE "
         "cmj.chat_id = ? AND COALESCE(m.item_type, 0) = 0 AND "
         "COALESCE(m.associated_message_type, 0) = 0\nORDER BY m.date DESC, m.ROWID DESC LIMIT 1";
}

std::vector<ChatDB::OneToOneChat> ChatDB::oneToOneChats() {
  // Resolved once: an absent region means the detected one for every row.
  const std::string fallbackRegion = region_ && !region_->empty() ? *region_ : Phone::detectRegion();
  std::vector<OneToOneChat> chats;
  db_->forEach(oneToOneChatsSQL(), {}, [&](const SQLRow& row) {
    OneToOneChat chat;
    chat.chatId = rows::integer(row["chatId"]).value_or(0);
    chat.handleRowId = rows::integer(row["handleRowId"]).value_or(0);
    chat.rawHandle = row["rawHandle"].string().value_or("");
    chat.service = row["service"].string();
    const auto country = row["country"].string();
    const std::string region = country && !country->empty() ? upperASCII(*country) : fallbackRegion;
    chat.handle = Phone::normalize(chat.rawHandle, region);
    chats.push_back(std::move(chat));
  });
  return chats;
}

ChatDB::ChatMap ChatDB::chatsForHandles(const std::vector<std::string>& handles,
                                        const std::optional<std::vector<OneToOneChat>>& chats) {
  std::unordered_set<std::string> exact(handles.begin(), handles.end());
  std::unordered_map<std::string, std::string> byLast10;
  for (const auto& h : handles) {
    if (Phone::isEmail(h)) continue;
    if (auto key = Phone::last10(h)) byLast10.emplace(std::move(*key), h);  // first wins
  }

  const std::vector<OneToOneChat> read = chats ? std::vector<OneToOneChat>{} : oneToOneChats();
  ChatMap map;
  for (const auto& chat : chats ? *chats : read) {
    if (!chat.handle) continue;
    if (exact.contains(*chat.handle)) {
      map[chat.chatId] = *chat.handle;
    } else if (!Phone::isEmail(*chat.handle)) {
      const auto key = Phone::last10(*chat.handle);
      const auto it = key ? byLast10.find(*key) : byLast10.end();
      if (it != byLast10.end()) map[chat.chatId] = it->second;
    }
  }
  return map;
}

std::vector<DirectoryEntry> ChatDB::buildDirectory(std::int64_t sinceMs,
                                                   const ContactBook& contacts,
                                                   const std::set<std::string>& exclude,
                                                   const std::vector<OneToOneChat>* given) {
  const std::vector<OneToOneChat> read = given ? std::vector<OneToOneChat>{} : oneToOneChats();
  std::unordered_map<std::int64_t, const OneToOneChat*> chats;
  for (const auto& chat : given ? *given : read) chats.emplace(chat.chatId, &chat);

  struct Aggregate {
    const OneToOneChat* chat;
    std::int64_t lastMs;
    std::int64_t count;
  };
  std::vector<Aggregate> aggregates;
  db_->forEach(directoryAggregateSQL(), {sinceMs}, [&](const SQLRow& row) {
    const auto chatId = rows::integer(row["chatId"]);
    const auto lastMs = rows::integer(row["lastMs"]);
    const auto it = chatId ? chats.find(*chatId) : chats.end();
    if (it == chats.end() || !it->second->handle || exclude.contains(*it->second->handle) ||
        !lastMs) {
      return;
    }
    aggregates.push_back({it->second, *lastMs, rows::integer(row["cnt"]).value_or(0)});
  });

  std::vector<ChatActivity> active;
  active.reserve(aggregates.size());
  const std::string latestSQL = latestMessageSQL();
  for (const auto& a : aggregates) {
    ChatActivity chat{a.chat, a.lastMs, a.count, false, std::nullopt};
    const auto latest = db_->query(latestSQL, {a.chat->chatId});
    if (!latest.empty()) {
      chat.lastFromMe = rows::integer(latest.front()["fromMe"]) == 1;
      chat.latestService = latest.front()["service"].string();
    }
    active.push_back(std::move(chat));
  }
  return directoryEntries(active, contacts);
}

std::vector<DirectoryEntry> ChatDB::directoryEntries(const std::vector<ChatActivity>& active,
                                                     const ContactBook& contacts) {
  // Merge chats of one handle (iMessage and SMS) in the order they came.
  std::vector<std::string> order;
  std::unordered_map<std::string, Correspondent> byHandle;
  for (const auto& a : active) {
    Correspondent c{a.lastMs, a.lastFromMe, nonEmpty(a.latestService).value_or(""), a.count};
    if (c.service.empty()) c.service = nonEmpty(a.chat->service).value_or(kDefaultService);

    const std::string& handle = *a.chat->handle;
    auto [it, inserted] = byHandle.try_emplace(handle, c);
    if (inserted) {
      order.push_back(handle);
      continue;
    }
    Correspondent& merged = it->second;
    merged.count += c.count;
    if (c.lastMs > merged.lastMs) {
      merged.lastMs = c.lastMs;
      merged.lastFromMe = c.lastFromMe;
      merged.service = std::move(c.service);
    }
  }

  std::vector<DirectoryEntry> entries;
  entries.reserve(order.size());
  for (const auto& handle : order) {
    const Correspondent& c = byHandle.at(handle);
    const auto name = contacts.lookup(handle);
    entries.push_back(DirectoryEntry{
        .handle = handle,
        .displayName = name ? clipped(name->displayName, kDisplayNameMax) : std::nullopt,
        .firstName = name ? clipped(name->firstName, kNamePartMax) : std::nullopt,
        .lastName = name ? clipped(name->lastName, kNamePartMax) : std::nullopt,
        .nickname = name ? clipped(name->nickname, kNamePartMax) : std::nullopt,
        .service = clipUTF16(c.service, kServiceMax),
        .lastMessageAt = isoString(c.lastMs),
        .lastFromMe = c.lastFromMe,
        .messageCount = c.count,
    });
  }
  std::sort(entries.begin(), entries.end(), [](const DirectoryEntry& a, const DirectoryEntry& b) {
    if (a.lastMessageAt != b.lastMessageAt) return a.lastMessageAt > b.lastMessageAt;
    return a.handle < b.handle;
  });
  return entries;
}

}  // namespace corvane
