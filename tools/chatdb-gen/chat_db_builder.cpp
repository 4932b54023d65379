#include "tools/chatdb-gen/chat_db_builder.h"

#include <algorithm>
#include <stdexcept>

#include "core/chatdb/typed_stream.h"

namespace corvane::chatdbgen {
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

// SQLite's smallest limit on host parameters per statement (before 3.32).
constexpr std::size_t kMaxParameters = 999;

std::string placeholders(std::size_t count, const std::string& sep) {
  return joined(std::vector<std::string>(count, "?"), sep);
}

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
  Row row;
  row.set("id", id).set("service", service).set("uncanonicalized_id", id);
  if (schema_.handleCountry) row.set("country", optionalText(country));
  return insert("handle", row);
}

std::int64_t ChatDbBuilder::chat(const std::vector<std::int64_t>& handles,
                                 std::optional<std::int64_t> style, const std::string& service) {
  const std::string guid = service + ";chat;" + std::to_string(nextGuid_++);
  const std::int64_t chat = insert("chat", Row()
                                               .set("guid", guid)
                                               .set("style", style ? SQLValue(*style) : SQLValue())
                                               .set("chat_identifier", guid)
                                               .set("service_name", service));
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

ChatDbBuilder::Row& ChatDbBuilder::Row::set(const std::string& column, SQLValue value) {
  columns.push_back(column);
  values.push_back(std::move(value));
  return *this;
}

std::int64_t ChatDbBuilder::insert(const std::string& table, const Row& row) {
  return db_.run("INSERT INTO " + table + " (" + joined(row.columns, ", ") + ") VALUES (" +
                     placeholders(row.columns.size(), ", ") + ")",
                 row.values);
}

std::int64_t ChatDbBuilder::nextRowId(const std::string& table) {
  // Where AUTOINCREMENT would go on, so bulk rows can carry explicit ROWIDs.
  const auto rows = db_.query(
      "SELECT MAX(COALESCE((SELECT MAX(ROWID) FROM " + table +
          "), 0), COALESCE((SELECT seq FROM sqlite_sequence WHERE name = ?), 0)) + 1 AS next",
      {table});
  return rows.at(0)["next"].int64().value_or(1);
}

void ChatDbBuilder::insertMany(const std::string& table, std::vector<Row> rows) {
  if (rows.empty()) return;
  const std::vector<std::string>& columns = rows.front().columns;
  // Preparing is most of the cost of a one-row insert, so put as many rows
  // into one statement as the parameter limit allows.
  const std::size_t perStatement = std::max<std::size_t>(1, kMaxParameters / columns.size());
  const std::string head = "INSERT INTO " + table + " (" + joined(columns, ", ") + ") VALUES ";
  const std::string tuple = "(" + placeholders(columns.size(), ",") + ")";
  std::vector<SQLValue> values;
  for (std::size_t begin = 0; begin < rows.size(); begin += perStatement) {
    const std::size_t end = std::min(rows.size(), begin + perStatement);
    std::string sql = head;
    values.clear();
    for (std::size_t i = begin; i < end; ++i) {
      if (rows[i].columns != columns) {
        throw std::logic_error("rows of one bulk insert must name the same columns");
      }
      sql += (i > begin ? "," : "") + tuple;
      std::move(rows[i].values.begin(), rows[i].values.end(), std::back_inserter(values));
    }
    db_.run(sql, values);
  }
}

ChatDbBuilder::Row ChatDbBuilder::messageRow(std::int64_t chat, const MessageSpec& spec,
                                             std::int64_t rowid) {
  const std::int64_t ms = spec.dateMs.value_or(clockMs_ += 60000);
  const std::int64_t stored = spec.rawDate ? *spec.rawDate : storedDate(ms);
  const std::string guid = spec.guid.value_or("MSG-" + std::to_string(nextGuid_++));
  const TextStorage storage = spec.storage.value_or(storage_);

  Row row;
  row.set("ROWID", rowid)
      .set("guid", guid)
      .set("date", spec.nullDate ? SQLValue() : SQLValue(stored))
      .set("is_from_me", spec.fromMe ? 1 : 0)
      .set("handle_id",
           spec.fromMe
               ? SQLValue(0)
               : SQLValue(firstHandleOfChat_.contains(chat) ? firstHandleOfChat_.at(chat) : 0))
      .set("text", storage == TextStorage::attributedBody ? SQLValue() : optionalText(spec.text));
  const auto optional = [&](const std::string& column, SQLValue value) {
    if (hasMessageColumn(column)) row.set(column, std::move(value));
  };
  // Named even when NULL, so that the rows of a bulk insert share one column list.
  if (spec.attributedBody) {
    optional("attributedBody", *spec.attributedBody);
  } else if (spec.text && storage != TextStorage::column) {
    optional("attributedBody", TypedStream::encodeAttributedBody(*spec.text));
  } else {
    optional("attributedBody", SQLValue());
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
  return row;
}

ChatDbBuilder::Row ChatDbBuilder::joinRow(std::int64_t chat, std::int64_t message,
                                          const MessageSpec& spec, const Row& messageRow) {
  const auto date = std::find(messageRow.columns.begin(), messageRow.columns.end(), "date");
  const SQLValue& stored =
      messageRow.values[static_cast<std::size_t>(date - messageRow.columns.begin())];
  return Row()
      .set("chat_id", chat)
      .set("message_id", message)
      .set("message_date", spec.nullDate ? SQLValue(0) : stored);
}

void ChatDbBuilder::noteMessage(std::int64_t rowid, const MessageSpec& spec) {
  if (!spec.cacheHasAttachments) explicitFlag_.erase(rowid);
  else explicitFlag_.insert(rowid);
}

// One row at a time goes the bulk way too, so both write the same rows.
std::int64_t ChatDbBuilder::message(std::int64_t chat, const MessageSpec& spec) {
  return messages({{chat, spec}}).front();
}

std::vector<std::int64_t> ChatDbBuilder::messages(const std::vector<ChatMessage>& batch) {
  const std::int64_t first = nextRowId("message");
  std::vector<std::int64_t> ids;
  std::vector<Row> rows, joins;
  for (const auto& [chat, spec] : batch) {
    ids.push_back(first + static_cast<std::int64_t>(ids.size()));
    rows.push_back(messageRow(chat, spec, ids.back()));
    joins.push_back(joinRow(chat, ids.back(), spec, rows.back()));
    noteMessage(ids.back(), spec);
  }
  insertMany("message", std::move(rows));
  insertMany("chat_message_join", std::move(joins));
  return ids;
}

std::string ChatDbBuilder::guidOf(std::int64_t message) const {
  const auto rows = db_.query("SELECT guid FROM message WHERE ROWID = ?", {message});
  if (rows.empty()) throw std::out_of_range("no message " + std::to_string(message));
  return rows.front()["guid"].string().value_or("");
}

void ChatDbBuilder::join(std::int64_t chat, std::int64_t message) {
  db_.run("INSERT INTO chat_message_join (chat_id, message_id) VALUES (?, ?)", {chat, message});
}

ChatDbBuilder::Row ChatDbBuilder::attachmentRow(const AttachmentSpec& spec, std::int64_t rowid) {
  Row row;
  row.set("ROWID", rowid)
      .set("guid", "ATT-" + std::to_string(nextGuid_++))
      .set("mime_type", optionalText(spec.mime));
  const auto optional = [&](const std::string& column, SQLValue value) {
    if (!schema_.omitAttachmentColumns.contains(column)) row.set(column, std::move(value));
  };
  optional("uti", optionalText(spec.uti));
  optional("transfer_name", optionalText(spec.transferName));
  optional("is_sticker", spec.sticker ? 1 : 0);
  return row;
}

// Messages whose flag the caller left to the builder get it once they have
// an attachment.
void ChatDbBuilder::flagAttachments(const std::vector<std::int64_t>& messages) {
  if (!hasMessageColumn("cache_has_attachments")) return;
  std::vector<SQLValue> ids;
  for (const auto m : messages) {
    if (!explicitFlag_.contains(m)) ids.emplace_back(m);
  }
  for (std::size_t begin = 0; begin < ids.size(); begin += kMaxParameters) {
    const std::size_t end = std::min(ids.size(), begin + kMaxParameters);
    db_.run("UPDATE message SET cache_has_attachments = 1 WHERE ROWID IN (" +
                placeholders(end - begin, ",") + ")",
            {ids.begin() + static_cast<std::ptrdiff_t>(begin),
             ids.begin() + static_cast<std::ptrdiff_t>(end)});
  }
}

std::int64_t ChatDbBuilder::attachment(std::int64_t message, const AttachmentSpec& spec) {
  return attachments({{message, spec}}).front();
}

std::vector<std::int64_t> ChatDbBuilder::attachments(const std::vector<MessageAttachment>& batch) {
  if (!schema_.attachmentTable) throw std::logic_error("this schema has no attachment table");
  const std::int64_t first = nextRowId("attachment");
  std::vector<std::int64_t> ids, messages;
  std::vector<Row> rows, joins;
  for (const auto& [message, spec] : batch) {
    ids.push_back(first + static_cast<std::int64_t>(ids.size()));
    messages.push_back(message);
    rows.push_back(attachmentRow(spec, ids.back()));
    joins.push_back(Row().set("message_id", message).set("attachment_id", ids.back()));
  }
  insertMany("attachment", std::move(rows));
  insertMany("message_attachment_join", std::move(joins));
  flagAttachments(messages);
  return ids;
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

}  // namespace corvane::chatdbgen
