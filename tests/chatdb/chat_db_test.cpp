#include "core/chatdb/chat_db.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <tuple>

#include "tools/chatdb-gen/chat_db_builder.h"
#include "tests/support/temp_dir.h"
#include "tests/support/text_file.h"

namespace corvane {
namespace {

using chatdbgen::ChatDbBuilder;
using testing::readFile;
using testing::TempDir;

ChatDB::OpenError openError(const std::string& path) {
  try {
    ChatDB db(path, std::nullopt);
  } catch (const ChatDB::OpenError& e) {
    return e;
  }
  throw std::runtime_error("opened " + path);
}

// Each way a file can fail to be a Messages database, as open and as the
// access check (which the status report and the setup flow use) see it.
TEST(ChatDBOpenTest, FilesThatAreNoMessagesDatabase) {
  TempDir dir;
  std::ofstream(dir.file("plain")) << "x";
  std::ofstream(dir.file("garbage.db")) << std::string(4096, 'x');
  SQLiteDB(dir.file("other.db"), false, true).exec("CREATE TABLE other (a)");
  using Kind = ChatDB::OpenError::Kind;
  const struct {
    std::string path;
    Kind kind;
    std::string text;  // empty: any SQLite error
  } cases[] = {
      {dir.file("chat.db"), Kind::missing,
       dir.file("chat.db") +
           " doesn't exist. Open Messages on this Mac and sign in to iMessage first."},
      {dir.file("plain/chat.db"), Kind::other,
       "Can't stat " + dir.file("plain/chat.db") + ": " + std::strerror(ENOTDIR)},
      {dir.file("garbage.db"), Kind::other, "SQLite error 26: file is not a database"},
      {dir.file("other.db"), Kind::other, "SQLite error 1: no such table: message"},
      {dir.path(), Kind::other, ""},
  };
  for (const auto& c : cases) {
    const auto e = openError(c.path);
    EXPECT_EQ(e.kind(), c.kind) << c.path;
    if (c.text.empty()) {
      EXPECT_TRUE(std::string(e.what()).starts_with("SQLite error ")) << e.what();
    } else {
      EXPECT_EQ(e.description(), c.text);
    }
  }
  EXPECT_EQ(ChatDB::checkAccess(dir.file("chat.db")).kind, ChatDB::Access::Kind::missing);
  EXPECT_EQ(
      ChatDB::checkAccess(dir.file("garbage.db")),
      (ChatDB::Access{ChatDB::Access::Kind::other, 0, "SQLite error 26: file is not a database"}));
}

TEST(ChatDBOpenTest, StatErrnoClassification) {
  const std::string noAccess = "Can't read /p/chat.db \u2014 Corvane doesn't have Full Disk Access yet.";
  const std::tuple<int, ChatDB::OpenError::Kind, std::string> cases[] = {
      {EPERM, ChatDB::OpenError::Kind::fullDiskAccess, noAccess},
      {EACCES, ChatDB::OpenError::Kind::fullDiskAccess, noAccess},
      {ENOENT, ChatDB::OpenError::Kind::missing,
       "/p/chat.db doesn't exist. Open Messages on this Mac and sign in to iMessage first."},
      {ELOOP, ChatDB::OpenError::Kind::other,
       std::string("Can't stat /p/chat.db: ") + std::strerror(ELOOP)},
  };
  for (const auto& [err, kind, text] : cases) {
    const auto e = ChatDB::statError("/p/chat.db", err);
    EXPECT_EQ(e.kind(), kind) << err;
    EXPECT_EQ(e.description(), text) << err;
  }
  EXPECT_EQ(ChatDB::statError("/p", EPERM).detail(), std::strerror(EPERM));
}

TEST(ChatDBOpenTest, ReadingNeverWritesTheDatabase) {
  TempDir dir;
  ChatDbBuilder builder(dir.file("chat.db"));
  const auto chat = builder.oneToOne("+14155550100");
  builder.message(chat, "one");
  const auto last = builder.message(chat, "two");
  builder.db().close();
  const std::string before = readFile(builder.path());
  EXPECT_EQ(ChatDB::checkAccess(builder.path()),
            (ChatDB::Access{ChatDB::Access::Kind::ok, last, ""}));
  {
    ChatDB db(builder.path(), std::nullopt);
    EXPECT_EQ(db.maxRowId(), last);
    db.messagesAfter({{chat, "+14155550100"}}, 0, db.maxRowId());
  }
  EXPECT_EQ(readFile(builder.path()), before);
  EXPECT_FALSE(std::filesystem::exists(builder.path() + "-journal"));
  EXPECT_FALSE(std::filesystem::exists(builder.path() + "-wal"));
}

TEST(ChatDBTimeTest, ToAppleNanos) {
  EXPECT_EQ(ChatDB::toAppleNanos(978307200000), 0);
  EXPECT_EQ(ChatDB::toAppleNanos(978307199999), -1000000);
  EXPECT_DEATH(ChatDB::toAppleNanos(std::numeric_limits<std::int64_t>::max()), "out of range");
}

}  // namespace
}  // namespace corvane
