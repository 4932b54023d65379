// The database generator, checked through the agent's own reader: what
// ChatDB extracts from a generated file must match what the generator says
// it wrote, and the seed alone decides the file.
#include <gtest/gtest.h>

#include <set>

#include "core/chatdb/chat_db.h"
#include "tests/support/temp_dir.h"
#include "tests/support/text_file.h"
#include "tools/chatdb-gen/generator.h"

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

  // Every handle normalises.
  for (const auto& chat : chats) {
    ASSERT_TRUE(chat.handle.has_value()) << chat.rawHandle;
    EXPECT_TRUE(chat.handle->starts_with("+") || chat.handle->find('@') != std::string::npos)
        << chat.rawHandle << " → " << *chat.handle;
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
    EXPECT_GE(m.sentAtMs, o.endMs - o.days * kDayMs - 1000) << msg.guid;
    EXPECT_LE(m.sentAtMs, o.endMs) << msg.guid;
  }
  EXPECT_EQ(reactions, s.oneToOne.reactions);
  EXPECT_EQ(withAttachments, s.oneToOne.withAttachments);
  EXPECT_EQ(replies, s.oneToOne.replies);
  EXPECT_GT(reactions, 0);
  EXPECT_GT(withAttachments, 0);
  EXPECT_GT(replies, 0);
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

}  // namespace
}  // namespace corvane::chatdbgen
