// One sync cycle.
#include "core/sync/sync_engine.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <unordered_set>

#include "core/chatdb/chat_db.h"
#include "core/chatdb/directory_cache.h"
#include "core/contacts/phone.h"
#include "core/protocol/iso_time.h"
#include "core/protocol/wire_json.h"
#include "core/sync/cycle_failure.h"
#include "core/sync/digest.h"
#include "core/sync/self_channel.h"
#include "core/text/unicode.h"

namespace corvane::SyncEngine {
namespace {

// Lists kept for the self channel's echo and duplicate checks.
constexpr std::size_t kSentTextsKept = 200;

std::int64_t daysBefore(std::int64_t now, std::int64_t days) {
  std::int64_t span = 0, since = 0;
  if (__builtin_mul_overflow(days, dayMs, &span) || __builtin_sub_overflow(now, span, &since)) {
    std::fprintf(stderr, "sync: %lld days before %lld ms is out of range\n",
                 static_cast<long long>(days), static_cast<long long>(now));
    std::abort();
  }
  return since;
}

template <typename T>
std::vector<T> slice(const std::vector<T>& all, std::size_t index, std::size_t size) {
  const std::size_t begin = std::min(all.size(), index * size);
  const std::size_t end = std::min(all.size(), begin + size);
  return std::vector<T>(all.begin() + static_cast<std::ptrdiff_t>(begin),
                        all.begin() + static_cast<std::ptrdiff_t>(end));
}

std::size_t runsOf(std::size_t count, std::size_t size) { return (count + size - 1) / size; }

// The state of one cycle in progress; each stage is one member function.
class Cycle {
 public:
  explicit Cycle(const CycleDeps& deps) : deps_(deps), log_(*deps.log), now_(deps.now()) {}

  CycleResult run() {
    state_ = deps_.store->load();
    config_ = deps_.api->getConfig();
    if (deps_.stop.stopRequested()) throw CycleStopped();
    result_.pollIntervalSec = config_.pollIntervalSec;
    result_.rosterCount = static_cast<std::int64_t>(config_.rosterHandles.size());

    ChatDB db(deps_.chatDBPath, deps_.region);
    upTo_ = db.maxRowId();
    chats_ = deps_.directoryCache ? deps_.directoryCache->oneToOneChats(deps_.chatDBPath, db)
                                  : db.oneToOneChats();
    rosterChats_ = db.chatsForHandles(config_.rosterHandles, chats_);

    checkStop();
    syncMessagesAndDirectory(db);
    checkStop();
    runSelfChannel(db);
    checkStop();
    deliverOutbox();

    if (!deps_.dryRun) {
      state_.lastSyncAt = isoString(now_);
      state_.rosterCount = result_.rosterCount;
      state_.lastError.reset();
      deps_.store->save(state_);
    }
    if (deps_.fingerprints) deps_.fingerprints->endCycle();
    return result_;
  }

 private:
  // Keeps what the stages so far did (notes already posted must not be
  // posted again), then ends the cycle.
  void checkStop() {
    if (!deps_.stop.stopRequested()) return;
    if (!deps_.dryRun) deps_.store->save(state_);
    throw CycleStopped();
  }


  struct Directory {
    std::vector<DirectoryEntry> toSend;
    std::map<std::string, std::string> fingerprints;
    bool full = false;
  };

  std::set<std::string> ownHandles() const {
    std::set<std::string> own;
    for (const auto& h : config_.selfChannel.handles) {
      if (auto n = Phone::normalize(h, deps_.region)) own.insert(*n);
    }
    return own;
  }

  Directory directory(ChatDB& db) {
    const auto book = deps_.contacts ? deps_.contacts() : nullptr;
    const EmptyContactBook empty;
    // The user's own handles are notes to self, not correspondents. The
    // chats were read at the start of the cycle; reading them again would
    // repeat the chats statement and the normalising of every handle.
    const std::int64_t sinceMs = daysBefore(now_, config_.directoryDays);
    const ContactBook& contacts = book ? *book : empty;
    const auto entries =
        deps_.directoryCache
            ? deps_.directoryCache->buildDirectory(deps_.chatDBPath, sinceMs, contacts,
                                                   ownHandles(), chats_)
            : db.buildDirectory(sinceMs, contacts, ownHandles(), &chats_);
    Directory d;
    d.full = !state_.directoryFullAt || now_ - *state_.directoryFullAt > directoryFullRefreshMs - 1;
    for (const auto& entry : entries) {
      const std::string print =
          deps_.fingerprints ? deps_.fingerprints->print(entry) : fingerprint(entry);
      const auto sent = state_.directorySent.find(entry.handle);
      if (d.full || sent == state_.directorySent.end() || sent->second != print) {
        d.toSend.push_back(entry);
      }
      d.fingerprints[entry.handle] = print;
    }
    return d;
  }

  std::vector<std::string> newRosterHandles() const {
    const std::unordered_set<std::string> done(state_.backfilled.begin(), state_.backfilled.end());
    std::vector<std::string> fresh;
    std::unordered_set<std::string> seen;
    for (const auto& h : config_.rosterHandles) {
      if (!done.contains(h) && seen.insert(h).second) fresh.push_back(h);
    }
    return fresh;
  }

  void syncMessagesAndDirectory(ChatDB& db) {
    Directory dir = directory(db);
    const std::int64_t cursor = state_.cursor.value_or(upTo_);

    const auto newHandles = newRosterHandles();
    const std::unordered_set<std::string> isNew(newHandles.begin(), newHandles.end());
    ChatDB::ChatMap newChats;
    for (const auto& [chat, handle] : rosterChats_) {
      if (isNew.contains(handle)) newChats.emplace(chat, handle);
    }
    auto messages = db.messagesSince(newChats, daysBefore(now_, config_.backfillDays), cursor);
    const std::size_t backfilled = messages.size();
    auto fresh = db.messagesAfter(rosterChats_, cursor, upTo_);
    messages.insert(messages.end(), std::make_move_iterator(fresh.begin()),
                    std::make_move_iterator(fresh.end()));

    auto& r = result_.sync;
    r.messages = static_cast<std::int64_t>(messages.size());
    r.backfilled = static_cast<std::int64_t>(backfilled);
    r.directory = static_cast<std::int64_t>(dir.toSend.size());
    r.batches = static_cast<std::int64_t>(std::max(runsOf(messages.size(), maxBatchMessages),
                                                   runsOf(dir.toSend.size(), maxBatchDirectory)));
    result_.cursor = cursor;

    if (deps_.dryRun) {
      log_.info("[dry-run] would sync " + std::to_string(r.directory) + " directory entries" +
                (dir.full ? " (full refresh)" : "") + " and " + std::to_string(r.messages) +
                " roster messages (" + std::to_string(r.backfilled) + " backfill for " +
                std::to_string(newHandles.size()) + " new handle(s)) in " +
                std::to_string(r.batches) + " batch(es); cursor " + std::to_string(cursor) +
                " \u2192 " + std::to_string(upTo_));
      return;
    }

    upload(messages, dir.toSend);

    state_.cursor = upTo_;
    state_.backfilled.insert(state_.backfilled.end(), newHandles.begin(), newHandles.end());
    state_.directorySent = std::move(dir.fingerprints);
    if (dir.full) state_.directoryFullAt = now_;
    deps_.store->save(state_);
    result_.cursor = upTo_;
  }

  void upload(const std::vector<ChatDB::ExtractedMessage>& messages,
              const std::vector<DirectoryEntry>& entries) {
    auto& r = result_.sync;
    if (r.batches == 0) return;
    std::size_t messagesDone = 0;
    for (std::int64_t i = 0; i < r.batches; ++i) {
      SyncRequest request;
      request.directory = slice(entries, static_cast<std::size_t>(i), maxBatchDirectory);
      const std::size_t from = std::min(messages.size(), static_cast<std::size_t>(i) * maxBatchMessages);
      const std::size_t to = std::min(messages.size(), from + maxBatchMessages);
      request.messages.reserve(to - from);
      for (std::size_t k = from; k < to; ++k) request.messages.push_back(messages[k].message);
      request.cursor = upTo_;
      const SyncResponse response = deps_.api->sync(request);
      r.accepted += response.accepted;
      r.dropped += response.dropped;
      messagesDone = to;
      if (r.batches > 1) {
        log_.info("uploaded batch " + std::to_string(i + 1) + "/" + std::to_string(r.batches) +
                  ": " + std::to_string(messagesDone) + "/" + std::to_string(messages.size()) +
                  " messages");
      }
    }
    log_.info("synced " + std::to_string(r.messages) + " message(s), " +
              std::to_string(r.directory) + " directory entries" +
              (r.dropped > 0 ? " (" + std::to_string(r.dropped) + " dropped by server)" : ""));
  }

  void runSelfChannel(ChatDB& db) {
    if (!config_.selfChannel.enabled) return;
    std::vector<std::int64_t> chatIds;
    for (const auto& [chat, _] : db.chatsForHandles(config_.selfChannel.handles, chats_)) {
      chatIds.push_back(chat);
    }
    const std::int64_t from = state_.selfCursor.value_or(upTo_);
    const auto rows = db.selfRows(chatIds, from, upTo_);
    const auto decisions = SelfChannel::plan(rows, state_.assistantSent, state_.selfPosted, now_);

    auto& stats = result_.selfStats;
    for (const auto& d : decisions) {
      if (!d.isPost()) {
        ++stats.skipped;
        continue;
      }
      ++stats.posted;
      const std::string text = clipUTF16(d.row.text, maxNoteLength);
      if (deps_.dryRun) {
        log_.info("[dry-run] would send to Corvane: " + text);
        continue;
      }
      deps_.api->postSelf({d.row.guid, text, isoString(d.row.sentAtMs)});
      state_.selfPosted.push_back({SelfChannel::normalizeForMatch(d.row.text), d.row.sentAtMs});
    }
    if (deps_.dryRun) {
      if (stats.posted > 0) {
        log_.info("[dry-run] would send " + std::to_string(stats.posted) + " note(s) to Corvane");
      }
      return;
    }
    state_.selfPosted = SelfChannel::prune(state_.selfPosted, now_, SelfChannel::maxSelfAgeMs, kSentTextsKept);
    state_.assistantSent =
        SelfChannel::prune(state_.assistantSent, now_, SelfChannel::maxSelfAgeMs, kSentTextsKept);
    state_.selfCursor = std::max(from, upTo_);
  }

  OutboxDone* doneRecord(const std::string& id) {
    const auto it = std::find_if(state_.outboxDone.begin(), state_.outboxDone.end(),
                                 [&](const OutboxDone& d) { return d.id == id; });
    return it == state_.outboxDone.end() ? nullptr : &*it;
  }

  void deliverOutbox() {
    const OutboxResponse outbox = deps_.api->getOutbox();
    state_.outboxDone = pruneOutboxDone(state_.outboxDone, now_, outbox.items);
    for (const auto& item : outbox.items) {
      checkStop();  // between two items, never during a send
      const std::string kind(wireName(item.kind));
      const std::string what = kind + " message to " + item.handle + ": " + item.text;
      if (doneRecord(item.id)) {
        ++result_.outbox.reacked;
        if (deps_.dryRun) {
          log_.info("[dry-run] would re-ack " + what);
        } else {
          acknowledge(item.id);  // handled before: never sent twice
        }
        continue;
      }
      if (deps_.dryRun) {
        log_.info("[dry-run] would send " + what);
        continue;
      }
      send(item, kind);
    }
    if (!deps_.dryRun) deps_.store->save(state_);
  }

  void send(const OutboxItem& item, const std::string& kind) {
    if (item.kind == OutboxItem::Kind::assistant) {
      state_.assistantSent.push_back({SelfChannel::normalizeForMatch(item.text), now_});
    }
    // Written ahead: a process that dies during the send reports the item as
    // failed next cycle instead of sending it again.
    state_.outboxDone.push_back(
        {item.id, SendStatus::failed, OutboxDone::interruptedError, now_, false});
    deps_.store->save(state_);

    const SendResult sent = deps_.sender->send(item.handle, item.text);
    OutboxDone& record = *doneRecord(item.id);
    record.status = sent.ok ? SendStatus::sent : SendStatus::failed;
    record.error = sent.ok ? std::nullopt : std::optional(sent.error.value_or("send failed"));
    record.at = deps_.now();
    ++(sent.ok ? result_.outbox.sent : result_.outbox.failed);
    log_.info("outbox " + item.id + " (" + kind + ") \u2192 " + item.handle + ": " +
              (sent.ok ? "sent" : "failed") + (sent.error ? " (" + *sent.error + ")" : ""));
    acknowledge(item.id);
  }

  void acknowledge(const std::string& id) {
    OutboxDone& record = *doneRecord(id);
    try {
      deps_.api->ackOutbox(id, {record.status, record.error});
      record.acked = true;
    } catch (const std::exception& e) {
      log_.warn("couldn't ack outbox " + id + " (" + e.what() + "); will retry next cycle");
    }
  }

  const CycleDeps& deps_;
  SyncLogger& log_;
  const std::int64_t now_;
  AgentState state_;
  AgentConfig config_;
  CycleResult result_;
  std::int64_t upTo_ = 0;
  std::vector<ChatDB::OneToOneChat> chats_;
  ChatDB::ChatMap rosterChats_;
};

}  // namespace

std::string fingerprint(const DirectoryEntry& entry) {
  const nlohmann::json sorted = WireJSON(entry);  // std::map keys: sorted
  const auto digest = sha1(sorted.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
  return base64url(digest.data(), digest.size()).substr(0, 16);
}

CycleResult runCycle(const CycleDeps& deps) { return Cycle(deps).run(); }

}  // namespace corvane::SyncEngine

namespace corvane {

std::string FingerprintMemo::print(const DirectoryEntry& entry) {
  std::lock_guard lock(mutex_);
  auto known = last_.find(entry.handle);
  if (known != last_.end() && known->second.entry == entry) {
    std::string print = known->second.print;
    next_.insert(last_.extract(known));
    return print;
  }
  std::string print = SyncEngine::fingerprint(entry);
  next_.insert_or_assign(entry.handle, Known{entry, print});
  return print;
}

void FingerprintMemo::endCycle() {
  std::lock_guard lock(mutex_);
  last_.swap(next_);
  next_.clear();
}

}  // namespace corvane
