// The application's sync loop: what each outcome of a cycle publishes, how
// long it naps, waking, pausing, and a cycle that outlives its account.
#include <gtest/gtest.h>

#include <algorithm>
#include <future>

#include "app/model/app_model.h"
#include "core/api/api_error.h"
#include "core/chatdb/chat_db.h"
#include "core/chatdb/sqlite_db.h"
#include "tests/support/app_model_rig.h"
#include "tests/support/text_file.h"

namespace corvane {
namespace {

using testing::AppModelRig;
using testing::FakeAgentAPI;
using Call = FakeAgentAPI::Call;

// Makes every `failing` call throw `error` (any type, so the loop's mapping
// can be driven by database errors too).
void failWith(AppModelRig& rig, std::exception_ptr error, Call failing = Call::config) {
  rig.configureAPI = [=](FakeAgentAPI& api, auto&, auto&) {
    api.failWith = [=](Call call) -> std::optional<APIError> {
      if (call == failing) std::rethrow_exception(error);
      return std::nullopt;
    };
  };
}

// Seconds until the loop asks for its next cycle, searched in 0.5 s steps.
double secondsToNextCycle(AppModelRig& rig, double limit = 1000) {
  const int before = rig.calls(Call::config);
  for (double t = 0.5; t <= limit; t += 0.5) {
    rig.scheduler.advance(0.5);
    rig.settle();
    if (rig.calls(Call::config) > before) return t;
  }
  return -1;
}

TEST(AppModelSyncTest, EachFailurePublishesItsChangeAndNaps) {
  const std::string messagesMissing(AppModel::messagesMissingText);
  const std::string cantReach(AppModel::cantReachText);
  const std::string problem(AppModel::syncProblemText);
  const auto error = [](auto e) { return std::make_exception_ptr(e); };
  const struct {
    const char* name;
    std::exception_ptr error;
    SyncPhase phase;
    double napMin = 25.5, napMax = 34.5;  // the back-off's jitter is ±15% of 30 s
    bool fullDiskAccess = true, messagesReady = true, forcedReport = false;
  } cases[] = {
      {"database missing", error(ChatDB::OpenError::missing("/x/chat.db")),
       SyncPhase::error(messagesMissing), 300, 300, true, false},
      {"no full disk access", error(ChatDB::OpenError::fullDiskAccess("/x/chat.db", "EPERM")),
       SyncPhase::idle(), 60, 60, false, true, true},
      {"other database error", error(ChatDB::OpenError::other("chat.db is damaged.")),
       SyncPhase::error("chat.db is damaged.")},
      {"network", error(APIError::network("offline")), SyncPhase::error(cantReach)},
      {"502", error(APIError::http(502, "gateway")), SyncPhase::error(cantReach)},
      {"400", error(APIError::http(400, "bad")), SyncPhase::error(problem)},
      {"SQLite", error(SQLiteError(11, "malformed")), SyncPhase::error(problem)},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    AppModelRig rig;
    failWith(rig, c.error);
    rig.startPaired();
    EXPECT_EQ(rig.published().phase, c.phase);
    EXPECT_EQ(rig.published().fullDiskAccess, c.fullDiskAccess);
    EXPECT_EQ(rig.published().messagesReady, c.messagesReady);
    EXPECT_TRUE(rig.published().connected);
    const double nap = secondsToNextCycle(rig);
    EXPECT_GE(nap, c.napMin);
    EXPECT_LE(nap, c.napMax + 0.5);
    // Only the lost access is reported at once.
    const auto statuses = rig.statuses();
    EXPECT_EQ(std::any_of(statuses.begin(), statuses.end(),
                          [](const AgentStatusRequest& r) { return !r.fullDiskAccess; }),
              c.forcedReport);
  }
}

TEST(AppModelSyncTest, BackOffGrowsWithEachFailureAndSuccessNapsThePollInterval) {
  AppModelRig rig;
  bool failing = true;
  rig.configureAPI = [&](FakeAgentAPI& api, auto&, auto&) {
    api.config.pollIntervalSec = 45;
    api.failWith = [&](Call call) -> std::optional<APIError> {
      if (failing && call == Call::config) return APIError::network("offline");
      return std::nullopt;
    };
  };
  rig.startPaired();
  const double first = secondsToNextCycle(rig);
  const double second = secondsToNextCycle(rig);
  EXPECT_GE(second, 1.5 * first);
  failing = false;
  secondsToNextCycle(rig, 2000);
  EXPECT_EQ(rig.published().phase, SyncPhase::idle());
  EXPECT_EQ(rig.published().lastSyncAt, rig.scheduler.nowMs());
  EXPECT_EQ(secondsToNextCycle(rig), 45);
}

TEST(AppModelSyncTest, ARevokedTokenOnACycleOrAReportDisconnectsAndTheLoopWaits) {
  for (const Call revoked : {Call::config, Call::status}) {
    AppModelRig rig;
    failWith(rig, std::make_exception_ptr(APIError::unauthorized("Unauthorized")), revoked);
    rig.defaults.setString(DefaultsKey::deviceId, "dev-0");
    rig.startPaired();
    EXPECT_FALSE(rig.published().connected);
    EXPECT_EQ(rig.published().phase, SyncPhase::error(std::string(AppModel::disconnectedText)));
    EXPECT_EQ(rig.tokens.load(TokenStore::deviceTokenKey), std::nullopt);
    EXPECT_FALSE(rig.defaults.getString(DefaultsKey::deviceId));
    EXPECT_EQ(secondsToNextCycle(rig, 600), -1);
  }
}

TEST(AppModelSyncTest, WakeStartsACycleAtOnceOrRightAfterTheRunningOne) {
  AppModelRig rig;
  rig.startPaired();
  const int cycles = rig.calls(Call::config);
  rig.model().wake();
  rig.settle();
  EXPECT_EQ(rig.calls(Call::config), cycles + 1);

  rig.scheduler.advance(60);  // the next cycle is queued on the worker
  rig.model().wake();         // while it runs: remembered
  rig.settle();
  EXPECT_EQ(rig.calls(Call::config), cycles + 3);
  EXPECT_EQ(secondsToNextCycle(rig), 60);
}

TEST(AppModelSyncTest, PauseStopsBetweenTwoSendsAndResumeCarriesOn) {
  AppModelRig rig;
  rig.configureAPI = [](FakeAgentAPI& api, auto&, auto&) {
    api.outbox = {{.id = "o1", .handle = "+14155550100", .text = "one"},
                  {.id = "o2", .handle = "+14155550100", .text = "two"}};
  };
  rig.sender->answer = [&](const std::string&, const std::string&) {
    rig.model().setPaused(true);  // pressed while the first text is being sent
    return SendResult{true, "iMessage", true, std::nullopt};
  };
  rig.startPaired();
  ASSERT_EQ(rig.sender->sent.size(), 1u);
  EXPECT_EQ(rig.sender->sent[0].text, "one");
  EXPECT_EQ(rig.published().phase, SyncPhase::idle());
  const AgentState saved = FileStateStore(rig.options.stateDir).load();
  ASSERT_EQ(saved.outboxDone.size(), 1u);
  EXPECT_EQ(saved.outboxDone[0].status, SendStatus::sent);

  EXPECT_EQ(secondsToNextCycle(rig, 300), -1);  // paused: no cycles
  rig.sender->answer = nullptr;
  rig.model().setPaused(false);
  rig.settle();
  ASSERT_EQ(rig.sender->sent.size(), 2u);
  EXPECT_EQ(rig.sender->sent[1].text, "two");
}

// A cycle of the old account still running while the Mac is paired with
// another account must never write its state into the new account's file.
TEST(AppModelSyncTest, ACycleOfAReplacedAccountNeverSavesIntoTheNewOne) {
  AppModelRig rig;
  rig.useThreads();
  rig.pairedBefore("tok-old");
  std::promise<void> reachedSend, release;
  auto released = release.get_future().share();
  rig.configureAPI = [&](FakeAgentAPI& api, auto&, const std::optional<std::string>& token) {
    if (token != "tok-old") return;
    api.outbox = {{.id = "old-1", .handle = "+14155550100", .text = "from the old account"}};
    api.failWith = [&, released](Call call) -> std::optional<APIError> {
      if (call == Call::ack) {  // after the write-ahead save of old-1
        reachedSend.set_value();
        released.wait();
      }
      return std::nullopt;
    };
  };
  rig.start();
  reachedSend.get_future().wait();

  rig.model().pair("NEWCODE1", rig.server);
  rig.pumpUntil([&] { return rig.published().pairing.kind == PairingState::Kind::success; });
  release.set_value();
  // The new account's first cycle runs once the old one has given up.
  rig.pumpUntil([&] { return rig.published().lastSyncAt.has_value(); });
  const std::string state = testing::readFile(rig.options.stateDir / "state.json");
  EXPECT_EQ(state.find("old-1"), std::string::npos) << state;
  EXPECT_NE(state.find("lastSyncAt"), std::string::npos) << state;
}

TEST(AppModelSyncTest, AModelGoneWhileItsCycleRunsGetsNoCallback) {
  AppModelRig rig;
  rig.useThreads();
  rig.pairedBefore();
  std::promise<void> inCycle, release;
  auto released = release.get_future().share();
  rig.configureAPI = [&](FakeAgentAPI& api, auto&, auto&) {
    api.failWith = [&, released](Call call) -> std::optional<APIError> {
      if (call == Call::config) {
        inCycle.set_value();
        released.wait();
      }
      return std::nullopt;
    };
  };
  rig.start();
  inCycle.get_future().wait();
  rig.destroy();
  release.set_value();
  rig.joinThreads();
  rig.scheduler.runPending();  // the cycle's result arrives for nobody
  EXPECT_EQ(rig.scheduler.timerCount(), 0u);
}

}  // namespace
}  // namespace corvane
