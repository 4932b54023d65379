#include "core/sync/sync_engine.h"

#include <gtest/gtest.h>

#include "core/chatdb/directory_cache.h"
#include "core/protocol/iso_time.h"
#include "core/sync/self_channel.h"
#include "tools/chatdb-gen/chat_db_builder.h"
#include "tests/support/fake_agent_api.h"
#include "tests/support/recording.h"
#include "tests/support/temp_dir.h"

namespace corvane {
namespace {

using chatdbgen::ChatDbBuilder;
using chatdbgen::MessageSpec;
using testing::FakeAgentAPI;
using testing::RecordingLogger;
using testing::RecordingSender;
using testing::TempDir;
using Call = FakeAgentAPI::Call;

constexpr std::int64_t kDay = SyncEngine::dayMs;
constexpr std::int64_t kNow = 1700000000000;
const std::string kAlex = "+14155550100";
const std::string kSam = "sam@example.org";
const std::string kMe = "+14155550999";

// A Messages database, an in-process server, a memory store and a recording
// sender, wired the way the daemon wires them.
class SyncCycleTest : public ::testing::Test {
 protected:
  SyncCycleTest()
      : builder(dir.file("chat.db")),
        alex(builder.oneToOne("(415) 555-0100")),
        sam(builder.oneToOne("Sam@Example.org")),
        stranger(builder.oneToOne("+14155550777")) {
    api->config.rosterHandles = {kAlex};
  }

  CycleDeps deps() {
    return {api, builder.path(), store, sender, nullptr, "US", dryRun, log, [this] { return now; }};
  }
  CycleResult cycle() { return SyncEngine::runCycle(deps()); }

  std::int64_t message(std::int64_t chat, const std::string& text, std::int64_t ageMs) {
    return builder.message(chat, MessageSpec{.text = text, .dateMs = now - ageMs});
  }

  TempDir dir;
  ChatDbBuilder builder;
  std::int64_t alex, sam, stranger;
  std::shared_ptr<FakeAgentAPI> api = std::make_shared<FakeAgentAPI>();
  std::shared_ptr<MemoryStateStore> store = std::make_shared<MemoryStateStore>();
  std::shared_ptr<RecordingSender> sender = std::make_shared<RecordingSender>();
  std::shared_ptr<RecordingLogger> log = std::make_shared<RecordingLogger>();
  bool dryRun = false;
  std::int64_t now = kNow;
};

std::vector<std::string> texts(const std::vector<SyncedMessage>& messages) {
  std::vector<std::string> out;
  for (const auto& m : messages) out.push_back(m.text);
  return out;
}

TEST_F(SyncCycleTest, FirstRunUploadsOnlyBackfillAndMovesTheCursorToTheTop) {
  message(alex, "too old", 40 * kDay);
  message(alex, "recent", 2 * kDay);
  message(stranger, "not on the roster", kDay);
  const auto top = message(sam, "not on the roster either", kDay);

  const CycleResult result = cycle();
  EXPECT_EQ(texts(api->uploadedMessages()), std::vector<std::string>{"recent"});
  EXPECT_EQ(api->uploadedMessages()[0].handle, kAlex);
  EXPECT_EQ(result.sync.backfilled, 1);

  const AgentState state = store->state();
  EXPECT_EQ(state.cursor, top);
  EXPECT_EQ(state.backfilled, std::vector<std::string>{kAlex});
  EXPECT_EQ(state.directoryFullAt, kNow);
  EXPECT_EQ(state.lastSyncAt, isoString(kNow));
  EXPECT_EQ(state.rosterCount, 1);
  EXPECT_EQ(state.directorySent.size(), 3u) << "the directory lists every recent correspondent";
  ASSERT_EQ(api->syncs.size(), 1u);
  EXPECT_EQ(api->syncs[0].cursor, top);
  EXPECT_EQ(api->syncs[0].directory.size(), 3u);
}

TEST_F(SyncCycleTest, LaterCyclesUploadOnlyNewRosterRowsAndUnchangedDirectoryStaysHome) {
  message(alex, "old", kDay);
  cycle();
  api->syncs.clear();

  now += 60000;
  message(alex, "new one", 0);
  message(stranger, "private", 0);
  const auto top = message(alex, "new two", 0);
  const CycleResult result = cycle();
  EXPECT_EQ(texts(api->uploadedMessages()), (std::vector<std::string>{"new one", "new two"}));
  ASSERT_EQ(api->syncs.size(), 1u);
  // Alex's entry changed (new last message); the stranger's is new too.
  EXPECT_EQ(api->syncs[0].directory.size(), 2u);
  EXPECT_EQ(result.sync.backfilled, 0) << "Alex was backfilled once, on the first run";
  EXPECT_EQ(store->state().cursor, top);
}

// An agent that keeps its directory between cycles and one that reads it
// afresh, side by side on one database, upload the same things.
TEST_F(SyncCycleTest, CyclesWithADirectoryCacheUploadWhatFreshReadsUpload) {
  CycleDeps withCache = deps();
  const auto cachedAPI = std::make_shared<FakeAgentAPI>();
  cachedAPI->config = api->config;
  withCache.api = cachedAPI;
  withCache.store = std::make_shared<MemoryStateStore>();
  withCache.directoryCache = std::make_shared<DirectoryCache>();
  withCache.fingerprints = std::make_shared<FingerprintMemo>();
  message(alex, "old", 2 * kDay);
  message(sam, "hi", kDay);
  for (const auto refresh : {DirectoryCache::Refresh::full, DirectoryCache::Refresh::incremental}) {
    api->syncs.clear();
    cachedAPI->syncs.clear();
    EXPECT_EQ(SyncEngine::runCycle(withCache), cycle());
    EXPECT_EQ(withCache.directoryCache->lastRefresh(), refresh);
    ASSERT_EQ(cachedAPI->syncs.size(), api->syncs.size());
    for (std::size_t i = 0; i < api->syncs.size(); ++i) {
      EXPECT_EQ(cachedAPI->syncs[i].directory, api->syncs[i].directory);
    }
    EXPECT_EQ(withCache.store->load(), store->load());
    now += 60000;
    message(stranger, "new", 0);
    builder.message(alex, MessageSpec{.text = "mine", .fromMe = true, .dateMs = now, .service = "SMS"});
  }
}

TEST_F(SyncCycleTest, DirectoryIsSentInFullEverySixHours) {
  message(alex, "hi", kDay);
  cycle();
  api->syncs.clear();

  now = kNow + SyncEngine::directoryFullRefreshMs - 1;
  EXPECT_EQ(cycle().sync.batches, 0);
  EXPECT_TRUE(api->syncs.empty()) << "nothing new: no upload at all";

  now = kNow + SyncEngine::directoryFullRefreshMs;
  const CycleResult result = cycle();
  ASSERT_EQ(api->syncs.size(), 1u);
  EXPECT_EQ(api->syncs[0].directory.size(), 1u);
  EXPECT_EQ(result.sync.directory, 1);
  EXPECT_EQ(store->state().directoryFullAt, now);
}

TEST_F(SyncCycleTest, HandleAddedToTheRosterLaterIsBackfilledOnce) {
  message(sam, "sam long ago", 5 * kDay);
  message(alex, "alex", kDay);
  cycle();
  api->syncs.clear();

  api->config.rosterHandles = {kAlex, kSam};
  now += 1000;
  const auto fresh = message(sam, "sam after the cursor", 0);
  const CycleResult result = cycle();
  EXPECT_EQ(texts(api->uploadedMessages()),
            (std::vector<std::string>{"sam long ago", "sam after the cursor"}));
  EXPECT_EQ(result.sync.backfilled, 1);
  EXPECT_EQ(store->state().backfilled, (std::vector<std::string>{kAlex, kSam}));
  EXPECT_EQ(store->state().cursor, fresh);
}

TEST_F(SyncCycleTest, LargeUploadsGoInPairedBatches) {
  builder.transaction([&] {
    for (int i = 0; i < 4500; ++i) message(alex, "m" + std::to_string(i), kDay);
  });
  const CycleResult result = cycle();
  ASSERT_EQ(api->syncs.size(), 3u);
  EXPECT_EQ(api->syncs[0].messages.size(), 2000u);
  EXPECT_EQ(api->syncs[2].messages.size(), 500u);
  EXPECT_EQ(api->syncs[0].directory.size(), 1u);
  EXPECT_TRUE(api->syncs[1].directory.empty());
  EXPECT_EQ(api->syncs[2].messages.back().text, "m4499");
  EXPECT_EQ(result.sync.accepted, 4500);
  EXPECT_TRUE(log->contains("uploaded batch 2/3"));
  EXPECT_TRUE(log->contains("synced 4500 message(s), 1 directory entries"));
}

TEST_F(SyncCycleTest, FailedUploadLeavesTheCursorWhereItWas) {
  message(alex, "hi", kDay);
  cycle();
  const AgentState before = store->state();
  message(alex, "lost?", 0);
  api->failWith = [](Call c) -> std::optional<APIError> {
    if (c == Call::sync) return APIError::http(502, "POST /api/agent/sync \u2192 502: Bad Gateway");
    return std::nullopt;
  };
  EXPECT_THROW(cycle(), APIError);
  EXPECT_EQ(store->state(), before);

  api->failWith = nullptr;
  api->syncs.clear();
  cycle();
  EXPECT_EQ(texts(api->uploadedMessages()), std::vector<std::string>{"lost?"});
}

TEST_F(SyncCycleTest, OutboxItemsAreWrittenAheadSentAndAcknowledged) {
  api->outbox = {{"o1", kAlex, "hello", OutboxItem::Kind::user},
                 {"o2", kMe, "reply \u2018quoted\u2019", OutboxItem::Kind::assistant},
                 {"o3", kSam, "fails", OutboxItem::Kind::user}};
  std::vector<AgentState> duringSend;
  sender->answer = [&](const std::string& handle, const std::string&) {
    duringSend.push_back(store->state());
    if (handle == kSam) return SendResult{false, std::nullopt, false, std::nullopt};
    return SendResult{true, "iMessage", true, std::nullopt};
  };
  const CycleResult result = cycle();

  ASSERT_EQ(duringSend.size(), 3u);
  const OutboxDone& inFlight = duringSend[0].outboxDone.back();
  EXPECT_EQ(inFlight, (OutboxDone{"o1", SendStatus::failed,
                                  "interrupted before send completed", kNow, false}));
  ASSERT_EQ(duringSend[1].assistantSent.size(), 1u);
  EXPECT_EQ(duringSend[1].assistantSent[0].text, SelfChannel::normalizeForMatch("reply \u2018quoted\u2019"));

  EXPECT_EQ(result.outbox, (CycleResult::Outbox{2, 1, 0}));
  ASSERT_EQ(api->acks.size(), 3u);
  EXPECT_EQ(api->acks[0], (std::pair<std::string, OutboxAck>{"o1", {SendStatus::sent, std::nullopt}}));
  EXPECT_EQ(api->acks[2], (std::pair<std::string, OutboxAck>{"o3", {SendStatus::failed, "send failed"}}));
  const auto done = store->state().outboxDone;
  ASSERT_EQ(done.size(), 3u);
  EXPECT_TRUE(done[0].acked && done[1].acked && done[2].acked);
  EXPECT_EQ(done[2].error, "send failed");
  EXPECT_TRUE(log->contains("outbox o1 (user) \u2192 " + kAlex + ": sent"));
}

// An item is never sent again while its record is kept: unacknowledged
// records and records of items still offered stay at any age; other
// acknowledged ones go after kOutboxDoneKeptMs.
TEST_F(SyncCycleTest, HandledItemsAreReackedNotResentAndOldAcknowledgedRecordsGo) {
  const std::string interrupted = OutboxDone::interruptedError;
  const auto record = [](const std::string& id, std::int64_t ageMs, bool acked) {
    return OutboxDone{id, SendStatus::sent, std::nullopt, kNow - ageMs, acked};
  };
  store->save(
      AgentState{.outboxDone = {{"cut", SendStatus::failed, interrupted, kNow - 1000, false},
                                record("recent", kOutboxDoneKeptMs, true),
                                record("offered", 3 * kOutboxDoneKeptMs, true),
                                record("unacked", 3 * kOutboxDoneKeptMs, false),
                                record("old", kOutboxDoneKeptMs + 1, true)}});
  for (const char* id : {"cut", "recent", "offered"}) {
    api->outbox.push_back({id, kAlex, "hello", OutboxItem::Kind::user});
  }
  const CycleResult result = cycle();

  EXPECT_TRUE(sender->sent.empty());
  EXPECT_EQ(result.outbox, (CycleResult::Outbox{0, 0, 3}));
  ASSERT_EQ(api->acks.size(), 3u);
  EXPECT_EQ(api->acks[0].second, (OutboxAck{SendStatus::failed, interrupted}));
  EXPECT_EQ(api->acks[1].second, (OutboxAck{SendStatus::sent, std::nullopt}));
  std::vector<std::string> kept;
  for (const auto& done : store->state().outboxDone) kept.push_back(done.id);
  EXPECT_EQ(kept, (std::vector<std::string>{"cut", "recent", "offered", "unacked"}));
  EXPECT_TRUE(store->state().outboxDone[0].acked);
}

// Offered again, it is re-acked, not re-sent: see
// HandledItemsAreReackedNotResentAndOldAcknowledgedRecordsGo ("cut").
TEST_F(SyncCycleTest, FailedAckIsWarnedAndLeftUnacknowledged) {
  api->outbox = {{"a b/c", kAlex, "hello", OutboxItem::Kind::user}};
  api->failWith = [](Call c) -> std::optional<APIError> {
    if (c == Call::ack) return APIError::network("Can't reach example.test (timed out)");
    return std::nullopt;
  };
  cycle();
  EXPECT_TRUE(log->contains("warn: couldn't ack outbox a b/c (Can't reach example.test (timed out)); "
                            "will retry next cycle"));
  EXPECT_EQ(store->state().outboxDone.at(0),
            (OutboxDone{"a b/c", SendStatus::sent, std::nullopt, kNow, false}));
}

TEST_F(SyncCycleTest, DryRunReadsEverythingAndChangesNothing) {
  message(alex, "hi", kDay);
  const auto self = builder.oneToOne(kMe);
  api->config.selfChannel = {true, {kMe}};
  store->save(AgentState{.cursor = 0, .selfCursor = 0,
                         .outboxDone = {{"old", SendStatus::sent, std::nullopt, 1, true}}});
  builder.message(self, MessageSpec{.text = "note to self", .fromMe = true, .dateMs = now - 1000});
  api->outbox = {{"new", kAlex, "hello", OutboxItem::Kind::user},
                 {"old", kAlex, "again", OutboxItem::Kind::user}};
  const AgentState before = store->state();
  dryRun = true;

  const CycleResult result = cycle();
  EXPECT_EQ(store->state(), before);
  EXPECT_TRUE(sender->sent.empty());
  EXPECT_EQ(api->calls, (std::vector<Call>{Call::config, Call::outbox})) << "no upload, ack or post";
  EXPECT_EQ(result.selfStats.posted, 1);
  // Alex's chat only: the self chat is the user's own and stays out of the directory.
  EXPECT_TRUE(log->contains("info: [dry-run] would sync 1 directory entries (full refresh) and 1 "
                            "roster messages (0 backfill for 1 new handle(s)) in 1 batch(es); "
                            "cursor 0 \u2192 2"));
  EXPECT_TRUE(log->contains("info: [dry-run] would send 1 note(s) to Corvane"));
  EXPECT_TRUE(log->contains("[dry-run] would send to Corvane: note to self"));
  EXPECT_TRUE(log->contains("[dry-run] would re-ack user message to " + kAlex + ": again"));
}

TEST_F(SyncCycleTest, SelfChannelPostsNotesAndSkipsEchoesOfItsReplies) {
  const auto self = builder.oneToOne(kMe);
  api->config.selfChannel = {true, {kMe}};
  cycle();  // the self cursor starts at the top of the database

  now += 10000;
  const auto note = builder.message(self, MessageSpec{.text = "remember the milk", .fromMe = true,
                                                      .dateMs = now - 2000});
  builder.message(self, MessageSpec{.text = "old note", .fromMe = true,
                                    .dateMs = now - SelfChannel::maxSelfAgeMs - 1});
  builder.message(self, MessageSpec{.text = std::string(6000, 'n'), .fromMe = true, .dateMs = now});
  api->outbox = {{"r1", kMe, "Noted \u2018milk\u2019", OutboxItem::Kind::assistant}};
  const CycleResult first = cycle();
  EXPECT_EQ(first.selfStats, (CycleResult::SelfStats{2, 1}));
  ASSERT_EQ(api->selfPosts.size(), 2u);
  EXPECT_EQ(api->selfPosts[0], (SelfMessageRequest{builder.guidOf(note), "remember the milk",
                                                   isoString(now - 2000)}));
  EXPECT_EQ(api->selfPosts[1].text, std::string(5000, 'n')) << "long notes are clipped";

  // The reply comes back through the self chat and must not be posted.
  now += 5000;
  api->outbox.clear();
  builder.message(self, MessageSpec{.text = "Noted 'milk'", .fromMe = true, .dateMs = now - 1000});
  const CycleResult second = cycle();
  EXPECT_EQ(second.selfStats, (CycleResult::SelfStats{0, 1}));
  EXPECT_EQ(api->selfPosts.size(), 2u);
  EXPECT_EQ(store->state().selfCursor, builder.db().query("SELECT MAX(ROWID) AS m FROM message")[0]["m"].int64());
}

TEST_F(SyncCycleTest, SelfChannelDisabledReadsNoNotes) {
  const auto self = builder.oneToOne(kMe);
  api->config.selfChannel = {false, {kMe}};
  cycle();
  builder.message(self, MessageSpec{.text = "note", .fromMe = true, .dateMs = now});
  const CycleResult result = cycle();
  EXPECT_EQ(result.selfStats, (CycleResult::SelfStats{0, 0}));
  EXPECT_FALSE(store->state().selfCursor.has_value());
}

}  // namespace
}  // namespace corvane
