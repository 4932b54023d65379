#include <gtest/gtest.h>

#include <tuple>

#include "core/chatdb/chat_db.h"
#include "core/protocol/iso_time.h"
#include "tools/chatdb-gen/chat_db_builder.h"
#include "tests/support/temp_dir.h"

namespace corvane {
namespace {

using chatdbgen::ChatDbBuilder;
using chatdbgen::ChatDbSchema;
using chatdbgen::MessageSpec;
using chatdbgen::TextStorage;
using testing::TempDir;

constexpr std::int64_t kDay = 86400000;
constexpr std::int64_t kNow = 1700000000000;

class DirectoryTest : public ::testing::Test {
 protected:
  ChatDB& open(std::optional<std::string> region = "US") {
    db = std::make_unique<ChatDB>(builder.path(), std::move(region));
    db->setStatementObserver([this](const std::string& sql) { statements.push_back(sql); });
    statements.clear();
    return *db;
  }

  TempDir dir;
  ChatDbBuilder builder{dir.file("chat.db")};
  std::unique_ptr<ChatDB> db;
  std::vector<std::string> statements;
};

TEST(MinimalDirectoryTest, OneToOneChatsUseTheDatabaseRegion) {
  TempDir dir;
  ChatDbBuilder builder(dir.file("chat.db"), ChatDbSchema::minimal());
  const auto chat = builder.oneToOne("0612345678");
  EXPECT_EQ(ChatDB(builder.path(), "FR").oneToOneChats(),
            (std::vector<ChatDB::OneToOneChat>{{chat, 1, "0612345678", "+33612345678", "iMessage"}}));
}

TEST_F(DirectoryTest, OnlySingleHandleNonGroupChatsAreOneToOne) {
  const auto alex = builder.handle("(415) 555-0100");
  const auto sam = builder.handle("Sam@Example.ORG");
  const auto pat = builder.handle("0612345678", "fr");
  const auto alexChat = builder.chat({alex});
  const auto samChat = builder.chat({sam}, std::nullopt, "SMS");
  const auto patChat = builder.chat({pat});
  builder.chat({alex, sam});               // two handles: a group
  builder.chat({sam}, 43);                 // style 43: a named group with one member left
  builder.chat({}, 45);                    // no handle at all
  ChatDB& db = open();
  const auto chats = db.oneToOneChats();
  ASSERT_EQ(chats.size(), 3u);
  EXPECT_EQ(chats[0], (ChatDB::OneToOneChat{alexChat, alex, "(415) 555-0100", "+14155550100", "iMessage"}));
  EXPECT_EQ(chats[1], (ChatDB::OneToOneChat{samChat, sam, "Sam@Example.ORG", "sam@example.org", "SMS"}));
  EXPECT_EQ(chats[2].chatId, patChat);
  EXPECT_EQ(chats[2].handle, "+33612345678") << "the handle's own country wins over the region";
}

TEST_F(DirectoryTest, ChatsForHandlesMatchExactlyThenOnLastTenDigits) {
  const auto plain = builder.oneToOne("4155550100");
  const auto sms = builder.oneToOne("+1 415 555 0100", "SMS");
  const auto foreign = builder.oneToOne("(415) 555-0100", "SMS", "GB");
  const auto mail = builder.oneToOne("ALEX@example.org");
  builder.oneToOne("alex@example.org.evil");
  builder.oneToOne("+14155550199");
  ChatDB& db = open();
  const ChatDB::ChatMap expected = {{plain, "+14155550100"},
                                    {sms, "+14155550100"},
                                    {foreign, "+14155550100"},
                                    {mail, "alex@example.org"}};
  const std::vector<std::string> roster = {"+14155550100", "alex@example.org", "4155550100@x"};
  EXPECT_EQ(db.chatsForHandles(roster), expected);
  EXPECT_TRUE(db.chatsForHandles({}).empty());
  EXPECT_TRUE(db.chatsForHandles({"Alex@Example.org"}).empty()) << "e-mail matches only exactly";

  // Chats read before are used without reading them again.
  const auto chats = db.oneToOneChats();
  statements.clear();
  EXPECT_EQ(db.chatsForHandles(roster, chats), expected);
  EXPECT_TRUE(statements.empty());
}

// The database of the directory's definition of done: one handle with an SMS
// and an iMessage chat, a group chat, a style-43 chat, an old chat and an
// excluded handle.
TEST_F(DirectoryTest, BuildsOneEntryPerRecentCorrespondent) {
  const auto alexI = builder.oneToOne("+14155550100", "iMessage");
  const auto alexS = builder.oneToOne("(415) 555-0100", "SMS");
  const auto sam = builder.oneToOne("sam@example.org");
  const auto old = builder.oneToOne("+14155550111");
  const auto me = builder.oneToOne("+14155550122");
  const auto groupA = builder.handle("+14155550133");
  const auto groupB = builder.handle("+14155550144");
  const auto group = builder.chat({groupA, groupB});
  const auto named = builder.chat({builder.handle("+14155550155")}, 43);

  builder.message(alexI, MessageSpec{.text = "i1", .dateMs = kNow - 3 * kDay});
  builder.message(alexI, MessageSpec{.text = "i2", .fromMe = true, .dateMs = kNow - 2 * kDay});
  builder.message(alexS, MessageSpec{.text = "s1", .dateMs = kNow - 1 * kDay, .service = "SMS"});
  builder.message(alexS, MessageSpec{.text = "s-react", .dateMs = kNow, .amt = 2000});
  builder.message(alexS, MessageSpec{.text = "s-event", .dateMs = kNow, .itemType = 2});
  builder.message(sam, MessageSpec{.text = "hi", .fromMe = true, .dateMs = kNow - 5 * kDay, .service = std::nullopt});
  builder.message(old, MessageSpec{.text = "long ago", .dateMs = kNow - 400 * kDay});
  builder.message(me, MessageSpec{.text = "note", .dateMs = kNow});
  builder.message(group, MessageSpec{.text = "group", .dateMs = kNow});
  builder.message(named, MessageSpec{.text = "named", .dateMs = kNow});

  // Names are clipped to 100 UTF-16 units, the display name to 200.
  const std::string first(150, 'F'), last(150, 'L');
  const IndexedContactBook contacts(
      {{ContactName("Alex", "Doe", "Al", std::nullopt), {"415-555-0100"}, {}},
       {ContactName(first, last, std::nullopt, std::nullopt), {}, {"sam@example.org"}}},
      "US");
  ChatDB& db = open();
  const auto entries = db.buildDirectory(kNow - 365 * kDay, contacts, {"+14155550122"});

  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[0], (DirectoryEntry{"+14155550100", "Alex Doe", "Alex", "Doe", "Al", "SMS",
                                        isoString(kNow - kDay), false, 3}));
  EXPECT_EQ(entries[1], (DirectoryEntry{"sam@example.org", first + " " + std::string(49, 'L'),
                                        std::string(100, 'F'), std::string(100, 'L'), std::nullopt,
                                        "iMessage", isoString(kNow - 5 * kDay), true, 1}));
  // One aggregate statement, then one small statement per qualifying chat.
  const auto latest = std::count(statements.begin(), statements.end(), db.latestMessageSQL());
  EXPECT_EQ(latest, 3);
  EXPECT_EQ(statements.size(), 5u);

  // A sync cycle hands in the chats it has read already: the same entries,
  // without running the chats statement again.
  const auto chats = db.oneToOneChats();
  statements.clear();
  EXPECT_EQ(db.buildDirectory(kNow - 365 * kDay, contacts, {"+14155550122"}, &chats), entries);
  EXPECT_EQ(statements.size(), 4u) << "the aggregate and three latest messages";
}

TEST_F(DirectoryTest, EqualTimesKeepTheFirstChatAndTiesSortByHandle) {
  const auto first = builder.oneToOne("+14155550100", "iMessage");
  const auto second = builder.oneToOne("4155550100", "SMS");
  const auto other = builder.oneToOne("+14155550099");
  builder.message(first, MessageSpec{.text = "a", .dateMs = kNow, .service = "iMessage"});
  builder.message(second, MessageSpec{.text = "b", .fromMe = true, .dateMs = kNow, .service = "SMS"});
  builder.message(other, MessageSpec{.text = "c", .dateMs = kNow, .service = ""});
  ChatDB& db = open();
  const auto entries = db.buildDirectory(kNow, EmptyContactBook(), {});
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_EQ(entries[0].handle, "+14155550099");
  EXPECT_EQ(entries[0].service, "iMessage") << "an empty message service falls back to the chat's";
  EXPECT_EQ(entries[1], (DirectoryEntry{"+14155550100", {}, {}, {}, {}, "iMessage",
                                        isoString(kNow), false, 2}));
}

TEST(OwnHandlesFromValuesTest, NormalisesFiltersAndDeduplicates) {
  // values, region, max, own handles
  const std::tuple<std::vector<std::string>, std::optional<std::string>, int,
                   std::vector<std::string>> cases[] = {
      {{"E:Alex@Example.org", "alex@example.org", " P:+14155550100 "}, "US", 20,
       {"alex@example.org", "+14155550100"}},
      {{"12345", "a@b@c", "@x.org", "x@", "+4412345"}, "US", 20, {"+4412345"}},
      {{"+123456", "+1234567890123456", "+123456789012345"}, "US", 20, {"+123456789012345"}},
      {{"tel:0612345678", "E:", "", "  "}, "FR", 20, {"+33612345678"}},
      {{"a b@example.org"}, "US", 20, {}},
      {{"+14155550100", "+14155550101", "+14155550102"}, "US", 2,
       {"+14155550100", "+14155550101"}},
      {{"x@" + std::string(400, 'y') + ".org"}, "US", 20, {}},
  };
  for (const auto& [values, region, max, expected] : cases) {
    EXPECT_EQ(ChatDB::ownHandles(values, region, max), expected) << values.front();
  }
}

TEST_F(DirectoryTest, OwnHandlesFromCallerIdThenAccount) {
  EXPECT_EQ(ChatDB::detectOwnHandles(builder.path(), "US", 180, kNow), std::vector<std::string>{});
  EXPECT_EQ(ChatDB::detectOwnHandles(dir.file("missing.db"), "US", 180, kNow), std::nullopt)
      << "absent, not empty, for an unreadable database";
  const auto chat = builder.oneToOne("+14155550199");
  builder.message(chat, MessageSpec{.text = "a", .dateMs = kNow - kDay,
                                    .destinationCallerId = "+14155550100", .account = "E:me@example.org"});
  builder.message(chat, MessageSpec{.text = "b", .dateMs = kNow - kDay,
                                    .destinationCallerId = "me@example.org", .account = "P:+14155550100"});
  builder.message(chat, MessageSpec{.text = "old", .dateMs = kNow - 400 * kDay,
                                    .destinationCallerId = "+447700900123"});
  builder.message(chat, MessageSpec{.text = "blank", .dateMs = kNow, .destinationCallerId = "",
                                    .account = "e:other@example.org"});
  ChatDB db(builder.path(), "US");
  EXPECT_EQ(db.ownHandles(kNow - 180 * kDay, 20),
            (std::vector<std::string>{"+14155550100", "me@example.org", "other@example.org"}));
  EXPECT_EQ(ChatDB::detectOwnHandles(builder.path(), "US", 180, kNow), db.ownHandles(kNow - 180 * kDay, 20));
}

TEST(OwnRowsSchemaTest, WithoutTheCallerIdColumnTheAccountIsStillRead) {
  ChatDbSchema noCallerId;
  noCallerId.omitMessageColumns = {"destination_caller_id"};
  TempDir dir;
  ChatDbBuilder builder(dir.file("chat.db"), noCallerId);
  builder.message(builder.oneToOne("+14155550199"),
                  MessageSpec{.text = "a", .dateMs = kNow, .account = "E:me@example.org"});
  EXPECT_EQ(ChatDB(builder.path(), "US").ownHandles(kNow - kDay, 20),
            std::vector<std::string>{"me@example.org"});
}

TEST_F(DirectoryTest, SelfRowsSkipReactionsEventsEmptyTextAndDuplicates) {
  const auto self1 = builder.oneToOne("+14155550100");
  const auto self2 = builder.oneToOne("me@example.org");
  const auto other = builder.oneToOne("+14155550199");
  const auto start = builder.message(self1, "before the cursor");
  const auto note = builder.message(self1, MessageSpec{.text = " buy milk ", .fromMe = true, .dateMs = kNow});
  builder.join(self2, note);
  builder.message(self1, MessageSpec{.text = "", .amt = 2001});
  builder.message(self1, MessageSpec{.text = "renamed", .itemType = 2});
  builder.message(self1, MessageSpec{.text = "\uFFFC"});
  builder.message(self1, MessageSpec{.text = "undated", .nullDate = true});
  builder.message(other, "not a self chat");
  const auto failed = builder.message(self2, MessageSpec{.text = "reply", .dateMs = kNow + 1,
                                                         .error = 22, .storage = TextStorage::attributedBody});
  const auto beyond = builder.message(self2, "after upTo");

  ChatDB db(builder.path(), "US");
  const auto rows = db.selfRows({self1, self2}, start, beyond - 1);
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_EQ(rows[0], (ChatDB::SelfRow{note, builder.guidOf(note), "buy milk", true, kNow, 0}));
  EXPECT_EQ(rows[1], (ChatDB::SelfRow{failed, builder.guidOf(failed), "reply", false, kNow + 1, 22}));
  EXPECT_TRUE(db.selfRows({}, 0, beyond).empty());
  EXPECT_TRUE(db.selfRows({self1}, beyond, beyond).empty());
}

TEST_F(DirectoryTest, OutgoingAfterIncludesRowsWithoutText) {
  const auto chat = builder.oneToOne("+14155550100");
  const auto mark = builder.message(chat, MessageSpec{.text = "earlier", .fromMe = true});
  builder.message(chat, MessageSpec{.text = "incoming"});
  const auto sent = builder.message(chat, MessageSpec{.text = "hello", .fromMe = true, .service = "SMS", .error = 4});
  const auto photo = builder.message(chat, MessageSpec{.text = "\uFFFC", .fromMe = true, .service = std::nullopt});
  const auto body = builder.message(chat, MessageSpec{.text = "from body", .fromMe = true,
                                                      .storage = TextStorage::attributedBody});
  ChatDB db(builder.path(), "US");
  EXPECT_EQ(db.outgoingAfter(mark),
            (std::vector<ChatDB::OutgoingRow>{{sent, "hello", 4, "SMS"},
                                              {photo, "", 0, std::nullopt},
                                              {body, "from body", 0, "iMessage"}}));
  EXPECT_TRUE(db.outgoingAfter(body).empty());
}

}  // namespace
}  // namespace corvane
