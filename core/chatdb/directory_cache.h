// DirectoryCache: the directory's per-chat aggregates (message count, newest
// date, latest message) kept between sync cycles, so that a cycle in which
// the Messages database did not change costs a few tiny statements instead
// of a scan of every message, and one in which a message arrived or went
// away reads only what changed. Its directory is the one
// ChatDB::buildDirectory gives for the same database state.
//
// It keeps its own read-only, query_only connection open across cycles and
// asks it "PRAGMA data_version", which changes whenever another connection
// (the Messages application) committed. Every build reads in one short read
// transaction that ends before it returns, so the connection never holds back
// the database's checkpoints. A replaced file (another device or inode, a
// changed schema) starts over; a kind of change that can't be told apart
// cheaply falls back to reading every aggregate again.
//
// Owned by the daemon or the application's sync loop and handed to each cycle
// (CycleDeps::directoryCache). Safe to call from any thread; calls serialise
// on the cache's lock.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "core/chatdb/chat_db.h"
#include "core/contacts/contact_book.h"
#include "core/protocol/wire_types.h"

namespace corvane {

class DirectoryCache {
 public:
  // How the last build brought the aggregates up to date.
  enum class Refresh {
    unchanged,    // nothing was committed since the previous build
    incremental,  // new messages added, changed chats read again
    full,         // every aggregate read afresh
  };

  DirectoryCache();
  ~DirectoryCache();
  DirectoryCache(const DirectoryCache&) = delete;
  DirectoryCache& operator=(const DirectoryCache&) = delete;

  // The directory of the database at `path` for the one-to-one `chats` the
  // caller read from it: the same entries, in the same order, as
  // ChatDB::buildDirectory(sinceMs, contacts, exclude, &chats). Throws what
  // ChatDB throws (OpenError, SQLiteError); a failed build forgets everything.
  std::vector<DirectoryEntry> buildDirectory(const std::string& path, std::int64_t sinceMs,
                                             const ContactBook& contacts,
                                             const std::set<std::string>& exclude,
                                             const std::vector<ChatDB::OneToOneChat>& chats);

  // reader.oneToOneChats() for the database at `path`, read through `reader`
  // only when the database changed since the last call (or the region did):
  // the statement and the normalising of every handle cost more than the
  // rest of a cycle in which nothing happened.
  std::vector<ChatDB::OneToOneChat> oneToOneChats(const std::string& path, ChatDB& reader);

  // Forgets everything and closes the connection; the next build starts over.
  void clear();

  // What the last successful build did; absent before the first one.
  std::optional<Refresh> lastRefresh() const;

 private:
  struct State;
  std::unique_ptr<State> fresh(const std::string& path);
  // state_, for the file now at `path`.
  State& stateFor(const std::string& path);
  std::vector<DirectoryEntry> build(const std::string& path, std::int64_t sinceMs,
                                    const ContactBook& contacts,
                                    const std::set<std::string>& exclude,
                                    const std::vector<ChatDB::OneToOneChat>& chats);

  mutable std::mutex mutex_;
  std::unique_ptr<State> state_;
  std::optional<Refresh> lastRefresh_;
};

}  // namespace corvane
