#include "core/chatdb/sqlite_db.h"

#include <sqlite3.h>

#include <algorithm>
#include <memory>

#include "core/text/unicode.h"

namespace corvane {
namespace {

constexpr int kBusyTimeoutMs = 5000;

struct StatementCloser {
  void operator()(sqlite3_stmt* s) const { sqlite3_finalize(s); }
};
using Statement = std::unique_ptr<sqlite3_stmt, StatementCloser>;

[[noreturn]] void fail(sqlite3* db, int rc) {
  throw SQLiteError(rc, db ? sqlite3_errmsg(db) : "closed");
}

void bind(sqlite3* db, sqlite3_stmt* stmt, int pos, const SQLValue& v) {
  int rc = SQLITE_OK;
  switch (v.kind()) {
    case SQLValue::Kind::integer:
      rc = sqlite3_bind_int64(stmt, pos, *v.int64());
      break;
    case SQLValue::Kind::real:
      rc = sqlite3_bind_double(stmt, pos, *v.realIf());
      break;
    case SQLValue::Kind::text:
      rc = sqlite3_bind_text(stmt, pos, v.textIf()->c_str(), -1, SQLITE_TRANSIENT);
      break;
    case SQLValue::Kind::blob: {
      // An empty span has no data pointer, which SQLite would bind as NULL.
      const auto bytes = *v.data();
      rc = bytes.empty()
               ? sqlite3_bind_zeroblob(stmt, pos, 0)
               : sqlite3_bind_blob64(stmt, pos, bytes.data(), bytes.size(), SQLITE_TRANSIENT);
      break;
    }
    case SQLValue::Kind::null:
      rc = sqlite3_bind_null(stmt, pos);
      break;
  }
  if (rc != SQLITE_OK) fail(db, rc);
}

// Reads column `i` into `out`, reusing its storage where the kind matches.
void readColumn(const SQLiteRowView& row, std::size_t i, SQLValue& out) {
  const SQLCell cell = row.at(i);
  switch (cell.kind) {
    case SQLValue::Kind::integer:
      out = SQLValue(cell.integer);
      return;
    case SQLValue::Kind::real:
      out = SQLValue(cell.real);
      return;
    case SQLValue::Kind::text:
      out.assignText(cell.text);
      return;
    case SQLValue::Kind::blob:
      out.assignBlob(cell.blob.data(), cell.blob.size());
      return;
    case SQLValue::Kind::null:
      out = SQLValue();
  }
}

}  // namespace

SQLCell SQLiteRowView::at(std::size_t i) const {
  const int c = static_cast<int>(i);
  SQLCell cell;
  switch (sqlite3_column_type(stmt_, c)) {
    case SQLITE_INTEGER:
      cell.kind = SQLValue::Kind::integer;
      cell.integer = sqlite3_column_int64(stmt_, c);
      break;
    case SQLITE_FLOAT:
      cell.kind = SQLValue::Kind::real;
      cell.real = sqlite3_column_double(stmt_, c);
      break;
    case SQLITE_TEXT: {
      const auto* p = reinterpret_cast<const char*>(sqlite3_column_text(stmt_, c));
      if (p == nullptr) break;
      cell.kind = SQLValue::Kind::text;
      cell.text = std::string_view(p, static_cast<std::size_t>(sqlite3_column_bytes(stmt_, c)));
      // Another program writes this database: repair broken UTF-8 here so that
      // every string above this layer is well-formed.
      if (!isValidUTF8(cell.text)) {
        repaired_[i] = repairUTF8(cell.text);
        cell.text = repaired_[i];
      }
      break;
    }
    case SQLITE_BLOB: {
      const auto* p = static_cast<const std::uint8_t*>(sqlite3_column_blob(stmt_, c));
      const int n = sqlite3_column_bytes(stmt_, c);
      cell.kind = SQLValue::Kind::blob;
      cell.blob = {p, p && n > 0 ? static_cast<std::size_t>(n) : 0};
      break;
    }
    default:
      break;
  }
  return cell;
}

std::optional<std::size_t> SQLiteRowView::indexOf(std::string_view name) const {
  for (std::size_t i = names_->size(); i-- > 0;) {
    if ((*names_)[i] == name) return i;
  }
  return std::nullopt;
}

SQLiteError::SQLiteError(int code, std::string message)
    : code_(code),
      message_(std::move(message)),
      description_("SQLite error " + std::to_string(code_) + ": " + message_) {}

bool SQLiteError::isPermission() const {
  const int primary = code_ & 0xFF;
  if (primary == SQLITE_PERM || primary == SQLITE_AUTH || primary == SQLITE_CANTOPEN) return true;
  const std::string lower = lowercased(message_);
  for (const char* phrase :
       {"authorization denied", "unable to open database", "operation not permitted"}) {
    if (lower.find(phrase) != std::string::npos) return true;
  }
  return false;
}

SQLiteDB::SQLiteDB(std::string path, bool readOnly, bool create) : path_(std::move(path)) {
  int flags = SQLITE_OPEN_NOMUTEX;
  if (readOnly) {
    flags |= SQLITE_OPEN_READONLY;
  } else {
    flags |= SQLITE_OPEN_READWRITE | (create ? SQLITE_OPEN_CREATE : 0);
  }
  sqlite3* db = nullptr;
  const int rc = sqlite3_open_v2(path_.c_str(), &db, flags, nullptr);
  if (rc != SQLITE_OK) {
    if (db == nullptr) throw SQLiteError(rc, "open failed");
    const int extended = sqlite3_extended_errcode(db);
    SQLiteError error(extended != 0 ? extended : rc, sqlite3_errmsg(db));
    sqlite3_close_v2(db);
    throw error;
  }
  db_ = db;
  sqlite3_busy_timeout(db_, kBusyTimeoutMs);
}

SQLiteDB::~SQLiteDB() { close(); }

void SQLiteDB::close() {
  if (db_ != nullptr) {
    sqlite3_close_v2(db_);
    db_ = nullptr;
  }
}

void SQLiteDB::releaseMemory() {
  if (db_ != nullptr) sqlite3_db_release_memory(db_);
}

void SQLiteDB::exec(const std::string& sql) {
  // As sqlite3_exec answers a closed (null) connection: MISUSE with no text.
  if (db_ == nullptr) throw SQLiteError(SQLITE_MISUSE, "exec failed");
  char* error = nullptr;
  const int rc = sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, &error);
  if (rc != SQLITE_OK) {
    std::string message = error ? error : "exec failed";
    sqlite3_free(error);
    throw SQLiteError(rc, std::move(message));
  }
}

void SQLiteDB::forEachInPlace(const std::string& sql, const std::vector<SQLValue>& params,
                              const std::function<void(const SQLiteRowView&)>& onRow) {
  if (db_ == nullptr) throw SQLiteError(SQLITE_MISUSE, "closed");
  if (observer_) observer_(sql);
  sqlite3_stmt* raw = nullptr;
  const int rc = sqlite3_prepare_v2(db_, sql.c_str(), -1, &raw, nullptr);
  Statement stmt(raw);
  if (rc != SQLITE_OK) fail(db_, rc);
  if (!stmt) fail(db_, SQLITE_MISUSE);  // empty or comment-only SQL

  for (std::size_t i = 0; i < params.size(); ++i) {
    bind(db_, stmt.get(), static_cast<int>(i + 1), params[i]);
  }

  const int count = sqlite3_column_count(stmt.get());
  std::vector<std::string> names;
  names.reserve(static_cast<std::size_t>(count));
  for (int i = 0; i < count; ++i) {
    const char* name = sqlite3_column_name(stmt.get(), i);
    names.emplace_back(name ? name : "");
  }
  const SQLiteRowView row(stmt.get(), names);

  for (;;) {
    const int step = sqlite3_step(stmt.get());
    if (step == SQLITE_DONE) return;
    if (step != SQLITE_ROW) fail(db_, step);
    onRow(row);
  }
}

void SQLiteDB::forEach(const std::string& sql, const std::vector<SQLValue>& params,
                       const std::function<void(const SQLRow&)>& onRow) {
  SQLRow row;
  bool named = false;
  forEachInPlace(sql, params, [&](const SQLiteRowView& view) {
    if (!named) {
      row = SQLRow(std::make_shared<const std::vector<std::string>>(view.names()),
                   std::vector<SQLValue>(view.size()));
      named = true;
    }
    auto& values = row.mutableValues();
    for (std::size_t i = 0; i < values.size(); ++i) readColumn(view, i, values[i]);
    onRow(row);
  });
}

std::vector<SQLRow> SQLiteDB::query(const std::string& sql, const std::vector<SQLValue>& params) {
  std::vector<SQLRow> rows;
  forEach(sql, params, [&](const SQLRow& row) { rows.push_back(row); });
  return rows;
}

std::int64_t SQLiteDB::run(const std::string& sql, const std::vector<SQLValue>& params) {
  query(sql, params);
  return sqlite3_last_insert_rowid(db_);
}

std::set<std::string> SQLiteDB::columns(const std::string& table) {
  std::set<std::string> names;
  try {
    forEach("PRAGMA table_info(" + table + ")", {}, [&](const SQLRow& row) {
      if (auto name = row["name"].string()) names.insert(std::move(*name));
    });
  } catch (const SQLiteError&) {
    return {};
  }
  return names;
}

}  // namespace corvane
