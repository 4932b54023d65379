#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <latch>
#include <thread>
#include <tuple>
#include <vector>

#include "core/chatdb/directory_cache.h"
#include "core/protocol/iso_time.h"
#include "core/sync/contacts_cache.h"
#include "core/sync/sync_engine.h"
#include "tools/chatdb-gen/chat_db_builder.h"
#include "tests/support/fake_agent_api.h"
#include "tests/support/recording.h"
#include "tests/support/temp_dir.h"

namespace corvane {
namespace {

using chatdbgen::ChatDbBuilder;
using testing::FakeAgentAPI;
using testing::RecordingLogger;
using testing::RecordingSender;
using testing::TempDir;
using Call = FakeAgentAPI::Call;

constexpr std::int64_t kNow = 1700000000000;

TEST(BackoffTest, DoublesPerFailureWithinJitterAndCap) {
  // base, failures, random, expected
  const std::tuple<int, int, double, int> cases[] = {
      {30, 0, 0.0, 26},       // no failure counts as the first; 25.5 rounds away from zero
      {30, 1, 0.9999, 34},
      {30, 6, 0.5, 900},      // 960 capped at 900
      {1000, 1, 0.9999, 1035},
      {30, 2000, 0.5, 900},   // huge exponents stay capped
  };
  for (const auto& [base, failures, random, expected] : cases) {
    EXPECT_EQ(SyncEngine::backoffSec(base, failures, [r = random] { return r; }), expected)
        << base << " " << failures << " " << random;
  }
}

// A store whose saves can be made to fail, for error bookkeeping.
class FlakyStore final : public StateStore {
 public:
  AgentState load() override { return state; }
  void save(const AgentState& s) override {
    if (failSaves) throw std::runtime_error("disk full");
    state = s;
  }
  AgentState state;
  bool failSaves = false;
};

// The time stamp: DaemonTest.RevokedTokenStopsWithTheRevokedExitCode.
TEST(RecordErrorTest, ClipsTheErrorUnlessDryAndSurvivesAFailedSave) {
  FlakyStore store;
  SyncEngine::recordError(store, std::string(600, 'x'), false, kNow);
  EXPECT_EQ(store.state.lastError->size(), 500u);
  SyncEngine::recordError(store, "dry", true, kNow);
  EXPECT_EQ(store.state.lastError->size(), 500u);
  store.failSaves = true;
  EXPECT_NO_THROW(SyncEngine::recordError(store, "ignored", false, kNow));
}

class DaemonTest : public ::testing::Test {
 protected:
  DaemonTest() : builder(dir.file("chat.db")) {
    const auto chat = builder.oneToOne("+14155550100");
    builder.message(chat, chatdbgen::MessageSpec{.text = "hi", .dateMs = kNow - 1000});
    api->config.pollIntervalSec = 60;
  }

  CycleDeps deps() {
    CycleDeps d{api, chatDB.empty() ? builder.path() : chatDB, store, sender, nullptr, "US", false,
                log, [] { return kNow; }};
    d.directoryCache = cache;
    return d;
  }

  // Runs the daemon; the sleep hook records waits and stops it after `cycles` sleeps.
  std::int32_t run(int cycles, SyncEngine::DaemonOptions options = {}) {
    StopSource stop;
    options.sleep = [&, cycles](std::int64_t s) {
      waits.push_back(s);
      if (static_cast<int>(waits.size()) >= cycles) stop.requestStop();
    };
    options.random = [] { return 0.5; };
    return SyncEngine::runDaemon(deps(), std::move(options), stop.token());
  }

  void failCallsWith(std::function<std::optional<APIError>()> error) {
    api->failWith = [error](Call c) -> std::optional<APIError> {
      return c == Call::config ? error() : std::nullopt;
    };
  }

  TempDir dir;
  ChatDbBuilder builder;
  std::string chatDB;
  std::shared_ptr<DirectoryCache> cache;
  std::shared_ptr<FakeAgentAPI> api = std::make_shared<FakeAgentAPI>();
  std::shared_ptr<MemoryStateStore> store = std::make_shared<MemoryStateStore>();
  std::shared_ptr<RecordingSender> sender = std::make_shared<RecordingSender>();
  std::shared_ptr<RecordingLogger> log = std::make_shared<RecordingLogger>();
  std::vector<std::int64_t> waits;
};

TEST_F(DaemonTest, OnceRunsOneCycleElseCyclesArePacedByThePollIntervalUntilStopped) {
  EXPECT_EQ(run(1, {.once = true}), 0);
  EXPECT_TRUE(waits.empty());
  EXPECT_EQ(log->lines().back(),
            "info: cycle done: 0 msg, 1 dir, 0 self, 0 sent / 0 failed; cursor 1");
  EXPECT_EQ(run(3), 0);
  EXPECT_EQ(waits, (std::vector<std::int64_t>{60, 60, 60}));
  EXPECT_EQ(std::count(api->calls.begin(), api->calls.end(), Call::config), 1 + 3)
      << "no cycle once stop is requested";
  EXPECT_EQ(log->lines().back(), "info: stopped");
}

TEST_F(DaemonTest, RevokedTokenStopsWithTheRevokedExitCode) {
  failCallsWith([] { return APIError::unauthorized("This Mac's device token was revoked or is invalid."); });
  EXPECT_EQ(run(5), 2);
  EXPECT_TRUE(waits.empty());
  EXPECT_EQ(log->lines().back(),
            "error: This Mac's device token was revoked or is invalid.\nThis Mac was disconnected "
            "from Corvane (or its token revoked). Stopping. Reconnect from the Corvane menu \u203A "
            "Setup\u2026.");
  EXPECT_EQ(store->state().lastError,
            isoString(kNow) + " This Mac's device token was revoked or is invalid.");
  EXPECT_EQ(run(1, {.once = true, .revokedExitCode = 9}), 9);
}

TEST_F(DaemonTest, TransientErrorsBackOffAndSuccessResetsTheCount) {
  int call = 0;
  // fail, fail, succeed, fail
  failCallsWith([&]() -> std::optional<APIError> {
    if (++call == 3) return std::nullopt;
    return APIError::http(503, "GET /api/agent/config \u2192 503: Service Unavailable");
  });
  EXPECT_EQ(run(4), 0);
  EXPECT_EQ(waits, (std::vector<std::int64_t>{30, 60, 60, 60}));
  EXPECT_TRUE(log->contains("warn: GET /api/agent/config \u2192 503: Service Unavailable \u2014 "
                            "retrying in 30s"));

  waits.clear();
  failCallsWith([] { return APIError::network("Can't reach example.test (refused)"); });
  EXPECT_EQ(run(1, {.once = true}), 1) << "--once reports the failure and ends";
  EXPECT_TRUE(waits.empty());
  EXPECT_EQ(log->lines().back(), "warn: Can't reach example.test (refused) \u2014 retrying in 30s");
}

TEST_F(DaemonTest, MissingDatabaseWaitsFiveMinutesEveryTime) {
  chatDB = dir.file("missing/chat.db");
  EXPECT_EQ(run(4), 0);
  EXPECT_EQ(waits, (std::vector<std::int64_t>{300, 300, 300, 300}));
  EXPECT_TRUE(log->contains("error: " + chatDB +
                            " doesn't exist. Open Messages on this Mac and sign in to iMessage first."));
}

TEST_F(DaemonTest, UnreadableDatabaseBacksOffUpToFiveMinutes) {
  chatDB = dir.file("garbage.db");
  std::ofstream(chatDB) << std::string(2048, 'g');
  EXPECT_EQ(run(5), 0);
  EXPECT_EQ(waits, (std::vector<std::int64_t>{30, 60, 120, 240, 300}));
  EXPECT_TRUE(log->contains("error: SQLite error 26: file is not a database"));
}

TEST_F(DaemonTest, OtherErrorsAreReportedAsCycleFailures) {
  failCallsWith([] { return APIError::badResponse("GET /api/agent/config: unexpected response shape (x)"); });
  EXPECT_EQ(run(1), 0);
  EXPECT_TRUE(log->contains("error: cycle failed: GET /api/agent/config: unexpected response shape "
                            "(x) \u2014 retrying in 30s"));
}

TEST_F(DaemonTest, ContactsAreLoadedOncePerTTLAndEveryCycleSharesTheDirectoryCache) {
  int loads = 0;
  cache = std::make_shared<DirectoryCache>();
  run(3, {.loadContacts = [&] {
    ++loads;
    return std::make_shared<const EmptyContactBook>();
  }});
  EXPECT_EQ(loads, 1);
  EXPECT_EQ(cache->lastRefresh(), DirectoryCache::Refresh::unchanged)
      << "the later cycles found the aggregates of the first";
}

TEST_F(DaemonTest, DefaultSleepWakesWhenStopIsRequested) {
  StopSource stop;
  // The stopper learns of the first call through an atomic: `calls` itself
  // belongs to the daemon's thread.
  std::atomic<bool> called = false;
  api->failWith = [&](FakeAgentAPI::Call) {
    called = true;
    return std::optional<APIError>();
  };
  std::thread stopper([&] {
    while (!called) std::this_thread::yield();
    stop.requestStop();
  });
  // Without the early wake-up this would wait the full hour.
  api->config.pollIntervalSec = 3600;
  EXPECT_EQ(SyncEngine::runDaemon(deps(), {}, stop.token()), 0);
  stopper.join();
}

// A stop reaches every copy and every token of its source, including a
// waiter that is already asleep; nothing else stops a token.
TEST(StopSourceTest, AStopReachesEveryTokenOfItsSourceOnly) {
  using namespace std::chrono_literals;
  StopSource source, other;
  const StopToken token = source.token();
  StopSource copy = source;
  EXPECT_FALSE(token.stopRequested());
  EXPECT_FALSE(StopToken().stopRequested());
  EXPECT_FALSE(StopToken().waitFor(0s)) << "a token without a source is never stopped";
  EXPECT_FALSE(token.waitFor(1ms)) << "a wait without a stop runs out";

  std::atomic<bool> woke = false;
  std::thread waiter([&] { woke = token.waitFor(24h); });
  copy.requestStop();
  waiter.join();  // would take a day without the wake-up
  EXPECT_TRUE(woke);
  EXPECT_TRUE(source.stopRequested());
  EXPECT_TRUE(token.waitFor(24h)) << "a stopped token does not wait";
  EXPECT_FALSE(other.token().stopRequested());
}

// Callers arriving together wait for the one load instead of each reading
// the address book; the book is kept until it expires or is invalidated.
TEST(ContactsCacheTest, CallersShareOneLoadUntilItExpiresOrIsInvalidated) {
  std::atomic<std::int64_t> clock = 0;
  std::atomic<int> loads = 0;
  ContactsCache cache(
      10, [&] {
        ++loads;
        return std::make_shared<const EmptyContactBook>();
      },
      [&] { return clock.load(); });
  constexpr int kThreads = 8;
  std::latch start(kThreads);
  std::vector<std::shared_ptr<const ContactBook>> seen(kThreads);
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      start.arrive_and_wait();
      seen[i] = cache.get();
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(loads, 1);
  for (const auto& book : seen) EXPECT_EQ(book, seen[0]);
  clock = 9999;
  EXPECT_EQ(cache.get(), seen[0]);
  clock = 10000;
  EXPECT_NE(cache.get(), seen[0]);
  cache.invalidate();
  cache.get();
  EXPECT_EQ(loads, 3);
  EXPECT_EQ(ContactsCache(10, nullptr).get(), nullptr);
}

}  // namespace
}  // namespace corvane
