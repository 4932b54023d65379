// Opening, the access probe, the cursor and the time base.
#include "core/chatdb/chat_db.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace corvane {
namespace {

std::string homeDirectory() {
  struct passwd pw {};
  struct passwd* result = nullptr;
  char buf[4096];
  if (getpwuid_r(getuid(), &pw, buf, sizeof buf, &result) == 0 && result && result->pw_dir) {
    return result->pw_dir;
  }
  const char* home = std::getenv("HOME");
  return home ? home : "";
}

std::string joinPath(const std::string& dir, const std::string& rest) {
  if (!dir.empty() && dir.back() == '/') return dir + rest;
  return dir + "/" + rest;
}

}  // namespace

ChatDB::OpenError::OpenError(Kind kind, std::string path, std::string detail,
                             std::string description)
    : kind_(kind), path_(std::move(path)), detail_(std::move(detail)),
      description_(std::move(description)) {}

ChatDB::OpenError ChatDB::OpenError::missing(std::string path) {
  std::string text = path + " doesn't exist. Open Messages on this Mac and sign in to iMessage first.";
  return OpenError(Kind::missing, std::move(path), "", std::move(text));
}

ChatDB::OpenError ChatDB::OpenError::fullDiskAccess(std::string path, std::string detail) {
  std::string text = "Can't read " + path + " \u2014 Corvane doesn't have Full Disk Access yet.";
  return OpenError(Kind::fullDiskAccess, std::move(path), std::move(detail), std::move(text));
}

ChatDB::OpenError ChatDB::OpenError::other(std::string message) {
  return OpenError(Kind::other, "", "", std::move(message));
}

ChatDB::ChatDB(std::string path, std::optional<std::string> region)
    : path_(std::move(path)), region_(std::move(region)) {
  // stat first: on macOS a file protected by the privacy system fails stat
  // with EPERM before SQLite is ever involved.
  struct stat st {};
  if (::stat(path_.c_str(), &st) != 0) throw statError(path_, errno);
  try {
    db_ = std::make_unique<SQLiteDB>(path_, /*readOnly=*/true);
    db_->exec("PRAGMA query_only = ON");
    // A protected database can open cleanly and fail only at the first read.
    db_->query("SELECT ROWID FROM message LIMIT 1");
  } catch (const SQLiteError& e) {
    if (e.isPermission()) throw OpenError::fullDiskAccess(path_, e.message());
    throw OpenError::other(e.description());
  }
  messageCols_ = db_->columns("message");
  attachmentCols_ = db_->columns("attachment");
  handleCols_ = db_->columns("handle");
}

ChatDB::OpenError ChatDB::statError(const std::string& path, int err) {
  if (err == EPERM || err == EACCES) return OpenError::fullDiskAccess(path, std::strerror(err));
  if (err == ENOENT) return OpenError::missing(path);
  return OpenError::other("Can't stat " + path + ": " + std::strerror(err));
}

std::int64_t ChatDB::maxRowId() {
  const auto rows = db_->query("SELECT COALESCE(MAX(ROWID), 0) AS m FROM message");
  if (rows.empty()) return 0;
  const SQLValue& m = rows.front()["m"];
  return m.kind() == SQLValue::Kind::integer ? *m.int64() : 0;
}

ChatDB::Access ChatDB::checkAccess(const std::string& path) {
  try {
    ChatDB db(path, std::nullopt);
    return {Access::Kind::ok, db.maxRowId(), ""};
  } catch (const OpenError& e) {
    switch (e.kind()) {
      case OpenError::Kind::missing:
        return {Access::Kind::missing, 0, ""};
      case OpenError::Kind::fullDiskAccess:
        return {Access::Kind::noFullDiskAccess, 0, ""};
      case OpenError::Kind::other:
        break;
    }
    return {Access::Kind::other, 0, e.description()};
  } catch (const std::exception& e) {
    return {Access::Kind::other, 0, e.what()};
  }
}

std::int64_t ChatDB::toAppleNanos(std::int64_t ms) {
  std::int64_t sinceEpoch = 0, nanos = 0;
  if (__builtin_sub_overflow(ms, appleEpochMs, &sinceEpoch) ||
      __builtin_mul_overflow(sinceEpoch, std::int64_t{1000000}, &nanos)) {
    std::fprintf(stderr, "toAppleNanos: %lld ms is out of range\n", static_cast<long long>(ms));
    std::abort();
  }
  return nanos;
}

std::string ChatDB::defaultPath() { return joinPath(homeDirectory(), "Library/Messages/chat.db"); }

}  // namespace corvane
