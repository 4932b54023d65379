// Read-only view of the Messages database ("chat.db"), which the Messages
// application owns and writes. Opening classifies why the file can't be read
// (above all: no Full Disk Access); queries name optional columns only when
// this database has them, so one build reads old and new schema versions.
//
// Nothing is ever written: the file is opened read-only with query_only on,
// and every value is bound as a parameter. A ChatDB is used by one thread at
// a time; reads wait up to 5 s for the Messages application's write lock.
#pragma once

#include <cstdint>
#include <exception>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "core/chatdb/sqlite_db.h"
#include "core/contacts/contact_book.h"
#include "core/protocol/wire_types.h"

namespace corvane {

class ChatDB {
 public:
  // Unix milliseconds of 2001-01-01T00:00:00Z, the epoch of the date columns.
  static constexpr std::int64_t appleEpochMs = 978307200000;
  static constexpr int ownHandlesMax = 20;

  // Why the database could not be opened. what() is the sentence shown to the user.
  class OpenError : public std::exception {
   public:
    enum class Kind { missing, fullDiskAccess, other };

    static OpenError missing(std::string path);
    static OpenError fullDiskAccess(std::string path, std::string detail);
    static OpenError other(std::string message);

    Kind kind() const { return kind_; }
    const std::string& path() const { return path_; }
    // The operating system's or SQLite's text for fullDiskAccess; not shown.
    const std::string& detail() const { return detail_; }
    const std::string& description() const { return description_; }
    const char* what() const noexcept override { return description_.c_str(); }
    bool operator==(const OpenError& o) const {
      return kind_ == o.kind_ && path_ == o.path_ && detail_ == o.detail_ &&
             description_ == o.description_;
    }

   private:
    OpenError(Kind kind, std::string path, std::string detail, std::string description);
    Kind kind_;
    std::string path_, detail_, description_;
  };

  // Result of the stand-alone readability probe.
  struct Access {
    enum class Kind { ok, other, missing, noFullDiskAccess };
    Kind kind = Kind::ok;
    std::int64_t maxRowId = 0;  // ok only
    std::string message;        // other only
    bool operator==(const Access&) const = default;
  };

  struct ExtractedMessage {
    std::int64_t rowid = 0;
    std::int64_t sentAtMs = 0;
    SyncedMessage message;
    bool operator==(const ExtractedMessage&) const = default;
  };

  // Chat ROWID → the roster handle that chat belongs to.
  using ChatMap = std::map<std::int64_t, std::string>;

  // A chat with exactly one handle that is not a group (style 43).
  struct OneToOneChat {
    std::int64_t chatId = 0;
    std::int64_t handleRowId = 0;
    std::string rawHandle;              // as stored
    std::optional<std::string> handle;  // normalised
    std::optional<std::string> service;
    bool operator==(const OneToOneChat&) const = default;
  };

  // A row of the user's notes-to-self chats.
  struct SelfRow {
    std::int64_t rowid = 0;
    std::string guid;
    std::string text;
    bool isFromMe = false;
    std::int64_t sentAtMs = 0;
    std::int64_t error = 0;
    bool operator==(const SelfRow&) const = default;
  };

  // A row the user sent, for confirming that a send went out.
  struct OutgoingRow {
    std::int64_t rowid = 0;
    std::string text;
    std::int64_t error = 0;
    std::optional<std::string> service;
    bool operator==(const OutgoingRow&) const = default;
  };

  // Opens `path` read-only and checks it can be read. Throws OpenError.
  ChatDB(std::string path, std::optional<std::string> region);
  ChatDB(const ChatDB&) = delete;
  ChatDB& operator=(const ChatDB&) = delete;

  const std::string& path() const { return path_; }
  const std::optional<std::string>& region() const { return region_; }
  const std::set<std::string>& messageCols() const { return messageCols_; }
  const std::set<std::string>& attachmentCols() const { return attachmentCols_; }
  const std::set<std::string>& handleCols() const { return handleCols_; }

  // Safe to call twice.
  void close() { db_->close(); }

  // The read-only, query_only connection, for readers layered on ChatDB
  // (DirectoryCache) that run statements of their own.
  SQLiteDB& connection() { return *db_; }

  // See SQLiteDB::setStatementObserver.
  void setStatementObserver(SQLiteDB::StatementObserver observer) {
    db_->setStatementObserver(std::move(observer));
  }

  // The highest message ROWID, 0 for an empty table. Throws SQLiteError.
  std::int64_t maxRowId();

  // Messages of the mapped chats with cursor < ROWID <= upTo, in ROWID order.
  // Throws SQLiteError.
  std::vector<ExtractedMessage> messagesAfter(const ChatMap& chats, std::int64_t cursor,
                                              std::int64_t upTo);
  // Messages of the mapped chats dated at or after `sinceMs` with ROWID <= upTo.
  std::vector<ExtractedMessage> messagesSince(const ChatMap& chats, std::int64_t sinceMs,
                                              std::int64_t upTo);

  // Every one-to-one chat; several may share a handle (iMessage and SMS).
  std::vector<OneToOneChat> oneToOneChats();
  // Chat id → roster handle for the chats of `handles`: exact matches first,
  // then phone numbers on their last ten digits. Reads oneToOneChats() when
  // `chats` is not given.
  ChatMap chatsForHandles(const std::vector<std::string>& handles,
                          const std::optional<std::vector<OneToOneChat>>& chats = std::nullopt);
  // One entry per correspondent active since `sinceMs`, newest first, with
  // names from `contacts`; handles in `exclude` are left out. Reads
  // oneToOneChats() unless the caller has them already.
  std::vector<DirectoryEntry> buildDirectory(std::int64_t sinceMs, const ContactBook& contacts,
                                             const std::set<std::string>& exclude,
                                             const std::vector<OneToOneChat>* chats = nullptr);

  // An active one-to-one chat as the directory sees it: its aggregate and
  // what its latest message says.
  struct ChatActivity {
    const OneToOneChat* chat = nullptr;  // with a handle
    std::int64_t lastMs = 0;
    std::int64_t count = 0;
    bool lastFromMe = false;
    std::optional<std::string> latestService;  // the latest message's "service"
  };
  // Merges `active` by handle in the given order (on equal times the chat
  // merged first wins), puts names from `contacts` on the entries and sorts
  // them newest first, then by handle. Shared by every directory reader.
  static std::vector<DirectoryEntry> directoryEntries(const std::vector<ChatActivity>& active,
                                                      const ContactBook& contacts);

  // The user's own addresses and numbers seen since `sinceMs`, at most `max`.
  std::vector<std::string> ownHandles(std::int64_t sinceMs, int max);
  // Plausible, normalised, distinct handles from raw account values, in order.
  static std::vector<std::string> ownHandles(const std::vector<std::string>& values,
                                             const std::optional<std::string>& region, int max);
  // ownHandles of the database at `path`; absent when it can't be read.
  static std::optional<std::vector<std::string>> detectOwnHandles(
      const std::string& path, const std::optional<std::string>& region,
      std::int64_t lookbackDays, std::int64_t now);
  // Texts of the given chats with cursor < ROWID <= upTo, each message once.
  std::vector<SelfRow> selfRows(const std::vector<std::int64_t>& chatIds, std::int64_t cursor,
                                std::int64_t upTo);
  // Rows sent from this account after `rowid`, including ones without text.
  std::vector<OutgoingRow> outgoingAfter(std::int64_t rowid);

  // The message statement with `where` spliced in, and the attachment
  // statement for `count` ids, exactly as extraction runs them (benchmarks
  // step the same text).
  std::string messageSQL(const std::string& where) const;
  std::string attachmentSQL(std::size_t count) const;
  // The directory's statements, as buildDirectory runs them.
  std::string oneToOneChatsSQL() const;
  static std::string directoryAggregateSQL();
  std::string latestMessageSQL() const;
  static std::string ownHandlesSQL(const std::string& column);
  std::string outgoingSQL() const;

  static Access checkAccess(const std::string& path);
  // The error for a failed stat of `path` with `err` (an errno value).
  static OpenError statError(const std::string& path, int err);
  // (ms − appleEpochMs) × 1e6; aborts on overflow (callers pass clock times).
  static std::int64_t toAppleNanos(std::int64_t ms);
  // ~/Library/Messages/chat.db.
  static std::string defaultPath();

  static std::optional<AttachmentKind> attachmentKind(const std::optional<std::string>& mime,
                                                      const std::optional<std::string>& uti,
                                                      const std::optional<std::string>& transferName,
                                                      bool isSticker);
  // Removes U+FFFC and NUL, trims white space and line breaks.
  static std::string cleanText(const std::optional<std::string>& s);
  // Drops the "bp:" or "p:N/" part-index prefix of a reply or reaction target.
  static std::optional<std::string> stripAssociatedGuid(const std::optional<std::string>& s);
  // Tap-back code → word; only these seven codes are reported.
  static std::optional<std::string> reactionWord(std::int64_t code);

 private:
  // "m.<col> AS <alias>" when the message table has the column, else "NULL AS <alias>".
  std::string messageItem(const std::string& column, const std::string& alias) const;
  std::string messageItem(const std::string& column) const { return messageItem(column, column); }
  std::vector<ExtractedMessage> extract(const ChatMap& chats, const std::string& where,
                                        std::vector<SQLValue> params);
  // Attachment kinds per message ROWID, sorted by ROWID.
  using AttachmentsByRow = std::vector<std::pair<std::int64_t, std::vector<AttachmentKind>>>;
  AttachmentsByRow attachmentsFor(const std::vector<std::int64_t>& rowids);

  std::string path_;
  std::optional<std::string> region_;
  std::unique_ptr<SQLiteDB> db_;
  std::set<std::string> messageCols_, attachmentCols_, handleCols_;
};

// Unix milliseconds from a date column: nanoseconds (current systems) or
// seconds (old ones) since 2001; 0 and NULL stay NULL. Spliced into SQL.
std::string appleDateToUnixMsSQL(const std::string& column);

// The text of a message row: the "text" column when non-empty, else the
// string in "attributedBody"; then cleaned. Shared by every row reader.
std::string extractMessageText(const SQLValue& text, const SQLValue& attributedBody);

}  // namespace corvane
