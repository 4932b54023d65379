#include "core/chatdb/chat_db.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "tests/support/chat_db_builder.h"
#include "tests/support/temp_dir.h"

namespace corvane {
namespace {

using testing::ChatDbBuilder;
using testing::ChatDbSchema;
using testing::TempDir;

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

ChatDB::OpenError openError(const std::string& path) {
  try {
    ChatDB db(path, std::nullopt);
  } catch (const ChatDB::OpenError& e) {
    return e;
  }
  throw std::runtime_error("opened " + path);
}

TEST(ChatDBOpenTest, MissingFile) {
  TempDir dir;
  const std::string path = dir.file("chat.db");
  const auto e = openError(path);
  EXPECT_EQ(e, ChatDB::OpenError::missing(path));
  EXPECT_EQ(std::string(e.what()),
            path + " doesn't exist. Open Messages on this Mac and sign in to iMessage first.");
  EXPECT_EQ(ChatDB::checkAccess(path).kind, ChatDB::Access::Kind::missing);
}

TEST(ChatDBOpenTest, StatErrnoClassification) {
  struct Case {
    int err;
    ChatDB::OpenError::Kind kind;
    std::string text;
  };
  const Case cases[] = {
      {EPERM, ChatDB::OpenError::Kind::fullDiskAccess,
       "Can't read /p/chat.db \u2014 Corvane doesn't have Full Disk Access yet."},
      {EACCES, ChatDB::OpenError::Kind::fullDiskAccess,
       "Can't read /p/chat.db \u2014 Corvane doesn't have Full Disk Access yet."},
      {ENOENT, ChatDB::OpenError::Kind::missing,
       "/p/chat.db doesn't exist. Open Messages on this Mac and sign in to iMessage first."},
      {ELOOP, ChatDB::OpenError::Kind::other,
       std::string("Can't stat /p/chat.db: ") + std::strerror(ELOOP)},
  };
  for (const auto& c : cases) {
    const auto e = ChatDB::statError("/p/chat.db", c.err);
    EXPECT_EQ(e.kind(), c.kind) << c.err;
    EXPECT_EQ(e.description(), c.text) << c.err;
  }
  EXPECT_EQ(ChatDB::statError("/p", EPERM).detail(), std::strerror(EPERM));
}

TEST(ChatDBOpenTest, PathThroughAFileIsAnotherStatFailure) {
  TempDir dir;
  std::ofstream(dir.file("plain")) << "x";
  const std::string path = dir.file("plain/chat.db");
  const auto e = openError(path);
  EXPECT_EQ(e, ChatDB::OpenError::other("Can't stat " + path + ": " + std::strerror(ENOTDIR)));
  EXPECT_EQ(ChatDB::checkAccess(path),
            (ChatDB::Access{ChatDB::Access::Kind::other, 0, e.description()}));
}

TEST(ChatDBOpenTest, NotADatabase) {
  TempDir dir;
  const std::string path = dir.file("chat.db");
  std::ofstream(path) << std::string(4096, 'x');
  EXPECT_EQ(openError(path), ChatDB::OpenError::other("SQLite error 26: file is not a database"));
  EXPECT_EQ(ChatDB::checkAccess(path),
            (ChatDB::Access{ChatDB::Access::Kind::other, 0,
                            "SQLite error 26: file is not a database"}));
}

TEST(ChatDBOpenTest, DatabaseWithoutMessageTable) {
  TempDir dir;
  const std::string path = dir.file("chat.db");
  SQLiteDB(path, false, true).exec("CREATE TABLE other (a)");
  EXPECT_EQ(openError(path), ChatDB::OpenError::other("SQLite error 1: no such table: message"));
}

TEST(ChatDBOpenTest, DirectoryIsNotReadAsADatabase) {
  TempDir dir;
  const auto e = openError(dir.path());
  EXPECT_EQ(e.kind(), ChatDB::OpenError::Kind::other) << e.what();
  EXPECT_EQ(std::string(e.what()).rfind("SQLite error ", 0), 0u) << e.what();
}

TEST(ChatDBOpenTest, EmptyDatabaseIsReadable) {
  TempDir dir;
  ChatDbBuilder builder(dir.file("chat.db"));
  EXPECT_EQ(ChatDB::checkAccess(builder.path()), (ChatDB::Access{ChatDB::Access::Kind::ok, 0, ""}));
  ChatDB db(builder.path(), "US");
  EXPECT_EQ(db.maxRowId(), 0);
  EXPECT_EQ(db.region(), "US");
}

TEST(ChatDBOpenTest, MaxRowIdAndColumnDiscovery) {
  TempDir dir;
  ChatDbBuilder builder(dir.file("chat.db"));
  const auto chat = builder.oneToOne("+14155550100");
  builder.message(chat, "one");
  const auto last = builder.message(chat, "two");
  EXPECT_EQ(ChatDB::checkAccess(builder.path()),
            (ChatDB::Access{ChatDB::Access::Kind::ok, last, ""}));

  ChatDB db(builder.path(), std::nullopt);
  EXPECT_EQ(db.maxRowId(), last);
  EXPECT_TRUE(db.messageCols().contains("thread_originator_guid"));
  EXPECT_TRUE(db.attachmentCols().contains("is_sticker"));
  EXPECT_TRUE(db.handleCols().contains("country"));
}

TEST(ChatDBOpenTest, MissingAttachmentTableGivesEmptyColumns) {
  TempDir dir;
  ChatDbSchema schema = ChatDbSchema::minimal();
  schema.attachmentTable = false;
  ChatDbBuilder builder(dir.file("chat.db"), schema);
  ChatDB db(builder.path(), std::nullopt);
  EXPECT_TRUE(db.attachmentCols().empty());
  EXPECT_FALSE(db.messageCols().contains("attributedBody"));
  EXPECT_FALSE(db.handleCols().contains("country"));
  EXPECT_TRUE(db.messageCols().contains("date"));
}

TEST(ChatDBOpenTest, ReadingNeverWritesTheDatabase) {
  TempDir dir;
  ChatDbBuilder builder(dir.file("chat.db"));
  const auto chat = builder.oneToOne("+14155550100");
  builder.message(chat, "hello");
  builder.db().close();
  const std::string before = readFile(builder.path());
  {
    ChatDB db(builder.path(), std::nullopt);
    db.maxRowId();
    db.messagesAfter({{chat, "+14155550100"}}, 0, db.maxRowId());
  }
  EXPECT_EQ(readFile(builder.path()), before);
  EXPECT_FALSE(std::filesystem::exists(builder.path() + "-journal"));
  EXPECT_FALSE(std::filesystem::exists(builder.path() + "-wal"));
}

TEST(ChatDBOpenTest, CloseTwiceThenQueriesFail) {
  TempDir dir;
  ChatDbBuilder builder(dir.file("chat.db"));
  ChatDB db(builder.path(), std::nullopt);
  db.close();
  db.close();
  EXPECT_THROW(db.maxRowId(), SQLiteError);
}

TEST(ChatDBTimeTest, ToAppleNanos) {
  EXPECT_EQ(ChatDB::toAppleNanos(978307200000), 0);
  EXPECT_EQ(ChatDB::toAppleNanos(978307201000), 1000000000);
  EXPECT_EQ(ChatDB::toAppleNanos(978307199999), -1000000);
  EXPECT_EQ(ChatDB::toAppleNanos(1700000000123), (1700000000123 - 978307200000) * 1000000);
}

TEST(ChatDBTimeTest, ToAppleNanosOverflowIsFatal) {
  EXPECT_DEATH(ChatDB::toAppleNanos(std::numeric_limits<std::int64_t>::max()), "out of range");
}

TEST(ChatDBTimeTest, DefaultPathIsUnderTheHomeDirectory) {
  EXPECT_TRUE(ChatDB::defaultPath().ends_with("/Library/Messages/chat.db"));
  EXPECT_EQ(ChatDB::appleEpochMs, 978307200000);
  EXPECT_EQ(ChatDB::ownHandlesMax, 20);
}

}  // namespace
}  // namespace corvane
