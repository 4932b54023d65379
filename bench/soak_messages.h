// The Messages application's side of the soak: a connection of its own to the
// database, held open for the whole run, through which messages arrive, sent
// texts appear and messages are deleted, the way Messages writes them.
//
// Used from one thread only.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "core/chatdb/sqlite_db.h"
#include "core/send/osascript.h"

namespace corvane::bench {

class MessagesApp {
 public:
  // Opens the database at `path` for writing and learns its one-to-one chats,
  // keyed by handle normalised in `region`. `ownHandle` is the account that
  // every row is sent from or received on.
  MessagesApp(const std::string& path, const std::string& region, std::string ownHandle);

  // Adds a message in the one-to-one chat with `handle` (normalised), making
  // the handle and the chat first when Messages hasn't seen them; returns its
  // row id.
  std::int64_t write(const std::string& handle, const std::string& text, bool fromMe,
                     std::int64_t atMs, const std::string& service = "iMessage");
  // The normalised handles of every one-to-one chat.
  std::vector<std::string> handles() const;
  // Deletes a message with its chat link, as deleting it in Messages does.
  void remove(std::int64_t rowid);

  // Stands in for osascript: the send scripts take (text, handle), and
  // Messages writes the sent row at `nowMs()`.
  Osascript::Runner sendScriptRunner(std::function<std::int64_t()> nowMs);

 private:
  std::int64_t chatWith(const std::string& handle, const std::string& service);

  SQLiteDB db_;
  std::string region_;
  std::string ownHandle_;
  std::map<std::string, std::int64_t> chats_;    // normalised handle -> chat
  std::map<std::int64_t, std::int64_t> handles_;  // chat -> handle row
  std::int64_t nextGuid_ = 1;
};

}  // namespace corvane::bench
