// The builder's bulk path, which the generator writes large databases with,
// must leave exactly the rows that inserting one at a time leaves.
#include <gtest/gtest.h>

#include "tests/support/chat_db_builder.h"
#include "tests/support/temp_dir.h"

namespace corvane::testing {
namespace {

std::vector<std::vector<SQLValue>> tableRows(SQLiteDB& db, const std::string& table) {
  std::vector<std::vector<SQLValue>> rows;
  for (const auto& row : db.query("SELECT * FROM " + table + " ORDER BY 1, 2")) {
    std::vector<SQLValue> values;
    for (std::size_t i = 0; i < row.size(); ++i) values.push_back(row.at(i));
    rows.push_back(std::move(values));
  }
  return rows;
}

// Enough rows that every table needs several multi-row statements, with a
// mix of what the builder decides itself: dates, GUIDs, storage and flags.
std::vector<ChatMessage> sampleMessages(std::int64_t chatA, std::int64_t chatB) {
  std::vector<ChatMessage> batch;
  for (int i = 0; i < 150; ++i) {
    MessageSpec spec{.text = "message " + std::to_string(i), .fromMe = i % 3 == 0};
    if (i % 5 == 0) spec.storage = TextStorage::attributedBody;
    if (i % 7 == 0) spec.amt = 2001, spec.associatedGuid = "p:0/MSG-1";
    if (i % 11 == 0) spec.nullDate = true;
    if (i % 13 == 0) spec.cacheHasAttachments = SQLValue(0);
    if (i % 17 == 0) spec.guid = "G-" + std::to_string(i);
    batch.push_back({i % 2 ? chatA : chatB, spec});
  }
  return batch;
}

TEST(BulkBuilderTest, WritesTheSameRowsAsOneAtATime) {
  for (const auto& schema : {ChatDbSchema::full(), ChatDbSchema::minimal()}) {
    TempDir dir;
    ChatDbBuilder single(dir.file("single.db"), schema);
    ChatDbBuilder bulk(dir.file("bulk.db"), schema);
    std::vector<std::int64_t> singleIds, bulkIds;
    for (ChatDbBuilder* b : {&single, &bulk}) {
      const auto a = b->oneToOne("+14155550100");
      const auto g = b->chat({b->handle("a@example.org"), b->handle("+14155550101")}, 43);
      b->message(a, "before");  // bulk ROWIDs continue after single ones
      const auto batch = sampleMessages(a, g);
      std::vector<std::int64_t>& ids = b == &single ? singleIds : bulkIds;
      if (b == &single) {
        for (const auto& m : batch) ids.push_back(b->message(m.chat, m.spec));
      } else {
        ids = b->messages(batch);
      }
      std::vector<MessageAttachment> files;
      for (std::size_t i = 0; i < ids.size(); i += 4) {
        files.push_back({ids[i], {.mime = "image/jpeg", .transferName = "IMG.jpeg"}});
        files.push_back({ids[i], {.uti = "public.png", .sticker = i % 8 == 0}});
      }
      if (b == &single) {
        for (const auto& f : files) b->attachment(f.message, f.spec);
      } else {
        b->attachments(files);
      }
      b->message(a, "after");
    }
    EXPECT_EQ(singleIds, bulkIds);
    for (const char* table : {"message", "chat_message_join", "attachment",
                              "message_attachment_join", "sqlite_sequence"}) {
      EXPECT_EQ(tableRows(single.db(), table), tableRows(bulk.db(), table)) << table;
    }
    EXPECT_EQ(single.guidOf(bulkIds[17]), "G-17");
    EXPECT_EQ(bulk.guidOf(bulkIds[17]), "G-17");
    EXPECT_THROW(bulk.guidOf(100000), std::out_of_range);
  }
}

}  // namespace
}  // namespace corvane::testing
