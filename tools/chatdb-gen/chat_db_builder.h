// Writes Messages-schema databases for the generator, the tests and the benchmarks:
//
//   ChatDbBuilder db(dir.file("chat.db"));
//   auto alex = db.oneToOne("+14155550100");
//   auto hi = db.message(alex, {.text = "hi"});
//   db.message(alex, {.amt = 2001, .associatedGuid = "p:0/" + db.guidOf(hi)});
//
// The schema can leave out optional columns and the attachment table, store
// dates in nanoseconds or seconds, and keep texts in "text" or only in
// "attributedBody", so one test can pin down each schema generation.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "core/chatdb/sqlite_db.h"

namespace corvane::chatdbgen {

struct ChatDbSchema {
  // Optional columns of "message", "attachment" and "handle" to leave out.
  std::set<std::string> omitMessageColumns;
  std::set<std::string> omitAttachmentColumns;
  bool handleCountry = true;
  bool attachmentTable = true;

  // Every optional column present.
  static ChatDbSchema full() { return {}; }
  // Only the columns every schema version has.
  static ChatDbSchema minimal();
  // The optional columns of "message" the reader knows about.
  static const std::vector<std::string>& optionalMessageColumns();
};

enum class DateUnit { nanoseconds, seconds };
enum class TextStorage { column, attributedBody, both };

struct MessageSpec {
  std::optional<std::string> text = std::nullopt;
  bool fromMe = false;
  // Unix ms; when absent the builder's clock gives each message a minute more.
  std::optional<std::int64_t> dateMs = std::nullopt;
  // Stored as is in "date", bypassing conversion (0, odd units).
  std::optional<std::int64_t> rawDate = std::nullopt;
  bool nullDate = false;
  std::optional<std::string> service = "iMessage";
  std::int64_t amt = 0;
  std::optional<std::string> associatedGuid = std::nullopt;
  std::optional<std::string> threadGuid = std::nullopt;
  std::int64_t itemType = 0;
  std::int64_t error = 0;
  std::optional<std::string> guid = std::nullopt;  // generated when absent
  std::optional<TextStorage> storage = std::nullopt;  // the builder's default when absent
  std::optional<std::string> destinationCallerId = std::nullopt;
  std::optional<std::string> account = std::nullopt;
  // Raw attributedBody bytes, overriding the encoded text.
  std::optional<Bytes> attributedBody = std::nullopt;
  // Stored "cache_has_attachments"; when absent it follows attachment().
  std::optional<SQLValue> cacheHasAttachments = std::nullopt;
};

struct AttachmentSpec {
  std::optional<std::string> mime = std::nullopt;
  std::optional<std::string> uti = std::nullopt;
  std::optional<std::string> transferName = std::nullopt;
  bool sticker = false;
};

// One entry of a bulk insert.
struct ChatMessage {
  std::int64_t chat = 0;
  MessageSpec spec;
};
struct MessageAttachment {
  std::int64_t message = 0;
  AttachmentSpec spec;
};

class ChatDbBuilder {
 public:
  explicit ChatDbBuilder(std::string path, ChatDbSchema schema = ChatDbSchema::full(),
                         DateUnit unit = DateUnit::nanoseconds,
                         TextStorage storage = TextStorage::column);
  ChatDbBuilder(const ChatDbBuilder&) = delete;
  ChatDbBuilder& operator=(const ChatDbBuilder&) = delete;

  const std::string& path() const { return db_.path(); }
  SQLiteDB& db() { return db_; }

  std::int64_t handle(const std::string& id, std::optional<std::string> country = std::nullopt,
                      const std::string& service = "iMessage");
  std::int64_t chat(const std::vector<std::int64_t>& handles, std::optional<std::int64_t> style = 45,
                    const std::string& service = "iMessage");
  // A handle and its one-to-one chat; returns the chat ROWID.
  std::int64_t oneToOne(const std::string& id, const std::string& service = "iMessage",
                        std::optional<std::string> country = std::nullopt);

  // Adds a message to `chat` and returns its ROWID.
  std::int64_t message(std::int64_t chat, const MessageSpec& spec);
  std::int64_t message(std::int64_t chat, const std::string& text) {
    return message(chat, MessageSpec{.text = text});
  }
  // Many messages or attachments with a few multi-row statements: what
  // databases of a million messages need. Return the new ROWIDs in order.
  std::vector<std::int64_t> messages(const std::vector<ChatMessage>& batch);
  std::vector<std::int64_t> attachments(const std::vector<MessageAttachment>& batch);

  // Joins an existing message to another chat as well.
  void join(std::int64_t chat, std::int64_t message);
  std::int64_t attachment(std::int64_t message, const AttachmentSpec& spec);

  // Throws std::out_of_range for a message this builder didn't write.
  std::string guidOf(std::int64_t message) const;
  // The date stored for a Unix-ms time in this builder's unit.
  std::int64_t storedDate(std::int64_t ms) const;
  // Runs `body` in one transaction (for large databases).
  void transaction(const std::function<void()>& body);

  // Unix ms the automatic clock starts at: 2024-01-01T00:00:00Z.
  static constexpr std::int64_t kStartMs = 1704067200000;

 private:
  // A row under construction: column names and their values.
  struct Row {
    std::vector<std::string> columns;
    std::vector<SQLValue> values;
    Row& set(const std::string& column, SQLValue value);
  };

  void createSchema();
  bool hasMessageColumn(const std::string& c) const { return !schema_.omitMessageColumns.contains(c); }
  // Rows with explicit ROWIDs, so that a bulk insert knows them in advance.
  Row messageRow(std::int64_t chat, const MessageSpec& spec, std::int64_t rowid);
  static Row joinRow(std::int64_t chat, std::int64_t message, const MessageSpec& spec,
                     const Row& messageRow);
  Row attachmentRow(const AttachmentSpec& spec, std::int64_t rowid);
  void noteMessage(std::int64_t rowid, const MessageSpec& spec);
  void flagAttachments(const std::vector<std::int64_t>& messages);
  std::int64_t insert(const std::string& table, const Row& row);
  // Inserts rows that name the same columns, many per statement.
  void insertMany(const std::string& table, std::vector<Row> rows);
  std::int64_t nextRowId(const std::string& table);

  // Mutable so that guidOf() can stay a const lookup.
  mutable SQLiteDB db_;
  ChatDbSchema schema_;
  DateUnit unit_;
  TextStorage storage_;
  std::int64_t clockMs_ = kStartMs;
  std::int64_t nextGuid_ = 1;
  std::map<std::int64_t, std::int64_t> firstHandleOfChat_;
  std::set<std::int64_t> explicitFlag_;  // messages whose attachment flag the test chose
};

}  // namespace corvane::chatdbgen
