// The thin synchronous wrapper over the SQLite C library. Nothing above it
// touches sqlite3_* directly. Every failure is a thrown SQLiteError.
//
// A connection is opened without SQLite's own mutex: one SQLiteDB may be used
// by one thread at a time.
#pragma once

#include <cstdint>
#include <exception>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "core/chatdb/sql_value.h"

struct sqlite3;
struct sqlite3_stmt;

namespace corvane {

class SQLiteError : public std::exception {
 public:
  SQLiteError(int code, std::string message);

  int code() const { return code_; }
  const std::string& message() const { return message_; }
  // "SQLite error <code>: <message>".
  const std::string& description() const { return description_; }
  const char* what() const noexcept override { return description_.c_str(); }

  // True when the failure looks like the operating system refusing access
  // rather than a broken or locked database: primary code PERM, AUTH or
  // CANTOPEN, or a message that says so (a protected file may fail with
  // either, depending on where the refusal happens).
  bool isPermission() const;

  bool operator==(const SQLiteError& o) const { return code_ == o.code_ && message_ == o.message_; }

 private:
  int code_;
  std::string message_;
  std::string description_;
};

// The row a statement stands on, read in place: what forEach would copy into
// an SQLRow, viewed in SQLite's own buffers until the next step.
class SQLiteRowView {
 public:
  SQLiteRowView(sqlite3_stmt* stmt, const std::vector<std::string>& names)
      : stmt_(stmt), names_(&names), repaired_(names.size()) {}

  // Column `i` (< size()); invalid UTF-8 text reads repaired, as in SQLRow.
  SQLCell at(std::size_t i) const;
  std::size_t size() const { return names_->size(); }
  const std::vector<std::string>& names() const { return *names_; }
  // Index of the named column (the last one when a name repeats).
  std::optional<std::size_t> indexOf(std::string_view name) const;

 private:
  sqlite3_stmt* stmt_;
  const std::vector<std::string>* names_;
  mutable std::vector<std::string> repaired_;  // per column, for the rare broken text
};

class SQLiteDB {
 public:
  // Opens `path`: read-only, or read-write (created when `create`). Busy
  // timeout 5000 ms so that reads wait out the database's writer.
  SQLiteDB(std::string path, bool readOnly, bool create = false);
  ~SQLiteDB();
  SQLiteDB(const SQLiteDB&) = delete;
  SQLiteDB& operator=(const SQLiteDB&) = delete;

  const std::string& path() const { return path_; }
  bool isOpen() const { return db_ != nullptr; }

  // Runs statements whose rows are not wanted (pragmas, schema).
  void exec(const std::string& sql);

  // Prepares, binds `params` to positions 1, 2, ..., steps to the end and
  // returns every row in step order.
  std::vector<SQLRow> query(const std::string& sql, const std::vector<SQLValue>& params = {});

  // Like query, but hands each row to `onRow` as it is stepped instead of
  // collecting them. The row object is reused between calls.
  void forEach(const std::string& sql, const std::vector<SQLValue>& params,
               const std::function<void(const SQLRow&)>& onRow);
  // Like forEach, without copying: `onRow` reads the columns it needs where
  // SQLite holds them. For readers of many rows.
  void forEachInPlace(const std::string& sql, const std::vector<SQLValue>& params,
                      const std::function<void(const SQLiteRowView&)>& onRow);

  // Runs `sql` and returns the connection's last inserted rowid.
  std::int64_t run(const std::string& sql, const std::vector<SQLValue>& params = {});

  // The column names of `table` (a fixed name, spliced verbatim); empty when
  // the table is missing or unreadable. Never throws.
  std::set<std::string> columns(const std::string& table);

  // Frees the page cache and whatever else the connection can do without
  // until its next statement; for a connection kept open between uses.
  void releaseMemory();

  // Closes the connection; later closes do nothing, queries fail with "closed"
  // and exec with "exec failed".
  void close();

  // Called with the text of every statement prepared from now on; lets tests
  // and benchmarks count what a reader really runs.
  using StatementObserver = std::function<void(const std::string& sql)>;
  void setStatementObserver(StatementObserver observer) { observer_ = std::move(observer); }

 private:
  std::string path_;
  sqlite3* db_ = nullptr;
  StatementObserver observer_;
};

}  // namespace corvane
