#include "bench/sql_floor.h"

#include <sqlite3.h>

#include <memory>
#include <stdexcept>
#include <string_view>

#include "core/chatdb/chat_db.h"

namespace corvane::bench {
namespace {

constexpr std::size_t kAttachmentChunk = 500;

std::string placeholders(std::size_t n) {
  std::string out;
  for (std::size_t i = 0; i < n; ++i) out += i ? ",?" : "?";
  return out;
}

[[noreturn]] void fail(sqlite3* db, const std::string& what) {
  throw std::runtime_error("floor: " + what + ": " + (db ? sqlite3_errmsg(db) : "no connection"));
}

}  // namespace

std::string afterWhere(std::size_t chats) {
  return "cmj.chat_id IN (" + placeholders(chats) + ") AND m.ROWID > ? AND m.ROWID <= ?";
}

std::string sinceWhere(std::size_t chats) {
  return "cmj.chat_id IN (" + placeholders(chats) + ") AND " + appleDateToUnixMsSQL("m.date") +
         " >= ? AND m.ROWID <= ?";
}

SqlFloor::SqlFloor(const std::string& path) {
  if (sqlite3_open_v2(path.c_str(), &db_, SQLITE_OPEN_READONLY | SQLITE_OPEN_NOMUTEX, nullptr) !=
      SQLITE_OK) {
    const std::string message = db_ ? sqlite3_errmsg(db_) : "open failed";
    sqlite3_close_v2(db_);
    throw std::runtime_error("floor: can't open " + path + ": " + message);
  }
  sqlite3_busy_timeout(db_, 5000);
  if (sqlite3_exec(db_, "PRAGMA query_only = ON", nullptr, nullptr, nullptr) != SQLITE_OK) {
    fail(db_, "query_only");
  }
}

SqlFloor::~SqlFloor() { sqlite3_close_v2(db_); }

std::size_t SqlFloor::run(const std::string& sql, const std::vector<std::int64_t>& params, int keep,
                          std::vector<std::int64_t>* kept) {
  return step(sql, params, [&](sqlite3_stmt* row) {
    if (kept != nullptr && sqlite3_column_type(row, keep) == SQLITE_INTEGER) {
      kept->push_back(sqlite3_column_int64(row, keep));
    }
  });
}

template <class OnRow>
std::size_t SqlFloor::step(const std::string& sql, const std::vector<std::int64_t>& params,
                           OnRow&& onRow) {
  statements_.push_back(sql);
  sqlite3_stmt* raw = nullptr;
  if (sqlite3_prepare_v2(db_, sql.c_str(), -1, &raw, nullptr) != SQLITE_OK) fail(db_, "prepare");
  const std::unique_ptr<sqlite3_stmt, int (*)(sqlite3_stmt*)> stmt(raw, sqlite3_finalize);
  for (std::size_t i = 0; i < params.size(); ++i) {
    if (sqlite3_bind_int64(raw, static_cast<int>(i + 1), params[i]) != SQLITE_OK) fail(db_, "bind");
  }
  const int columns = sqlite3_column_count(raw);
  std::size_t rows = 0;
  int rc;
  while ((rc = sqlite3_step(raw)) == SQLITE_ROW) {
    ++rows;
    for (int c = 0; c < columns; ++c) {
      switch (sqlite3_column_type(raw, c)) {
        case SQLITE_INTEGER:
          sink_ += static_cast<std::uint64_t>(sqlite3_column_int64(raw, c));
          break;
        case SQLITE_FLOAT:
          sink_ += static_cast<std::uint64_t>(sqlite3_column_double(raw, c));
          break;
        case SQLITE_TEXT:
          sink_ += sqlite3_column_text(raw, c) != nullptr;
          sink_ += static_cast<std::uint64_t>(sqlite3_column_bytes(raw, c));
          break;
        case SQLITE_BLOB:
          sink_ += sqlite3_column_blob(raw, c) != nullptr;
          sink_ += static_cast<std::uint64_t>(sqlite3_column_bytes(raw, c));
          break;
        default:
          break;
      }
    }
    onRow(raw);
  }
  if (rc != SQLITE_DONE) fail(db_, "step");
  return rows;
}

std::size_t SqlFloor::extraction(const ChatDB& shapes, const std::string& where,
                                 const std::vector<std::int64_t>& params) {
  // The agent asks for the attachments of every row not flagged 0; a message
  // in two chats comes twice, adjacent, and is asked for once.
  std::vector<std::int64_t> ids;
  int flag = -1;
  const std::size_t rows = step(shapes.messageSQL(where), params, [&](sqlite3_stmt* row) {
    if (flag < 0) {
      for (int c = 0; c < sqlite3_column_count(row); ++c) {
        if (std::string_view(sqlite3_column_name(row, c)) == "cache_has_attachments") flag = c;
      }
    }
    const bool noFiles =
        sqlite3_column_type(row, flag) == SQLITE_INTEGER && sqlite3_column_int64(row, flag) == 0;
    const std::int64_t rowid = sqlite3_column_int64(row, 0);
    if (!noFiles && (ids.empty() || ids.back() != rowid)) ids.push_back(rowid);
  });
  for (std::size_t start = 0; start < ids.size(); start += kAttachmentChunk) {
    const std::size_t n = std::min(kAttachmentChunk, ids.size() - start);
    run(shapes.attachmentSQL(n), {ids.begin() + static_cast<std::ptrdiff_t>(start),
                                  ids.begin() + static_cast<std::ptrdiff_t>(start + n)});
  }
  return rows;
}

std::size_t SqlFloor::directory(const ChatDB& shapes, std::int64_t sinceMs) {
  run(shapes.oneToOneChatsSQL(), {});
  std::vector<std::int64_t> chats;
  run(ChatDB::directoryAggregateSQL(), {sinceMs}, 0, &chats);
  const std::string latest = shapes.latestMessageSQL();
  for (const std::int64_t chat : chats) run(latest, {chat});
  return chats.size();
}

}  // namespace corvane::bench
