// The floor: the statements the agent runs, stepped with the raw SQLite C
// API on a connection opened as the agent opens it, reading every column of
// every row and doing nothing else. Whatever an agent operation costs above
// its floor is the agent's own work.
//
// This is the one place outside core/chatdb that calls sqlite3_* directly;
// going through SQLiteDB would charge the floor with the very row handling
// being measured.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct sqlite3;
struct sqlite3_stmt;

namespace corvane {
class ChatDB;
}

namespace corvane::bench {

class SqlFloor {
 public:
  // Opens `path` read-only with query_only on and the agent's busy timeout.
  explicit SqlFloor(const std::string& path);
  ~SqlFloor();
  SqlFloor(const SqlFloor&) = delete;
  SqlFloor& operator=(const SqlFloor&) = delete;

  // Steps `sql` with `params` bound to 1, 2, ..., reading every column. When
  // `keep` is a column index, that column's integer of each row is appended
  // to `kept`. Returns the number of rows. Throws std::runtime_error.
  std::size_t run(const std::string& sql, const std::vector<std::int64_t>& params, int keep = -1,
                  std::vector<std::int64_t>* kept = nullptr);

  // messagesAfter / messagesSince: the message statement with `where`, then
  // the attachment statements, 500 ids each, for the rows whose
  // cache_has_attachments is not 0. Returns the message rows.
  std::size_t extraction(const ChatDB& shapes, const std::string& where,
                         const std::vector<std::int64_t>& params);
  // buildDirectory: the one-to-one chats, the aggregate, and the latest
  // message of each chat the aggregate returned.
  std::size_t directory(const ChatDB& shapes, std::int64_t sinceMs);

  // Every statement text run so far, in order; for checking that the floor
  // runs exactly what the agent runs.
  const std::vector<std::string>& statements() const { return statements_; }
  void clearStatements() { statements_.clear(); }

  // Bytes and values read, so that the reads can't be optimised away.
  std::uint64_t sink() const { return sink_; }

 private:
  template <class OnRow>
  std::size_t step(const std::string& sql, const std::vector<std::int64_t>& params, OnRow&& onRow);

  sqlite3* db_ = nullptr;
  std::vector<std::string> statements_;
  std::uint64_t sink_ = 0;
};

// The WHERE clauses of messagesAfter and messagesSince for `chats` chat ids.
std::string afterWhere(std::size_t chats);
std::string sinceWhere(std::size_t chats);

}  // namespace corvane::bench
