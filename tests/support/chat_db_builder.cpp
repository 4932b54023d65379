#include "tests/support/chat_db_builder.h"

#include <stdexcept>

#include "core/chatdb/typed_stream.h"

namespace corvane::testing {
namespace {

constexpr std::int64_t kAppleEpochMs = 978307200000;

std::string joined(const std::vector<std::string>& parts, const std::string& sep) {
  std::string out;
  for (std::size_t i = 0; i < parts.size(); ++i) out += (i ? sep : "") + parts[i];
  return out;
}

SQLValue optionalText(const std::optional<std::string>& s) {
  return s ? SQLValue(*s) : SQLValue();
}

// Collects column names and values, then inserts them in one statement.
class Insert {
 public:
  explicit Insert(std::string table) : table_(std::move(table)) {}
  Insert& set(const std::string& column, SQLValue value) {
    columns_.push_back(column);
    values_.push_back(std::move(value));
    return *this;
  }
  std::int64_t into(SQLiteDB& db) const {
    std::vector<std::string> marks(columns_.size(), "?");
    return db.run("INSERT INTO " + table_ + " (" + joined(columns_, ", ") + ") VALUES (" +
                      joined(marks, ", ") + ")",
                  values_);
  }

 private:
  std::string table_;
  std::vector<std::string> columns_;
  std::vector<SQLValue> values_;
};

}  // namespace

const std::vector<std::string>& ChatDbSchema::optionalMessageColumns() {
  static const std::vector<std::string> kColumns = {
      "attributedBody",         "service",   "associated_message_type",
      "associated_message_guid", "thread_originator_guid", "item_type",
      "cache_has_attachments",  "error",     "destination_caller_id",
      "account"};
  return kColumns;
}

ChatDbSchema ChatDbSchema::minimal() {
  ChatDbSchema s;
  const auto& optional = optionalMessageColumns();
  s.omitMessageColumns = {optional.begin(), optional.end()};
  s.omitAttachmentColumns = {"uti", "transfer_name", "is_sticker"};
  s.handleCountry = false;
  return s;
}

ChatDbBuilder::ChatDbBuilder(std::string path, ChatDbSchema schema, DateUnit unit,
                             TextStorage storage)
    : db_(std::move(path), /*readOnly=*/false, /*create=*/true),
      schema_(std::move(schema)),
      unit_(unit),
      storage_(storage) {
  // Test databases need no durability; syncing every insert makes suites slow.
  db_.exec("PRAGMA synchronous = OFF; PRAGMA journal_mode = MEMORY");
  createSchema();
}

void ChatDbBuilder::createSchema() {
  const std::vector<std::pair<std::string, std::string>> optionalMessage = {
      {"service", "TEXT"},
      {"account", "TEXT"},
      {"error", "INTEGER DEFAULT 0"},
      {"cache_has_attachments", "INTEGER DEFAULT 0"},
      {"item_type", "INTEGER DEFAULT 0"},
      {"associated_message_guid", "TEXT DEFAULT NULL"},
      {"associated_message_type", "INTEGER DEFAULT 0"},
      {"attributedBody", "BLOB"},
      {"thread_originator_guid", "TEXT"},
      {"destination_caller_id", "TEXT"},
  };
  std::string message =
      "CREATE TABLE message (ROWID INTEGER PRIMARY KEY AUTOINCREMENT, guid TEXT UNIQUE NOT NULL, "
      "text TEXT, handle_id INTEGER DEFAULT 0, date INTEGER, is_from_me INTEGER DEFAULT 0";
  for (const auto& [name, type] : optionalMessage) {
    if (hasMessageColumn(name)) message += ", " + name + " " + type;
  }
  message += ");";

  std::string handle =
      "CREATE TABLE handle (ROWID INTEGER PRIMARY KEY AUTOINCREMENT UNIQUE, id TEXT NOT NULL, " +
      std::string(schema_.handleCountry ? "country TEXT, " : "") +
      "service TEXT NOT NULL, uncanonicalized_id TEXT, UNIQUE (id, service));";

  std::string attachment;
  if (schema_.attachmentTable) {
    attachment =
        "CREATE TABLE attachment (ROWID INTEGER PRIMARY KEY AUTOINCREMENT, guid TEXT UNIQUE NOT "
        "NULL, filename TEXT, mime_type TEXT";
    for (const char* c : {"uti", "transfer_name", "is_sticker"}) {
      if (!schema_.omitAttachmentColumns.contains(c)) {
        attachment += std::string(", ") + c + (std::string(c) == "is_sticker" ? " INTEGER DEFAULT 0" : " TEXT");
      }
    }
    attachment += ");";
  }

  db_.exec(message + handle + attachment +
           "CREATE TABLE chat (ROWID INTEGER PRIMARY KEY AUTOINCREMENT, guid TEXT UNIQUE NOT NULL, "
           "style INTEGER, state INTEGER, chat_identifier TEXT, service_name TEXT, "
           "display_name TEXT);"
           "CREATE TABLE chat_handle_join (chat_id INTEGER REFERENCES chat (ROWID) ON DELETE "
           "CASCADE, handle_id INTEGER REFERENCES handle (ROWID) ON DELETE CASCADE, "
           "UNIQUE(chat_id, handle_id));"
           "CREATE TABLE chat_message_join (chat_id INTEGER REFERENCES chat (ROWID) ON DELETE "
           "CASCADE, message_id INTEGER REFERENCES message (ROWID) ON DELETE CASCADE, "
           "message_date INTEGER DEFAULT 0, PRIMARY KEY (chat_id, message_id));"
           "CREATE TABLE message_attachment_join (message_id INTEGER REFERENCES message (ROWID) "
           "ON DELETE CASCADE, attachment_id INTEGER REFERENCES attachment (ROWID) ON DELETE "
           "CASCADE, UNIQUE(message_id, attachment_id));"
           "CREATE INDEX chat_message_join_idx_message_id ON chat_message_join(message_id);"
           "CREATE INDEX chat_message_join_idx_message_date_id_chat_id ON "
           "chat_message_join(chat_id, message_date, message_id);"
           "CREATE INDEX message_idx_date ON message(date);"
           "CREATE INDEX message_attachment_join_idx_message_id ON "
           "message_attachment_join(message_id);");
}

std::int64_t ChatDbBuilder::storedDate(std::int64_t ms) const {
  const std::int64_t sinceEpochMs = ms - kAppleEpochMs;
  return unit_ == DateUnit::nanoseconds ? sinceEpochMs * 1000000 : sinceEpochMs / 1000;
}

std::int64_t ChatDbBuilder::handle(const std::string& id, std::optional<std::string> country,
                                   const std::string& service) {
  Insert insert("handle");
  insert.set("id", id).set("service", service).set("uncanonicalized_id", id);
  if (schema_.handleCountry) insert.set("country", optionalText(country));
  return insert.into(db_);
}

std::int64_t ChatDbBuilder::chat(const std::vector<std::int64_t>& handles,
                                 std::optional<std::int64_t> style, const std::string& service) {
  const std::string guid = service + ";chat;" + std::to_string(nextGuid_++);
  const std::int64_t chat = Insert("chat")
                                .set("guid", guid)
                                .set("style", style ? SQLValue(*style) : SQLValue())
                                .set("chat_identifier", guid)
                                .set("service_name", service)
                                .into(db_);
  for (const auto h : handles) {
    db_.run("INSERT INTO chat_handle_join (chat_id, handle_id) VALUES (?, ?)", {chat, h});
  }
  if (!handles.empty()) firstHandleOfChat_[chat] = handles.front();
  return chat;
}

std::int64_t ChatDbBuilder::oneToOne(const std::string& id, const std::string& service,
                                     std::optional<std::string> country) {
  return chat({handle(id, std::move(country), service)}, 45, service);
}

std::int64_t ChatDbBuilder::message(std::int64_t chat, const MessageSpec& spec) {
  const std::int64_t ms = spec.dateMs.value_or(clockMs_ += 60000);
  const std::int64_t stored = spec.rawDate ? *spec.rawDate : storedDate(ms);
  const std::string guid = spec.guid.value_or("MSG-" + std::to_string(nextGuid_++));
  const TextStorage storage = spec.storage.value_or(storage_);

  Insert insert("message");
  insert.set("guid", guid)
      .set("date", spec.nullDate ? SQLValue() : SQLValue(stored))
      .set("is_from_me", spec.fromMe ? 1 : 0)
      .set("handle_id", spec.fromMe ? SQLValue(0)
                                    : SQLValue(firstHandleOfChat_.contains(chat)
                                                   ? firstHandleOfChat_.at(chat)
                                                   : 0))
      .set("text", storage == TextStorage::attributedBody ? SQLValue() : optionalText(spec.text));
  const auto optional = [&](const std::string& column, SQLValue value) {
    if (hasMessageColumn(column)) insert.set(column, std::move(value));
  };
  if (spec.attributedBody) {
    optional("attributedBody", *spec.attributedBody);
  } else if (spec.text && storage != TextStorage::column) {
    optional("attributedBody", TypedStream::encodeAttributedBody(*spec.text));
  }
  optional("service", optionalText(spec.service));
  optional("associated_message_type", spec.amt);
  optional("associated_message_guid", optionalText(spec.associatedGuid));
  optional("thread_originator_guid", optionalText(spec.threadGuid));
  optional("item_type", spec.itemType);
  optional("error", spec.error);
  optional("destination_caller_id", optionalText(spec.destinationCallerId));
  optional("account", optionalText(spec.account));
  optional("cache_has_attachments", spec.cacheHasAttachments.value_or(SQLValue(0)));
  const std::int64_t rowid = insert.into(db_);
  guids_[rowid] = guid;
  db_.run("INSERT INTO chat_message_join (chat_id, message_id, message_date) VALUES (?, ?, ?)",
          {chat, rowid, spec.nullDate ? 0 : stored});
  if (!spec.cacheHasAttachments) explicitFlag_.erase(rowid);
  else explicitFlag_.insert(rowid);
  return rowid;
}

void ChatDbBuilder::join(std::int64_t chat, std::int64_t message) {
  db_.run("INSERT INTO chat_message_join (chat_id, message_id) VALUES (?, ?)", {chat, message});
}

std::int64_t ChatDbBuilder::attachment(std::int64_t message, const AttachmentSpec& spec) {
  if (!schema_.attachmentTable) throw std::logic_error("this schema has no attachment table");
  Insert insert("attachment");
  insert.set("guid", "ATT-" + std::to_string(nextGuid_++)).set("mime_type", optionalText(spec.mime));
  const auto optional = [&](const std::string& column, SQLValue value) {
    if (!schema_.omitAttachmentColumns.contains(column)) insert.set(column, std::move(value));
  };
  optional("uti", optionalText(spec.uti));
  optional("transfer_name", optionalText(spec.transferName));
  optional("is_sticker", spec.sticker ? 1 : 0);
  const std::int64_t id = insert.into(db_);
  db_.run("INSERT INTO message_attachment_join (message_id, attachment_id) VALUES (?, ?)",
          {message, id});
  if (hasMessageColumn("cache_has_attachments") && !explicitFlag_.contains(message)) {
    db_.run("UPDATE message SET cache_has_attachments = 1 WHERE ROWID = ?", {message});
  }
  return id;
}

void ChatDbBuilder::transaction(const std::function<void()>& body) {
  db_.exec("BEGIN");
  try {
    body();
  } catch (...) {
    db_.exec("ROLLBACK");
    throw;
  }
  db_.exec("COMMIT");
}

}  // namespace corvane::testing
