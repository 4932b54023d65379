// Writes a Messages-schema database of made-up conversations: one-to-one
// chats (some people over both iMessage and SMS), group chats, a notes-to-self
// chat with the user's own handle, tap-backs, thread replies, attachments and
// texts kept only in attributedBody, spread over a span of days. The demo,
// the end-to-end tests and the benchmarks read such databases.
//
// The same options, seed included, give the same rows on every platform and
// standard library, and the same file byte for byte with the same SQLite.
// Generation is single-threaded and touches no shared state.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace corvane::chatdbgen {

struct GeneratorOptions {
  // Message rows in all, notes to self included.
  std::int64_t messages = 10000;
  // One-to-one chats with other people; about one in 25 is an SMS chat with
  // someone who also has an iMessage chat.
  std::int64_t chats = 200;
  std::int64_t groups = 20;
  // Shares, each between 0 and 1. bodyOnly is of the rows with text, the
  // others of all rows of chats with other people.
  double bodyOnly = 0.5;
  double reactions = 0.1;
  double attachments = 0.15;
  double replies = 0.05;
  // Rows of the notes-to-self chat; 0 leaves the chat out.
  std::int64_t selfNotes = 20;
  // Dates fall in the `days` days up to endMs (Unix ms).
  std::int64_t days = 730;
  std::int64_t endMs = 1735689600000;  // 2025-01-01T00:00:00Z
  std::uint64_t seed = 1;
  // Dates in seconds since 2001, as older systems stored them.
  bool seconds = false;
  // The user's phone numbers and addresses; the first owns the notes-to-self
  // chat. Stored as destination_caller_id and account of every row.
  std::vector<std::string> ownHandles = {"+12065550100", "Sam.Rivera@example.net"};
};

// What went into the rows of one kind of chat.
struct ChatCounts {
  std::int64_t rows = 0;
  std::int64_t events = 0;           // non-message items (item_type other than 0)
  std::int64_t reactions = 0;        // tap-backs, codes 2000 to 2006
  std::int64_t withAttachments = 0;  // messages with a photo, video, sticker, file...
  std::int64_t linkPreviews = 0;     // messages whose only attachment is a link preview
  std::int64_t replies = 0;          // messages with a thread_originator_guid
  std::int64_t bodyOnly = 0;         // rows whose text is only in attributedBody
};

struct GenerationSummary {
  std::int64_t oneToOneChats = 0;  // with other people
  std::int64_t smsChats = 0;       // of which over SMS
  std::int64_t groupChats = 0;
  ChatCounts oneToOne, groups, self;
};

// Throws std::invalid_argument with a sentence for the user when options
// can't make a database (a share outside 0..1, more notes than messages...).
void validate(const GeneratorOptions& options);

// Called with rows written so far and the total, about every tenth of the way.
using Progress = std::function<void(std::int64_t done, std::int64_t total)>;

// Writes the database to `path`, which must not exist yet. Throws
// std::invalid_argument for bad options and SQLiteError when writing fails.
GenerationSummary generateChatDb(const std::string& path, const GeneratorOptions& options,
                                 const Progress& progress = nullptr);

}  // namespace corvane::chatdbgen
