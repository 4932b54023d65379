// Keeping the directory's aggregates between cycles.
//
// What makes an update exact: message ROWIDs only grow (the message table is
// AUTOINCREMENT; a database without it is read in full at every change), and
// a message's date, is_from_me, item_type and associated_message_type never
// change once written. What can change is its service, which chats it is
// joined to, and whether it exists at all. So:
//  - rows above the highest ROWID seen are new, and one statement adds them;
//  - below it, messages and join rows can only go away. The row counts of
//    both tables (which SQLite counts without reading the rows) tell whether
//    any did. When some did, each chat's join rows are counted and summed:
//    chats that lost some are read again, and a loss the lost join rows
//    don't account for one to one (a message deleted but left joined, a join
//    added to an old message) reads everything again. Not seen: as many join
//    rows of old messages added as removed within one interval with no
//    message deleted, which the Messages application does not do;
//  - the service only matters for each chat's latest message, so the
//    services of those rows are compared.
#include "core/chatdb/directory_cache.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

#include "core/chatdb/row_reading.h"

namespace corvane {
namespace {

// IN lists are cut to this many ids, well below SQLite's variable limit.
constexpr std::size_t kIdsPerStatement = 500;

// Count and sum of message ids of a chat's join rows: a chat that lost rows
// can't keep both.
struct Totals {
  std::int64_t count = 0, idSum = 0;
  bool operator==(const Totals&) const = default;
};

// Per chat, for the join rows `where` selects: their count and sum of message
// ids, and the directory's count and newest date of the messages they join.
// The left join leaves the message's columns NULL for a message that doesn't
// count (a reaction, a non-message item) or no longer exists.
std::string aggregateSQL(const std::string& where) {
  return "SELECT cmj.chat_id AS chatId, COUNT(*) AS n, SUM(cmj.message_id) AS s,\n"
         "       COUNT(m.ROWID) AS cnt, MAX(" + appleDateToUnixMsSQL("m.date") +
         ") AS lastMs\nFROM chat_message_join cmj LEFT JOIN message m ON m.ROWID = "
         "cmj.message_id\n  AND COALESCE(m.item_type, 0) = 0 AND "
         "COALESCE(m.associated_message_type, 0) = 0\nWHERE " + where + "\nGROUP BY cmj.chat_id";
}

Totals totalsOf(const SQLRow& row) {
  return {rows::integer(row["n"]).value_or(0), rows::integer(row["s"]).value_or(0)};
}

// A read transaction that ends when it goes out of scope, so no snapshot
// outlives the build.
class ReadTransaction {
 public:
  explicit ReadTransaction(SQLiteDB& db) : db_(db) { db_.exec("BEGIN"); }
  ~ReadTransaction() {
    try {
      db_.exec("ROLLBACK");
    } catch (const SQLiteError&) {
      // Nothing was written; a failed rollback leaves nothing behind.
    }
  }
  ReadTransaction(const ReadTransaction&) = delete;
  ReadTransaction& operator=(const ReadTransaction&) = delete;

 private:
  SQLiteDB& db_;
};

std::int64_t firstInteger(const std::vector<SQLRow>& rows) {
  return rows.empty() || rows.front().size() == 0 ? 0
                                                  : rows::integer(rows.front().at(0)).value_or(0);
}

template <class Fn>
void inChunks(const std::vector<std::int64_t>& ids, Fn&& fn) {
  for (std::size_t i = 0; i < ids.size(); i += kIdsPerStatement) {
    const std::size_t n = std::min(kIdsPerStatement, ids.size() - i);
    std::vector<SQLValue> params(ids.begin() + static_cast<std::ptrdiff_t>(i),
                                 ids.begin() + static_cast<std::ptrdiff_t>(i + n));
    fn(rows::placeholders(n), std::move(params));
  }
}

}  // namespace

struct DirectoryCache::State {
  struct Latest {
    std::int64_t rowid = 0;
    bool fromMe = false;
    std::optional<std::string> service;
  };
  struct Chat {
    Totals joins;  // its join rows up to lastRowId
    std::int64_t count = 0;
    SQLValue lastMs;  // as MAX() gave it: integer, real or null
    bool latestKnown = false;
    std::optional<Latest> latest;  // absent when the chat has no message that counts
  };

  std::string path;
  dev_t device = 0;
  ino_t inode = 0;
  std::unique_ptr<ChatDB> db;
  bool filled = false;
  bool rowIdsGrow = false;
  std::int64_t dataVersion = 0, schemaVersion = 0;
  // The highest message ROWID the aggregates include, the rows of message
  // and the join rows of messages up to it.
  std::int64_t lastRowId = 0;
  std::int64_t messageRows = 0, joinRows = 0;
  std::unordered_map<std::int64_t, Chat> chats;  // the one-to-one chats asked for

  // The last oneToOneChats answer and the versions read just before it: a
  // commit after those reads shows as another version next time.
  struct ChatsRead {
    std::int64_t dataVersion = 0, schemaVersion = 0;
    std::optional<std::string> region;
    std::vector<ChatDB::OneToOneChat> chats;
  };
  std::optional<ChatsRead> chatsRead;

  SQLiteDB& sql() { return db->connection(); }

  std::int64_t rowsOf(const std::string& table) {
    // Without a WHERE clause SQLite counts the smallest index's entries.
    return firstInteger(sql().query("SELECT COUNT(*) AS n FROM " + table));
  }

  // Join rows of messages up to `rowid`; rows that name a later message
  // (one deleted, or not yet written) count once it is passed.
  std::int64_t joinRowsUpTo(std::int64_t rowid) {
    return rowsOf("chat_message_join") -
           firstInteger(sql().query(
               "SELECT COUNT(*) AS n FROM chat_message_join WHERE message_id > ?", {rowid}));
  }

  // Reads `ids` afresh.
  void aggregate(const std::vector<std::int64_t>& ids) {
    for (const auto id : ids) chats[id] = Chat{};
    inChunks(ids, [&](const std::string& marks, std::vector<SQLValue> params) {
      params.emplace_back(lastRowId);
      sql().forEach(aggregateSQL("cmj.chat_id IN (" + marks + ") AND cmj.message_id <= ?"),
                    params, [&](const SQLRow& row) {
                      const auto it = chats.find(rows::integer(row["chatId"]).value_or(0));
                      if (it == chats.end()) return;
                      it->second.joins = totalsOf(row);
                      it->second.count = rows::integer(row["cnt"]).value_or(0);
                      it->second.lastMs = row["lastMs"];
                    });
    });
  }

  // Tracks exactly the chats asked for: new ones are read, others dropped.
  void track(const std::vector<ChatDB::OneToOneChat>& given) {
    std::unordered_set<std::int64_t> wanted;
    std::vector<std::int64_t> missing;
    for (const auto& c : given) {
      if (wanted.insert(c.chatId).second && !chats.contains(c.chatId)) missing.push_back(c.chatId);
    }
    std::erase_if(chats, [&](const auto& entry) { return !wanted.contains(entry.first); });
    aggregate(missing);
  }

  void fill(const std::vector<ChatDB::OneToOneChat>& given) {
    rowIdsGrow = !sql()
                      .query("SELECT 1 FROM sqlite_master WHERE type = 'table' AND name = ? AND "
                             "sql LIKE ?",
                             {"message", "%AUTOINCREMENT%"})
                      .empty();
    lastRowId = db->maxRowId();
    messageRows = rowsOf("message");
    joinRows = joinRowsUpTo(lastRowId);
    chats.clear();
    track(given);
    filled = true;
  }

  // Brings the aggregates from lastRowId to the snapshot being read. Returns
  // false when the change can't be followed exactly; the caller then reads
  // everything again.
  bool update() {
    if (!rowIdsGrow) return false;
    const std::int64_t upTo = std::max(db->maxRowId(), lastRowId);

    struct Added {
      Totals joins;
      std::int64_t count = 0;
      SQLValue lastMs;
    };
    std::unordered_map<std::int64_t, Added> added;
    std::int64_t newJoins = 0;
    sql().forEach(aggregateSQL("cmj.message_id > ? AND cmj.message_id <= ?"), {lastRowId, upTo},
                  [&](const SQLRow& row) {
                    const Totals joins = totalsOf(row);
                    newJoins += joins.count;
                    if (auto chat = rows::integer(row["chatId"])) {
                      added[*chat] = {joins, rows::integer(row["cnt"]).value_or(0), row["lastMs"]};
                    }
                  });
    const std::int64_t newMessages = firstInteger(sql().query(
        "SELECT COUNT(*) AS n FROM message WHERE ROWID > ? AND ROWID <= ?", {lastRowId, upTo}));
    const std::int64_t messagesNow = rowsOf("message"), joinsNow = joinRowsUpTo(upTo);
    const std::int64_t deleted = messageRows - (messagesNow - newMessages);
    const std::int64_t unjoined = joinRows - (joinsNow - newJoins);

    std::unordered_set<std::int64_t> reread;
    if (deleted != 0 || unjoined != 0) {
      // Each deleted message must have taken exactly its one join row along.
      if (deleted < 0 || deleted != unjoined) return false;
      std::unordered_map<std::int64_t, Totals> now;
      sql().forEach(
          "SELECT chat_id AS chatId, COUNT(*) AS n, SUM(message_id) AS s FROM chat_message_join "
          "WHERE message_id <= ? GROUP BY chat_id",
          {lastRowId}, [&](const SQLRow& row) {
            if (auto chat = rows::integer(row["chatId"])) now[*chat] = totalsOf(row);
          });
      for (const auto& [id, c] : chats) {
        const auto it = now.find(id);
        const Totals joins = it == now.end() ? Totals{} : it->second;
        if (joins == c.joins) continue;
        if (joins.count >= c.joins.count) return false;  // gained, or swapped rows
        reread.insert(id);
      }
    }

    for (const auto& [id, a] : added) {
      const auto it = chats.find(id);
      if (it == chats.end() || reread.contains(id)) continue;
      Chat& c = it->second;
      c.joins.count += a.joins.count;
      c.joins.idSum += a.joins.idSum;
      if (a.count == 0) continue;
      if (c.lastMs.kind() == SQLValue::Kind::null) {
        c.lastMs = a.lastMs;
      } else if (a.lastMs.kind() == SQLValue::Kind::null) {
        // Only undated messages arrived: the newest date stays.
      } else if (c.lastMs.kind() == SQLValue::Kind::integer &&
                 a.lastMs.kind() == SQLValue::Kind::integer) {
        c.lastMs = std::max(*c.lastMs.int64(), *a.lastMs.int64());
      } else {
        // The newest of a real and another number: let SQLite compare them.
        reread.insert(id);
        continue;
      }
      c.count += a.count;
      c.latestKnown = false;
    }
    lastRowId = upTo;
    messageRows = messagesNow;
    joinRows = joinsNow;

    if (!checkLatestServices(reread)) return false;
    aggregate({reread.begin(), reread.end()});
    return true;
  }

  // Takes in the current service of each known latest message. False when
  // one of them is gone, a change the join rows did not show.
  bool checkLatestServices(const std::unordered_set<std::int64_t>& skip) {
    if (!db->messageCols().contains("service")) return true;
    // A message joined to two chats can be the latest of both.
    std::unordered_map<std::int64_t, std::vector<Latest*>> byRowId;
    for (auto& [id, c] : chats) {
      if (c.latestKnown && c.latest && !skip.contains(id)) {
        byRowId[c.latest->rowid].push_back(&*c.latest);
      }
    }
    std::vector<std::int64_t> rowids;
    for (const auto& [rowid, _] : byRowId) rowids.push_back(rowid);
    std::size_t found = 0;
    inChunks(rowids, [&](const std::string& marks, std::vector<SQLValue> params) {
      sql().forEach("SELECT ROWID AS rowid, service FROM message WHERE ROWID IN (" + marks + ")",
                    params, [&](const SQLRow& row) {
                      const auto it = byRowId.find(rows::integer(row["rowid"]).value_or(0));
                      if (it == byRowId.end()) return;
                      for (Latest* latest : it->second) latest->service = row["service"].string();
                      ++found;
                    });
    });
    return found == byRowId.size();
  }

  // The directory, after bringing the aggregates up to date, all in one
  // snapshot. Absent when the schema changed since the aggregates were read.
  std::optional<std::vector<DirectoryEntry>> directory(
      std::int64_t sinceMs, const ContactBook& contacts, const std::set<std::string>& exclude,
      const std::vector<ChatDB::OneToOneChat>& given, Refresh& refresh) {
    ReadTransaction transaction(sql());
    // Read inside the transaction, so they describe the snapshot read below.
    const std::int64_t nowData = firstInteger(sql().query("PRAGMA data_version"));
    const std::int64_t nowSchema = firstInteger(sql().query("PRAGMA schema_version"));
    if (filled && nowSchema != schemaVersion) return std::nullopt;
    if (!filled) {
      fill(given);
      refresh = Refresh::full;
    } else if (nowData != dataVersion) {
      refresh = Refresh::incremental;
      if (!update()) {
        fill(given);
        refresh = Refresh::full;
      }
    } else {
      refresh = Refresh::unchanged;
    }
    dataVersion = nowData;
    schemaVersion = nowSchema;
    track(given);

    // The chats in the directory's order: its statement groups by chat id.
    std::vector<const ChatDB::OneToOneChat*> ordered;
    ordered.reserve(given.size());
    for (const auto& c : given) ordered.push_back(&c);
    std::sort(ordered.begin(), ordered.end(),
              [](const auto* a, const auto* b) { return a->chatId < b->chatId; });

    std::vector<ChatDB::ChatActivity> active;
    for (const auto* chat : ordered) {
      if (!chat->handle || exclude.contains(*chat->handle)) continue;
      const auto it = chats.find(chat->chatId);
      if (it == chats.end()) continue;
      Chat& c = it->second;
      const auto lastMs = rows::integer(c.lastMs);
      if (c.count == 0 || !lastMs || *lastMs < sinceMs) continue;
      if (!c.latestKnown) {
        c.latest = latestOf(chat->chatId);
        c.latestKnown = true;
      }
      ChatDB::ChatActivity a{chat, *lastMs, c.count, false, std::nullopt};
      if (c.latest) {
        a.lastFromMe = c.latest->fromMe;
        a.latestService = c.latest->service;
      }
      active.push_back(std::move(a));
    }
    return ChatDB::directoryEntries(active, contacts);
  }

  // The latest message of a chat, as the directory's statement finds it.
  std::optional<Latest> latestOf(std::int64_t chatId) {
    // The directory's statement with the message's ROWID in front.
    const std::string sqlText = "SELECT m.ROWID AS rowid, " +
                                db->latestMessageSQL().substr(std::string_view("SELECT ").size());
    const auto rows = sql().query(sqlText, {chatId});
    if (rows.empty()) return std::nullopt;
    return Latest{rows::integer(rows.front()["rowid"]).value_or(0),
                  rows::integer(rows.front()["fromMe"]) == 1, rows.front()["service"].string()};
  }
};

DirectoryCache::DirectoryCache() = default;
DirectoryCache::~DirectoryCache() = default;

void DirectoryCache::clear() {
  std::lock_guard lock(mutex_);
  state_.reset();
  lastRefresh_.reset();
}

std::optional<DirectoryCache::Refresh> DirectoryCache::lastRefresh() const {
  std::lock_guard lock(mutex_);
  return lastRefresh_;
}

std::vector<ChatDB::OneToOneChat> DirectoryCache::oneToOneChats(const std::string& path,
                                                                ChatDB& reader) {
  std::lock_guard lock(mutex_);
  // A failure leaves no answer behind (it is dropped before the read), so
  // the rest of the cache stays as it was.
  State& state = stateFor(path);
  const std::int64_t dataVersion = firstInteger(state.sql().query("PRAGMA data_version"));
  const std::int64_t schemaVersion = firstInteger(state.sql().query("PRAGMA schema_version"));
  const auto& last = state.chatsRead;
  if (last && last->dataVersion == dataVersion && last->schemaVersion == schemaVersion &&
      last->region == reader.region()) {
    return last->chats;
  }
  state.chatsRead.reset();
  auto chats = reader.oneToOneChats();
  state.chatsRead = State::ChatsRead{dataVersion, schemaVersion, reader.region(), chats};
  return chats;
}

std::vector<DirectoryEntry> DirectoryCache::buildDirectory(
    const std::string& path, std::int64_t sinceMs, const ContactBook& contacts,
    const std::set<std::string>& exclude, const std::vector<ChatDB::OneToOneChat>& chats) {
  std::lock_guard lock(mutex_);
  try {
    return build(path, sinceMs, contacts, exclude, chats);
  } catch (...) {
    // Part of an update may have been applied.
    state_.reset();
    lastRefresh_.reset();
    throw;
  }
}

std::unique_ptr<DirectoryCache::State> DirectoryCache::fresh(const std::string& path) {
  // The identity is taken before opening: if the file is replaced in between,
  // the next build sees another identity and starts over.
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) throw ChatDB::statError(path, errno);
  auto state = std::make_unique<State>();
  state->path = path;
  state->device = st.st_dev;
  state->inode = st.st_ino;
  state->db = std::make_unique<ChatDB>(path, std::nullopt);
  return state;
}

DirectoryCache::State& DirectoryCache::stateFor(const std::string& path) {
  if (state_) {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) throw ChatDB::statError(path, errno);
    if (state_->path != path || state_->device != st.st_dev || state_->inode != st.st_ino) {
      state_.reset();
    }
  }
  if (!state_) state_ = fresh(path);
  return *state_;
}

std::vector<DirectoryEntry> DirectoryCache::build(const std::string& path, std::int64_t sinceMs,
                                                  const ContactBook& contacts,
                                                  const std::set<std::string>& exclude,
                                                  const std::vector<ChatDB::OneToOneChat>& chats) {
  stateFor(path);
  Refresh refresh = Refresh::full;
  auto entries = state_->directory(sinceMs, contacts, exclude, chats, refresh);
  if (!entries) {
    // The schema changed, and with it maybe the columns the statements name.
    state_ = fresh(path);
    entries = state_->directory(sinceMs, contacts, exclude, chats, refresh);
  }
  lastRefresh_ = refresh;
  // The pages stay in the system's file cache; the connection sits idle
  // until the next cycle, which reads the few it needs again.
  state_->sql().releaseMemory();
  return std::move(*entries);
}

}  // namespace corvane
