#include <gtest/gtest.h>

#include <tuple>

#include "core/chatdb/chat_db.h"
#include "tools/chatdb-gen/chat_db_builder.h"
#include "tests/support/temp_dir.h"

namespace corvane {
namespace {

using chatdbgen::ChatDbBuilder;
using chatdbgen::ChatDbSchema;
using chatdbgen::DateUnit;
using chatdbgen::MessageSpec;
using testing::TempDir;
using chatdbgen::TextStorage;

constexpr std::int64_t kDay = 86400000;
constexpr std::int64_t kNow = 1700000000000;

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

class OwnRowsTest : public ::testing::Test {
 protected:
  TempDir dir;
  ChatDbBuilder builder{dir.file("chat.db")};
};

TEST_F(OwnRowsTest, OwnHandlesFromCallerIdThenAccount) {
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

TEST_F(OwnRowsTest, DetectOwnHandlesIsAbsentForAnUnreadableDatabase) {
  EXPECT_EQ(ChatDB::detectOwnHandles(dir.file("missing.db"), "US", 180, kNow), std::nullopt);
  EXPECT_EQ(ChatDB::detectOwnHandles(builder.path(), "US", 180, kNow), std::vector<std::string>{});
}

// Without the caller-id column the account is still read; dates are compared
// raw, so a database with dates in seconds gives nothing.
TEST(OwnRowsSchemaTest, OwnHandlesOfOlderSchemas) {
  ChatDbSchema noCallerId;
  noCallerId.omitMessageColumns = {"destination_caller_id"};
  const std::tuple<ChatDbSchema, DateUnit, std::vector<std::string>> cases[] = {
      {noCallerId, DateUnit::nanoseconds, {"me@example.org"}},
      {ChatDbSchema::full(), DateUnit::seconds, {}},
  };
  for (const auto& [schema, unit, expected] : cases) {
    TempDir dir;
    ChatDbBuilder builder(dir.file("chat.db"), schema, unit);
    builder.message(builder.oneToOne("+14155550199"),
                    MessageSpec{.text = "a", .dateMs = kNow, .account = "E:me@example.org"});
    EXPECT_EQ(ChatDB(builder.path(), "US").ownHandles(kNow - kDay, 20), expected);
  }
}

TEST_F(OwnRowsTest, SelfRowsSkipReactionsEventsEmptyTextAndDuplicates) {
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

TEST_F(OwnRowsTest, OutgoingAfterIncludesRowsWithoutText) {
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
