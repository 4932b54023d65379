#include "core/chatdb/directory_cache.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <random>

#include "core/chatdb/chat_db.h"
#include "tools/chatdb-gen/chat_db_builder.h"
#include "tests/support/temp_dir.h"

namespace corvane {
namespace {

using chatdbgen::ChatDbBuilder;
using chatdbgen::MessageSpec;
using testing::TempDir;
using Refresh = DirectoryCache::Refresh;

constexpr std::int64_t kHour = 3600000;
constexpr std::int64_t kDay = 24 * kHour;
constexpr std::int64_t kNow = 1700000000000;

// A Messages database that a random trace of the changes the Messages
// application makes keeps changing, and the cached directory compared with
// the full statement's after every step.
class DirectoryCacheTrace {
 public:
  DirectoryCacheTrace(std::uint32_t seed, bool wal) : random_(seed), wal_(wal) {
    newDatabase(path());
  }

  std::string path() const { return dir_.file("chat.db"); }

  // One random change; returns what it was and how the cache must follow it.
  std::pair<std::string, Refresh> step() {
    const int kind = pick(100);
    if (kind < 30) return insert(pickChat(), "insert in an existing chat");
    if (kind < 36) return insert(newChat(), "insert in a new chat");
    if (kind < 44) return reaction();
    if (kind < 56) return deleteMessage(/*withJoins=*/true);
    if (kind < 66) return changeService();
    if (kind < 72) return {"nothing", Refresh::unchanged};
    if (kind < 76) return deleteMessage(/*withJoins=*/false);
    if (kind < 80) return unjoin();
    if (kind < 84) return joinOldMessage();
    if (kind < 88) return insertOddDate();
    if (kind < 92) return insert(groups_.front(), "insert in a group chat");
    if (!wal_) return replace();
    return insert(pickChat(), "insert in an existing chat");
  }

  // The directory read in full and through `cache`, with a random period,
  // exclusion and contact book.
  void compare(DirectoryCache& cache, const std::string& what, Refresh expected) {
    ChatDB db(path(), "US");
    const auto chats = db.oneToOneChats();
    const std::int64_t since = kNow - std::int64_t{pick(4)} * 10 * kHour - 2 * kDay;
    const std::set<std::string> exclude =
        pick(4) == 0 ? std::set<std::string>{"+14155550101"} : std::set<std::string>{};
    const IndexedContactBook contacts(
        {{ContactName("Alex", "Doe", std::nullopt, std::nullopt), {"415-555-0100"}, {}}}, "US");
    const auto full = db.buildDirectory(since, contacts, exclude, &chats);
    ChatDB reader(path(), "US");
    ASSERT_EQ(cache.oneToOneChats(path(), reader), chats) << "after: " << what;
    const auto cached = cache.buildDirectory(path(), since, contacts, exclude, chats);
    ASSERT_EQ(cached, full) << "after: " << what;
    EXPECT_EQ(cache.lastRefresh(), expected) << "after: " << what;
  }

  std::size_t entriesNow() {
    ChatDB db(path(), "US");
    return db.buildDirectory(0, EmptyContactBook(), {}).size();
  }

 private:
  int pick(int n) { return std::uniform_int_distribution<int>(0, n - 1)(random_); }

  // A fresh database at `file` with a few chats and messages, written from
  // now on.
  void newDatabase(const std::string& file) {
    writer_ = std::make_unique<ChatDbBuilder>(file);
    if (wal_) writer_->db().exec("PRAGMA journal_mode = WAL");
    chats_.clear();
    messages_.clear();
    groups_.clear();
    multiJoined_.clear();
    handles_.clear();
    for (int i = 0; i < 4; ++i) newChat();
    groups_.push_back(writer_->chat({writer_->handle("+14155550190"), writer_->handle("x@y.org")}));
    for (int i = 0; i < 12; ++i) insert(pickChat(), "");
  }

  // Chats of a few handles written several ways and over both services, so
  // that chats merge into one entry and tie on their newest time.
  std::int64_t newChat() {
    static const char* const kHandles[] = {"+14155550100", "(415) 555-0100", "4155550100",
                                           "+14155550101", "sam@example.org", "+14155550102"};
    static const char* const kServices[] = {"iMessage", "SMS", ""};
    const std::string id = kHandles[pick(6)], service = kServices[pick(3)];
    auto [it, added] = handles_.try_emplace(id + "/" + service, 0);
    if (added) it->second = writer_->handle(id, std::nullopt, service);
    const auto chat = writer_->chat({it->second}, 45, service);
    chats_.push_back(chat);
    return chat;
  }

  std::int64_t pickChat() { return chats_[static_cast<std::size_t>(pick(static_cast<int>(chats_.size())))]; }

  std::optional<std::string> pickService() {
    const std::optional<std::string> services[] = {"iMessage", "SMS", "", std::nullopt};
    return services[pick(4)];
  }

  std::size_t pickMessage() {
    return static_cast<std::size_t>(pick(static_cast<int>(messages_.size())));
  }

  MessageSpec randomSpec() {
    // A coarse grid of times, so that chats often tie on their newest message.
    return MessageSpec{.text = "m",
                       .fromMe = pick(2) == 0,
                       .dateMs = kNow - std::int64_t{pick(12)} * 6 * kHour,
                       .service = pickService()};
  }

  std::int64_t insert(std::int64_t chat, const MessageSpec& spec) {
    const auto rowid = writer_->message(chat, spec);
    messages_.push_back({rowid, chat});
    return rowid;
  }

  std::pair<std::string, Refresh> insert(std::int64_t chat, const std::string& what) {
    insert(chat, randomSpec());
    return {what, Refresh::incremental};
  }

  std::pair<std::string, Refresh> reaction() {
    MessageSpec spec = randomSpec();
    if (pick(2) == 0) {
      spec.amt = 2000 + pick(6);
    } else {
      spec.itemType = 1 + pick(3);
    }
    insert(pickChat(), spec);
    return {"a reaction or a non-message item", Refresh::incremental};
  }

  std::pair<std::string, Refresh> insertOddDate() {
    MessageSpec spec = randomSpec();
    switch (pick(3)) {
      case 0: spec.nullDate = true; break;
      case 1: spec.rawDate = (kNow - ChatDB::appleEpochMs) / 1000; break;  // seconds
      default: break;
    }
    const auto rowid = insert(pickChat(), spec);
    if (pick(3) == 0) {
      // Written with a date SQLite keeps as a real number.
      writer_->db().run("UPDATE message SET date = ? WHERE ROWID = ?",
                        {SQLValue(static_cast<double>((kNow - ChatDB::appleEpochMs) * 1000000) + 0.5),
                         rowid});
    }
    return {"insert with an odd date", Refresh::incremental};
  }

  std::pair<std::string, Refresh> deleteMessage(bool withJoins) {
    if (messages_.empty()) return {"nothing", Refresh::unchanged};
    const auto i = pickMessage();
    const auto [rowid, chat] = messages_[i];
    messages_.erase(messages_.begin() + static_cast<std::ptrdiff_t>(i));
    writer_->db().run("DELETE FROM message WHERE ROWID = ?", {rowid});
    if (!withJoins) return {"a message deleted but left joined", Refresh::full};
    writer_->db().run("DELETE FROM chat_message_join WHERE message_id = ?", {rowid});
    // One message that takes two join rows along can't be told from an
    // unjoined message beside a deleted one.
    if (multiJoined_.contains(rowid)) return {"a message of two chats deleted", Refresh::full};
    return {"a message deleted", Refresh::incremental};
  }

  std::pair<std::string, Refresh> changeService() {
    if (messages_.empty()) return {"nothing", Refresh::unchanged};
    // Mostly the newest messages, whose service is the one that shows.
    const auto n = static_cast<int>(messages_.size());
    const auto i = static_cast<std::size_t>(pick(2) == 0 ? n - 1 - pick(std::min(n, 3)) : pick(n));
    const auto service = pickService();
    const SQLValue value = service ? SQLValue(*service) : SQLValue();
    const auto rowid = messages_[i].first;
    // SQLite doesn't write a row that stays the same: nothing is committed.
    const bool same =
        writer_->db().query("SELECT service IS ? AS same FROM message WHERE ROWID = ?", {value, rowid})
            .at(0)["same"].int64() == 1;
    writer_->db().run("UPDATE message SET service = ? WHERE ROWID = ?", {value, rowid});
    if (same) return {"a service set to what it was", Refresh::unchanged};
    return {"a service changed", Refresh::incremental};
  }

  std::pair<std::string, Refresh> unjoin() {
    if (messages_.empty()) return {"nothing", Refresh::unchanged};
    const auto i = pickMessage();
    writer_->db().run("DELETE FROM chat_message_join WHERE message_id = ?", {messages_[i].first});
    messages_.erase(messages_.begin() + static_cast<std::ptrdiff_t>(i));
    return {"a message taken out of its chat", Refresh::full};
  }

  std::pair<std::string, Refresh> joinOldMessage() {
    if (messages_.empty()) return {"nothing", Refresh::unchanged};
    const auto [rowid, chat] = messages_[pickMessage()];
    const auto other = pickChat();
    if (other == chat || multiJoined_.contains(rowid)) return {"nothing", Refresh::unchanged};
    writer_->join(other, rowid);
    multiJoined_.insert(rowid);
    return {"an old message joined to another chat", Refresh::full};
  }

  std::pair<std::string, Refresh> replace() {
    // A restore: another file, with other chats, renamed over the database.
    const std::string next = dir_.file("next.db");
    newDatabase(next);
    std::filesystem::rename(next, path());
    return {"the database file replaced", Refresh::full};
  }

  TempDir dir_;
  std::mt19937 random_;
  bool wal_;
  std::unique_ptr<ChatDbBuilder> writer_;
  std::vector<std::int64_t> chats_, groups_;
  std::vector<std::pair<std::int64_t, std::int64_t>> messages_;  // rowid, chat
  std::set<std::int64_t> multiJoined_;
  std::map<std::string, std::int64_t> handles_;  // "id/service" → handle ROWID
};

// Seeds from 4 on write through a write-ahead log.
class DirectoryCacheTraceTest : public ::testing::TestWithParam<std::uint32_t> {};

TEST_P(DirectoryCacheTraceTest, CachedDirectoryEqualsTheFullStatementAfterEveryChange) {
  DirectoryCacheTrace trace(GetParam(), GetParam() >= 4);
  DirectoryCache cache;
  trace.compare(cache, "the first build", Refresh::full);
  trace.compare(cache, "no change", Refresh::unchanged);
  for (int i = 0; i < 160; ++i) {
    const auto [what, expected] = trace.step();
    trace.compare(cache, what, expected);
    if (::testing::Test::HasFatalFailure()) return;
  }
  EXPECT_GT(trace.entriesNow(), 0u) << "the trace kept some correspondents";
}

INSTANTIATE_TEST_SUITE_P(Seeds, DirectoryCacheTraceTest, ::testing::Range(1u, 6u),
                         [](const auto& info) {
                           return "seed" + std::to_string(info.param) +
                                  (info.param >= 4 ? "Wal" : "Rollback");
                         });

class DirectoryCacheTest : public ::testing::Test {
 protected:
  DirectoryCacheTest() : builder(dir.file("chat.db")) {}

  // The directory read in full, or through the cache.
  std::vector<DirectoryEntry> read(bool throughCache) {
    ChatDB db(builder.path(), "US");
    const auto chats = db.oneToOneChats();
    const auto since = kNow - 30 * kDay;
    return throughCache ? cache.buildDirectory(builder.path(), since, EmptyContactBook(), {}, chats)
                        : db.buildDirectory(since, EmptyContactBook(), {}, &chats);
  }
  std::vector<DirectoryEntry> full() { return read(false); }
  std::vector<DirectoryEntry> cached() { return read(true); }

  TempDir dir;
  ChatDbBuilder builder;
  DirectoryCache cache;
};

// The Messages application checkpoints its write-ahead log; a reader that kept
// a snapshot open between cycles would hold the log back.
TEST_F(DirectoryCacheTest, NoReadTransactionOutlivesABuild) {
  builder.db().exec("PRAGMA journal_mode = WAL");
  const auto alex = builder.oneToOne("+14155550100");
  builder.message(alex, MessageSpec{.text = "a", .dateMs = kNow});
  cached();
  builder.message(alex, MessageSpec{.text = "b", .dateMs = kNow + 1});
  EXPECT_EQ(cached(), full());
  const auto checkpoint = builder.db().query("PRAGMA wal_checkpoint(TRUNCATE)");
  ASSERT_EQ(checkpoint.size(), 1u);
  EXPECT_EQ(checkpoint[0].at(0).int64().value_or(-1), 0) << "the checkpoint was not blocked";
  EXPECT_EQ(checkpoint[0].at(1).int64().value_or(-1), 0) << "the whole log was written back";
}

TEST_F(DirectoryCacheTest, ATableWhoseRowIdsCanBeReusedIsReadInFullAtEveryChange) {
  // Without AUTOINCREMENT a deleted newest ROWID comes back for a new message.
  builder.db().exec(
      "ALTER TABLE message RENAME TO message_old;"
      "CREATE TABLE message AS SELECT * FROM message_old WHERE 0;"
      "DROP TABLE message_old;");
  const auto alex = builder.oneToOne("+14155550100");
  const auto write = [&](const std::string& guid, std::int64_t ms, int fromMe) {
    builder.db().run(
        "INSERT INTO message (ROWID, guid, date, is_from_me) VALUES (1, ?, ?, ?)",
        {guid, builder.storedDate(ms), fromMe});
    builder.db().run("INSERT INTO chat_message_join (chat_id, message_id) VALUES (?, 1)", {alex});
  };
  write("g1", kNow, 0);
  EXPECT_EQ(cached(), full());
  // The same ROWID in the same chat: every count and sum stays what it was.
  builder.db().run("DELETE FROM message WHERE ROWID = 1");
  builder.db().run("DELETE FROM chat_message_join WHERE message_id = 1");
  write("g2", kNow + kHour, 1);
  const auto entries = cached();
  EXPECT_EQ(entries, full());
  EXPECT_EQ(cache.lastRefresh(), Refresh::full);
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_TRUE(entries[0].lastFromMe);
}

TEST_F(DirectoryCacheTest, ASchemaChangeReadsTheColumnsAgain) {
  const auto alex = builder.oneToOne("+14155550100", "SMS");
  builder.message(alex, MessageSpec{.text = "a", .dateMs = kNow, .service = "iMessage"});
  ASSERT_EQ(cached().at(0).service, "iMessage");
  // An older schema without the service column, written in place.
  builder.db().exec("ALTER TABLE message DROP COLUMN service");
  const auto entries = cached();
  EXPECT_EQ(entries, full());
  EXPECT_EQ(entries.at(0).service, "SMS") << "the chat's service, now that messages have none";
}

TEST_F(DirectoryCacheTest, AFailedBuildForgetsEverything) {
  const auto alex = builder.oneToOne("+14155550100");
  builder.message(alex, MessageSpec{.text = "a", .dateMs = kNow});
  cached();
  ChatDB db(builder.path(), "US");
  const auto chats = db.oneToOneChats();
  EXPECT_THROW(cache.buildDirectory(dir.file("missing.db"), 0, EmptyContactBook(), {}, chats),
               ChatDB::OpenError);
  EXPECT_EQ(cache.lastRefresh(), std::nullopt);
  cached();
  EXPECT_EQ(cache.lastRefresh(), Refresh::full);
}

// The chats statement runs again exactly when the database or the region
// changed; in between, the answer is the one it gave.
TEST_F(DirectoryCacheTest, TheOneToOneChatsAreReadAgainOnlyAfterACommitOrForAnotherRegion) {
  builder.oneToOne("4155550100");
  ChatDB us(builder.path(), "US"), gb(builder.path(), "GB");
  int statements = 0;
  for (ChatDB* db : {&us, &gb}) db->setStatementObserver([&](const std::string&) { ++statements; });
  // The chats through the cache, and how many statements that took.
  const auto viaCache = [&](ChatDB& db) {
    statements = 0;
    auto chats = cache.oneToOneChats(builder.path(), db);
    return std::pair(chats, statements);
  };
  const auto direct = [&](ChatDB& db) { return db.oneToOneChats(); };

  EXPECT_EQ(viaCache(us), std::pair(direct(us), 1));
  EXPECT_EQ(viaCache(us), std::pair(direct(us), 0)) << "nothing changed";
  builder.oneToOne("+442079460000");
  const auto afterCommit = viaCache(us);
  EXPECT_EQ(afterCommit, std::pair(direct(us), 1));
  EXPECT_EQ(afterCommit.first.size(), 2u);
  EXPECT_NE(direct(gb), direct(us)) << "the regions read the number apart";
  EXPECT_EQ(viaCache(gb), std::pair(direct(gb), 1));
}

}  // namespace
}  // namespace corvane
