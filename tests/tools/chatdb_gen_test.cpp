// The database generator, checked through the agent's own reader: what
// ChatDB extracts from a generated file must match what the generator says
// it wrote, and the options must shape the file as they promise.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <set>

#include "core/chatdb/chat_db.h"
#include "tests/support/temp_dir.h"
#include "tests/support/text_file.h"
#include "tools/chatdb-gen/generator.h"
#include "tools/chatdb-gen/random.h"
#include "tools/chatdb-gen/roster.h"

namespace corvane::chatdbgen {
namespace {

using testing::readFile;
using testing::TempDir;

constexpr std::int64_t kDayMs = 86400000;

GeneratorOptions smallOptions() {
  GeneratorOptions o;
  o.messages = 800;
  o.chats = 40;
  o.groups = 6;
  o.selfNotes = 12;
  o.days = 60;
  return o;
}

std::int64_t countRows(SQLiteDB& db, const std::string& sql) {
  return db.query(sql).at(0).at(0).int64().value_or(-1);
}

// What the agent extracts from the one-to-one chats of other people (all
// but the notes-to-self chat).
auto extract(ChatDB& db, const GeneratorOptions& o) {
  const auto ownList = ChatDB::ownHandles(o.ownHandles, "US", 20);
  const std::set<std::string> own(ownList.begin(), ownList.end());
  ChatDB::ChatMap chats;
  for (const auto& chat : db.oneToOneChats()) {
    if (chat.handle && !own.contains(*chat.handle)) chats[chat.chatId] = *chat.handle;
  }
  return db.messagesAfter(chats, 0, db.maxRowId());
}

class GeneratedDbTest : public ::testing::Test {
 protected:
  GenerationSummary generate(const GeneratorOptions& options, const std::string& name = "chat.db") {
    path = dir.file(name);
    return generateChatDb(path, options);
  }

  TempDir dir;
  std::string path;
};

TEST_F(GeneratedDbTest, OneToOneChatsAreThePeoplesChatsPlusNotesToSelf) {
  const GeneratorOptions o = smallOptions();
  const GenerationSummary s = generate(o);
  ChatDB db(path, "US");
  const auto chats = db.oneToOneChats();
  ASSERT_EQ(static_cast<std::int64_t>(chats.size()), o.chats + 1);
  EXPECT_EQ(s.oneToOneChats, o.chats);
  EXPECT_EQ(s.groupChats, o.groups);

  // Every handle normalises, and each SMS chat belongs to someone who also
  // has an iMessage chat: one person, two chats.
  std::map<std::string, std::set<std::string>> servicesByHandle;
  for (const auto& chat : chats) {
    ASSERT_TRUE(chat.handle.has_value()) << chat.rawHandle;
    EXPECT_TRUE(chat.handle->starts_with("+") || chat.handle->find('@') != std::string::npos)
        << chat.rawHandle << " → " << *chat.handle;
    servicesByHandle[*chat.handle].insert(chat.service.value_or(""));
  }
  std::int64_t sms = 0;
  for (const auto& [handle, services] : servicesByHandle) {
    if (services.contains("SMS")) {
      ++sms;
      EXPECT_TRUE(services.contains("iMessage")) << handle;
    }
  }
  EXPECT_GT(s.smsChats, 0);
  EXPECT_EQ(sms, s.smsChats);
}

TEST_F(GeneratedDbTest, GroupsHoldMessagesButAreNeverOneToOne) {
  const GeneratorOptions o = smallOptions();
  const GenerationSummary s = generate(o);
  SQLiteDB raw(path, /*readOnly=*/true);
  EXPECT_EQ(countRows(raw, "SELECT COUNT(*) FROM chat WHERE style = 43"), o.groups);
  // Groups down to one other member are kept out by their style alone.
  EXPECT_GT(countRows(raw,
                      "SELECT COUNT(*) FROM chat c WHERE c.style = 43 AND (SELECT COUNT(*) FROM "
                      "chat_handle_join j WHERE j.chat_id = c.ROWID) = 1"),
            0);
  EXPECT_GT(s.groups.rows, 0);
  EXPECT_EQ(countRows(raw,
                      "SELECT COUNT(*) FROM chat_message_join j JOIN chat c ON c.ROWID = j.chat_id "
                      "WHERE c.style = 43"),
            s.groups.rows);

  ChatDB db(path, "US");
  std::set<std::int64_t> oneToOneIds;
  for (const auto& chat : db.oneToOneChats()) oneToOneIds.insert(chat.chatId);
  for (const auto& row : raw.query("SELECT ROWID FROM chat WHERE style = 43")) {
    EXPECT_FALSE(oneToOneIds.contains(*row.at(0).int64()));
  }
}

TEST_F(GeneratedDbTest, ExtractionFindsWhatTheGeneratorWrote) {
  const GeneratorOptions o = smallOptions();
  const GenerationSummary s = generate(o);
  ChatDB db(path, "US");
  const auto messages = extract(db, o);

  // Non-message items are the only rows extraction drops.
  EXPECT_EQ(static_cast<std::int64_t>(messages.size()), s.oneToOne.rows - s.oneToOne.events);
  std::set<std::string> guids;
  std::int64_t reactions = 0, withAttachments = 0, replies = 0;
  for (const auto& m : messages) guids.insert(m.message.guid);
  for (const auto& m : messages) {
    const auto& msg = m.message;
    EXPECT_EQ(msg.text.find("\xEF\xBF\xBC"), std::string::npos) << msg.guid;
    EXPECT_FALSE(msg.text.empty() && msg.attachments.empty()) << msg.guid;
    if (msg.reaction) {
      ++reactions;
      EXPECT_TRUE(msg.attachments.empty());
      // Tap-backs point at a message of the same extraction.
      ASSERT_TRUE(msg.replyToGuid.has_value()) << msg.guid;
      EXPECT_TRUE(guids.contains(*msg.replyToGuid)) << *msg.replyToGuid;
    } else if (msg.replyToGuid) {
      ++replies;
      EXPECT_TRUE(guids.contains(*msg.replyToGuid)) << *msg.replyToGuid;
    }
    if (!msg.attachments.empty()) ++withAttachments;
  }
  EXPECT_EQ(reactions, s.oneToOne.reactions);
  EXPECT_EQ(withAttachments, s.oneToOne.withAttachments);
  EXPECT_EQ(replies, s.oneToOne.replies);
  EXPECT_GT(reactions, 0);
  EXPECT_GT(withAttachments, 0);
  EXPECT_GT(replies, 0);
}

TEST_F(GeneratedDbTest, TextsOnlyInAttributedBodyExtractToText) {
  GeneratorOptions o = smallOptions();
  o.attachments = 0;  // every row then has text of its own
  const GenerationSummary s = generate(o);
  ChatDB db(path, "US");
  std::map<std::string, std::string> textByGuid;
  for (const auto& m : extract(db, o)) {
    textByGuid[m.message.guid] = m.message.text;
  }

  SQLiteDB raw(path, /*readOnly=*/true);
  const auto bodyOnly =
      raw.query("SELECT guid FROM message WHERE text IS NULL AND attributedBody IS NOT NULL");
  EXPECT_EQ(static_cast<std::int64_t>(bodyOnly.size()),
            s.oneToOne.bodyOnly + s.groups.bodyOnly + s.self.bodyOnly);
  std::int64_t checked = 0;
  for (const auto& row : bodyOnly) {
    const auto found = textByGuid.find(*row["guid"].string());
    if (found == textByGuid.end()) continue;  // a group's or a note
    EXPECT_FALSE(found->second.empty()) << found->first;
    ++checked;
  }
  EXPECT_EQ(checked, s.oneToOne.bodyOnly);
}

TEST_F(GeneratedDbTest, ZeroSharesLeaveTheirKindOut) {
  GeneratorOptions o = smallOptions();
  o.reactions = o.attachments = o.replies = o.bodyOnly = 0;
  generate(o);
  SQLiteDB raw(path, /*readOnly=*/true);
  EXPECT_EQ(countRows(raw, "SELECT COUNT(*) FROM message WHERE associated_message_type != 0"), 0);
  EXPECT_EQ(countRows(raw, "SELECT COUNT(*) FROM message WHERE thread_originator_guid IS NOT NULL"),
            0);
  EXPECT_EQ(countRows(raw, "SELECT COUNT(*) FROM message WHERE text IS NULL AND item_type = 0"), 0);
  // Link previews alone remain: they come with links, not with the share.
  EXPECT_EQ(countRows(raw,
                      "SELECT COUNT(*) FROM attachment WHERE transfer_name NOT LIKE "
                      "'%.pluginPayloadAttachment'"),
            0);
}

TEST_F(GeneratedDbTest, OwnHandlesAndNotesToSelf) {
  GeneratorOptions o = smallOptions();
  o.ownHandles = {"(206) 555-0177", "Me.Myself@Example.org"};
  generate(o);
  ChatDB db(path, "US");
  const auto own = db.ownHandles(0, ChatDB::ownHandlesMax);
  EXPECT_EQ(std::set<std::string>(own.begin(), own.end()),
            (std::set<std::string>{"+12065550177", "me.myself@example.org"}));

  std::vector<std::int64_t> selfChats;
  for (const auto& chat : db.oneToOneChats()) {
    if (chat.handle == "+12065550177") selfChats.push_back(chat.chatId);
  }
  ASSERT_EQ(selfChats.size(), 1u);
  const auto notes = db.selfRows(selfChats, 0, db.maxRowId());
  EXPECT_EQ(static_cast<std::int64_t>(notes.size()), o.selfNotes);
  for (const auto& note : notes) EXPECT_TRUE(note.isFromMe);

  const RosterSummary roster = readRoster(path, 1000);
  for (const auto& handle : roster.roster) {
    EXPECT_NE(handle, "+12065550177");
    EXPECT_NE(handle, "me.myself@example.org");
  }
}

TEST_F(GeneratedDbTest, DatesFallInTheSpanAndRiseWithRowIds) {
  for (const bool seconds : {false, true}) {
    SCOPED_TRACE(seconds ? "seconds" : "nanoseconds");
    GeneratorOptions o = smallOptions();
    o.seconds = seconds;
    o.endMs = 1718000000000;
    o.days = 10;
    generate(o, seconds ? "seconds.db" : "nanos.db");

    SQLiteDB raw(path, /*readOnly=*/true);
    const auto rows = raw.query("SELECT date FROM message ORDER BY ROWID");
    ASSERT_EQ(static_cast<std::int64_t>(rows.size()), o.messages);
    std::int64_t previous = 0;
    for (const auto& row : rows) {
      const std::int64_t date = *row.at(0).int64();
      EXPECT_EQ(date < 100000000000, seconds);
      EXPECT_GE(date, previous);
      previous = date;
    }
    ChatDB db(path, "US");
    for (const auto& m : extract(db, o)) {
      EXPECT_GE(m.sentAtMs, o.endMs - o.days * kDayMs - 1000);
      EXPECT_LE(m.sentAtMs, o.endMs);
    }
  }
}

TEST_F(GeneratedDbTest, RosterIsTheMostActiveCorrespondents) {
  const GeneratorOptions o = smallOptions();
  generate(o);
  const RosterSummary summary = readRoster(path, 5);
  ASSERT_EQ(summary.roster.size(), 5u);

  // Count each person's messages through extraction, iMessage and SMS together.
  ChatDB db(path, "US");
  std::map<std::string, std::int64_t> counts;
  for (const auto& m : extract(db, o)) {
    if (!m.message.reaction) ++counts[m.message.handle];
  }
  std::vector<std::pair<std::int64_t, std::string>> ranked;
  for (const auto& [handle, n] : counts) ranked.emplace_back(-n, handle);
  std::sort(ranked.begin(), ranked.end());
  for (std::size_t i = 0; i < summary.roster.size(); ++i) {
    EXPECT_EQ(summary.roster[i], ranked[i].second) << i;
  }
  EXPECT_EQ(summary.maxRowId, o.messages);
  EXPECT_EQ(summary.oneToOneChats, o.chats + 1);
}

TEST_F(GeneratedDbTest, TheSeedDecidesTheFile) {
  GeneratorOptions o = smallOptions();
  generate(o, "a.db");
  const std::string a = readFile(path);
  generate(o, "b.db");
  const std::string b = readFile(path);
  o.seed = 2;
  generate(o, "c.db");
  const std::string c = readFile(path);
  EXPECT_FALSE(a.empty());
  EXPECT_TRUE(a == b) << "the same seed wrote different files";
  EXPECT_FALSE(a == c) << "another seed wrote the same file";
}

TEST(GeneratorOptionsTest, RefusesOptionsThatCantMakeADatabase) {
  const std::vector<std::pair<const char*, std::function<void(GeneratorOptions&)>>> cases = {
      {"negative share", [](GeneratorOptions& o) { o.reactions = -0.1; }},
      {"share above one", [](GeneratorOptions& o) { o.bodyOnly = 1.5; }},
      {"tap-backs and attachments over one",
       [](GeneratorOptions& o) { o.reactions = 0.6, o.attachments = 0.5; }},
      {"more notes than messages", [](GeneratorOptions& o) { o.selfNotes = o.messages + 1; }},
      {"messages without chats", [](GeneratorOptions& o) { o.chats = o.groups = 0; }},
      {"no days", [](GeneratorOptions& o) { o.days = 0; }},
      {"dates before 2001", [](GeneratorOptions& o) { o.endMs = 1000000000000, o.days = 400; }},
      {"no own handle", [](GeneratorOptions& o) { o.ownHandles.clear(); }},
      {"own handle that isn't one", [](GeneratorOptions& o) { o.ownHandles = {"12345"}; }},
  };
  for (const auto& [name, change] : cases) {
    GeneratorOptions o;
    change(o);
    EXPECT_THROW(validate(o), std::invalid_argument) << name;
  }
  GeneratorOptions notesOnly;
  notesOnly.messages = notesOnly.selfNotes = 5;
  notesOnly.chats = notesOnly.groups = 0;
  EXPECT_NO_THROW(validate(notesOnly));
}

TEST(RandomTest, DrawsStayInRangeAndZeroWeightsAreNeverPicked) {
  Random random(7);
  std::set<std::uint64_t> seen;
  for (int i = 0; i < 1000; ++i) {
    const auto x = random.below(6);
    ASSERT_LT(x, 6u);
    seen.insert(x);
    const auto y = random.between(-3, 3);
    ASSERT_GE(y, -3);
    ASSERT_LE(y, 3);
    EXPECT_FALSE(random.chance(0));
    EXPECT_TRUE(random.chance(1));
  }
  EXPECT_EQ(seen.size(), 6u);
  EXPECT_EQ(random.between(INT64_MIN, INT64_MIN), INT64_MIN);

  const WeightedPicker picker({3, 0, 1});
  for (int i = 0; i < 1000; ++i) EXPECT_NE(picker.pick(random), 1u);
  EXPECT_THROW(WeightedPicker({0, 0}), std::invalid_argument);
}

}  // namespace
}  // namespace corvane::chatdbgen
