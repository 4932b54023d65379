#include "app/model/app_model.h"
#include "app/model/setup_texts.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "core/api/api_error.h"
#include "tests/support/app_model_rig.h"

namespace corvane {
namespace {

using testing::AppModelRig;
using testing::FakeAgentAPI;
using Call = FakeAgentAPI::Call;
using S = PermissionState;

class AppModelTest : public ::testing::Test {
 protected:
  AppModelRig rig;
};

// The shown step moves on to `to` `seconds` from now, and not before.
void expectStepAfter(AppModelRig& rig, double seconds, SetupStep to) {
  const SetupStep from = rig.published().step;
  rig.scheduler.advance(seconds - 0.1);
  EXPECT_EQ(rig.published().step, from);
  rig.scheduler.advance(0.1);
  EXPECT_EQ(rig.published().step, to);
}

// Start-up.

TEST_F(AppModelTest, ReadsTokenStateAndServer) {
  rig.pairedBefore();
  rig.defaults.setString(DefaultsKey::server, "http://127.0.0.1:8787/ignored/path");
  rig.defaults.setString(DefaultsKey::userName, "Sam");
  rig.defaults.setBool(DefaultsKey::setupCompleted, true);
  AgentState saved;
  saved.rosterCount = 3;
  saved.lastSyncAt = "2023-11-14T22:13:20.123Z";
  FileStateStore(rig.options.stateDir).save(saved);

  rig.start();
  const auto& p = rig.published();
  EXPECT_TRUE(p.connected);
  EXPECT_EQ(p.userName, "Sam");
  EXPECT_EQ(p.server, "http://127.0.0.1:8787");
  EXPECT_EQ(p.rosterCount, 3);
  EXPECT_EQ(p.lastSyncAt, 1700000000123);
  // After setup the toggle shows the login item, and starting never changes it.
  EXPECT_FALSE(p.launchAtLogin);
  EXPECT_EQ(rig.loginItem.registers + rig.loginItem.unregisters, 0);
  EXPECT_EQ(p.pairing, PairingState::idle());

  AppModelRig refused;  // a server default that is refused gives the production server
  refused.defaults.setString(DefaultsKey::server, "http://example.test");
  refused.defaults.setBool(DefaultsKey::setupCompleted, true);
  refused.loginItem.enabled = true;
  refused.options.qaExpectLink = true;  // starts as if Connect had just been pressed
  refused.start();
  EXPECT_EQ(refused.published().server, refused.server);
  EXPECT_TRUE(refused.published().launchAtLogin);
  EXPECT_EQ(refused.published().pairing,
            PairingState::waitingForBrowser(refused.scheduler.nowMs()));
}

// Steps.

TEST(AppModelStepTest, CurrentStepFirstMatchWins) {
  const S granted = S::granted, denied = S::denied, unknown = S::unknown;
  const struct {
    const char* name;
    bool bundleOutside, skippedMove, connected, fullDisk;
    S automation;
    bool skippedAutomation;
    S contacts;
    bool skippedContacts;
    SetupStep expected;
  } cases[] = {
      {"outside Applications", true, false, true, true, granted, false, granted, false, SetupStep::move},
      {"move skipped", true, true, false, true, granted, false, granted, false, SetupStep::connect},
      {"not paired", false, false, false, true, granted, false, granted, false, SetupStep::connect},
      {"no disk access", false, false, true, false, granted, false, granted, false, SetupStep::fullDisk},
      {"automation denied", false, false, true, true, denied, false, granted, false, SetupStep::automation},
      {"automation skipped", false, false, true, true, denied, true, unknown, false, SetupStep::contacts},
      {"contacts denied", false, false, true, true, granted, false, denied, false, SetupStep::done},
      {"contacts skipped", false, false, true, true, granted, false, unknown, true, SetupStep::done},
  };
  for (const auto& c : cases) {
    AppModelRig rig;
    if (c.bundleOutside) {
      rig.relocator.bundle = "/Users/sam/Downloads/Corvane.app";
      rig.relocator.inApplications = false;
    }
    if (c.connected) rig.pairedBefore();
    rig.defaults.setBool(DefaultsKey::skippedMove, c.skippedMove);
    rig.defaults.setBool(DefaultsKey::skippedAutomation, c.skippedAutomation);
    rig.defaults.setBool(DefaultsKey::skippedContacts, c.skippedContacts);
    rig.probes.access = {c.fullDisk, c.fullDisk};
    rig.probes.automationAnswer = c.automation;
    rig.probes.contacts = c.contacts;
    rig.start();
    EXPECT_EQ(rig.model().currentStep(), c.expected) << c.name;
    EXPECT_EQ(rig.published().step, c.expected) << c.name;
  }
}

TEST_F(AppModelTest, AdvanceOnlyFromTheShownStepAndReopeningKeepsALaterStepButLeavesDone) {
  rig.pairedBefore();
  rig.probes.access = {false, false};
  rig.probes.automationAnswer = S::denied;
  rig.defaults.setBool(DefaultsKey::skippedAutomation, true);
  rig.start();
  ASSERT_EQ(rig.published().step, SetupStep::fullDisk);

  rig.model().advance(SetupStep::automation);  // not the shown step
  EXPECT_EQ(rig.published().step, SetupStep::fullDisk);

  rig.probes.access = {true, true};
  rig.model().refreshPermissions();
  EXPECT_EQ(rig.model().currentStep(), SetupStep::contacts);  // passes over automation
  rig.model().advance(SetupStep::fullDisk);
  EXPECT_EQ(rig.published().step, SetupStep::automation);  // advance ignores the skip flag
  rig.model().advance(SetupStep::fullDisk);  // the wizard shows automation now
  EXPECT_EQ(rig.published().step, SetupStep::automation);

  rig.model().skip(SetupStep::automation);
  ASSERT_EQ(rig.published().step, SetupStep::contacts);
  rig.model().goBack();
  rig.model().goBack();
  EXPECT_EQ(rig.published().step, SetupStep::fullDisk);
  rig.model().showCurrentStep();  // earlier than currentStep(): moved on
  EXPECT_EQ(rig.published().step, SetupStep::contacts);
  rig.model().skip(SetupStep::contacts);
  ASSERT_EQ(rig.published().step, SetupStep::done);
  rig.defaults.setBool(DefaultsKey::skippedContacts, false);
  rig.model().showCurrentStep();  // done starts over at currentStep()
  EXPECT_EQ(rig.published().step, SetupStep::contacts);
  rig.model().goBack();
  rig.model().goBack();
  rig.model().goBack();
  EXPECT_EQ(rig.published().step, SetupStep::connect);  // nothing to move: no move step
}

// Pairing by code.

TEST(AppModelPairTest, CodeLengthIsCountedWithoutBlanks) {
  const struct {
    const char* typed;
    std::optional<std::string> sent;  // absent: refused as too short
  } cases[] = {{"ABCDEFGHIJKLMNOPQ", std::nullopt},
               {" A B C ", std::nullopt},
               {"ABCD", "ABCD"},
               {"ABCDEFGHIJKLMNOP", "ABCDEFGHIJKLMNOP"},
               {"  AB CD\t12 \n", "ABCD12"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.typed);
    AppModelRig rig;
    rig.start();
    rig.model().pair(c.typed, rig.server);
    rig.settle();
    EXPECT_EQ(rig.pairings(), c.sent ? std::vector<std::string>{rig.server + " " + *c.sent}
                                     : std::vector<std::string>{});
    EXPECT_EQ(rig.published().pairing,
              c.sent ? PairingState::success("Sam")
                     : PairingState::failed(std::string(AppModel::codeTooShortText)));
  }
}

TEST(AppModelPairTest, FailuresSayWhatToDo) {
  const struct {
    std::optional<APIError> error;  // none: an answer without a device token
    std::string text;
  } cases[] = {
      {APIError::network("timed out"),
       "Can't reach Corvane. Check your internet connection and try again."},
      {APIError::http(400, "bad"),
       "That code didn't work. It may have expired \u2014 get a fresh one and try again."},
      {APIError::http(404, "POST /api/agent/pair \u2192 404: no such code", "no such code"),
       "That code didn't work. It may have expired \u2014 get a fresh one and try again."},
      {APIError::http(429, "slow down"), "Too many tries. Wait a few minutes, then try again."},
      {APIError::http(503, "POST /api/agent/pair \u2192 503: Down for upgrade", "Down for upgrade"),
       "Something went wrong (Down for upgrade)."},
      {APIError::http(502, "POST /api/agent/pair \u2192 502"),
       "Something went wrong (Bad Gateway)."},
      {APIError::unauthorized("Unauthorized: pairing closed", "pairing closed"),
       "Something went wrong (pairing closed)."},
      {APIError::unauthorized("This Mac's device token was revoked or is invalid."),
       "Something went wrong (Unauthorized)."},
      {APIError::badResponse("The server's answer was not understood."),
       "The server's answer was not understood."},
      {APIError::insecureServer(
           "Refusing to talk to http://x.test: Corvane needs an https:// server."),
       "Refusing to talk to http://x.test: Corvane needs an https:// server."},
      {std::nullopt, "The server's answer held no device token."},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    AppModelRig rig;
    rig.configureAPI = [&](FakeAgentAPI& api, auto&, auto&) {
      api.failWith = [&](Call) { return c.error; };
      if (!c.error) api.pairResponse.token.clear();
    };
    rig.start();
    rig.model().pair("ABCD1234", rig.server);
    rig.settle();
    EXPECT_EQ(rig.published().pairing, PairingState::failed(c.text));
    EXPECT_FALSE(rig.published().connected);
    EXPECT_EQ(rig.tokens.load(TokenStore::deviceTokenKey), std::nullopt);
    EXPECT_FALSE(rig.defaults.getString(DefaultsKey::deviceId));
  }
}

TEST_F(AppModelTest, SuccessStoresTheAccountStartsFreshAndPassesSatisfiedSteps) {
  AgentState old;
  old.cursor = 42;
  old.rosterCount = 7;
  old.lastSyncAt = "2023-11-14T22:13:20.123Z";
  FileStateStore(rig.options.stateDir).save(old);
  rig.probes.automationAnswer = S::granted;
  rig.probes.contacts = S::denied;
  rig.start();
  ASSERT_EQ(rig.published().rosterCount, 7);

  const std::string other = "https://preview.corvane.app";
  rig.model().pair("ABCD1234", other);
  rig.manualWorker.runOne();  // the pairing call, not yet the first cycle
  rig.scheduler.runPending();
  const auto& p = rig.published();
  EXPECT_EQ(p.pairing, PairingState::success("Sam"));
  EXPECT_TRUE(p.connected);
  EXPECT_EQ(p.server, other);
  EXPECT_EQ(p.userName, "Sam");
  EXPECT_EQ(p.rosterCount, std::nullopt);
  EXPECT_EQ(p.lastSyncAt, std::nullopt);
  EXPECT_EQ(rig.tokens.load(TokenStore::deviceTokenKey), "tok-new");
  EXPECT_EQ(rig.defaults.getString(DefaultsKey::server), other);
  EXPECT_EQ(rig.defaults.getString(DefaultsKey::deviceId), "dev-1");
  EXPECT_EQ(rig.defaults.getString(DefaultsKey::userName), "Sam");
  EXPECT_FALSE(std::filesystem::exists(rig.options.stateDir / "state.json"));
  rig.settle();
  EXPECT_EQ(rig.statuses().size(), 1u);  // forced right after pairing
  const auto pairCall = rig.made().front();
  EXPECT_EQ(pairCall.token, std::nullopt);
  EXPECT_EQ(pairCall.api->pairs.at(0).deviceName, "Test Mac");
  EXPECT_EQ(pairCall.api->pairs.at(0).agentVersion, "mac-1.2.3");

  expectStepAfter(rig, 1.6, SetupStep::done);
}

// Connect links.

TEST(AppModelLinkTest, ALinkPairsAtOnceOnlyWithinTheWindowAndFromATrustedServer) {
  const struct {
    double secondsAfterConnect;
    const char* link;
    bool pairsAtOnce;
  } cases[] = {
      {899, "corvane://connect?code=ABCD1234", true},
      {900, "corvane://connect?code=ABCD1234", false},
      {10, "corvane://connect?code=ABCD1234&server=https%3A%2F%2Fpreview.corvane.app", true},
      {10, "corvane://connect?code=ABCD1234&server=https%3A%2F%2Fevil.test", false},
      {10, "corvane://connect?code=ABCD1234&server=http%3A%2F%2F127.0.0.1%3A8787", false},
  };
  for (const auto& c : cases) {
    AppModelRig rig;
    rig.start();
    rig.model().connectWithBrowser();
    EXPECT_EQ(rig.opener.urls, std::vector<std::string>{AppModel::connectPageURL(rig.server)});
    rig.scheduler.advance(c.secondsAfterConnect);
    rig.model().handleLink(c.link);
    EXPECT_EQ(rig.published().step, SetupStep::connect);
    EXPECT_EQ(rig.published().pendingLink.has_value(), !c.pairsAtOnce) << c.link;
    rig.settle();
    EXPECT_EQ(rig.published().connected, c.pairsAtOnce) << c.secondsAfterConnect << " " << c.link;
  }
}

TEST_F(AppModelTest, WhatIsNotAConnectLinkChangesNothingAndWhenConnectedALinkWaits) {
  rig.pairedBefore();
  rig.start();
  const SetupStep before = rig.published().step;
  for (const char* url : {"corvane://connect?code=AB", "https://corvane.app/connect?code=ABCD1234",
                          "corvane://other?code=ABCD1234", ""}) {
    rig.model().handleLink(url);
    EXPECT_EQ(rig.published().step, before) << url;
    EXPECT_FALSE(rig.published().pendingLink) << url;
  }

  rig.model().connectWithBrowser();  // connected: pressing Connect does not let a link through
  rig.model().handleLink("corvane://connect?code=WXYZ9876&server=https%3A%2F%2Fpreview.corvane.app");
  ASSERT_TRUE(rig.published().pendingLink);
  rig.settle();
  EXPECT_EQ(rig.tokens.load(TokenStore::deviceTokenKey), "tok-old");
  EXPECT_TRUE(rig.pairings().empty());
}

// Permissions.

TEST_F(AppModelTest, FullDiskPollAdvancesOnceAccessIsOnAndStopsWithTheWindow) {
  rig.pairedBefore();
  rig.probes.access = {false, false};
  rig.start();
  ASSERT_EQ(rig.published().step, SetupStep::fullDisk);
  rig.model().openFullDiskSettings();
  rig.model().stopPermissionPoll();  // the window closed
  const int probesBefore = rig.probes.fullDiskProbes;
  rig.scheduler.advance(10.0);
  EXPECT_EQ(rig.probes.fullDiskProbes, probesBefore);

  rig.model().openFullDiskSettings();
  EXPECT_EQ(rig.probes.panes, (std::vector<std::string>{"Privacy_AllFiles", "Privacy_AllFiles"}));
  EXPECT_EQ(rig.published().openedFullDiskSettingsAt, rig.scheduler.nowMs());
  rig.scheduler.advance(6.0);
  EXPECT_EQ(rig.probes.fullDiskProbes - probesBefore, 3);  // every 2 s
  rig.probes.access = {true, true};
  rig.scheduler.advance(2.0);
  expectStepAfter(rig, 1.2, SetupStep::automation);
  const int probesAfter = rig.probes.fullDiskProbes;
  rig.scheduler.advance(10.0);
  EXPECT_EQ(rig.probes.fullDiskProbes, probesAfter);  // the poll stopped
}

TEST(AppModelPermissionTest, AutomationRequestOutcomes) {
  const struct {
    AutomationRequest answer;
    bool advances;
  } cases[] = {
      {{S::granted, std::nullopt}, true},
      {{S::denied, std::nullopt}, false},
      {{S::unknown, "Messages didn't answer."}, false},
  };
  for (const auto& c : cases) {
    AppModelRig rig;
    rig.startPaired();
    ASSERT_EQ(rig.published().step, SetupStep::automation);
    const auto reportsBefore = rig.statuses().size();
    rig.probes.automationRequestAnswer = c.answer;
    rig.model().requestAutomation();
    EXPECT_TRUE(rig.published().automationBusy);
    rig.model().requestAutomation();  // while busy: not asked twice
    rig.settle();
    EXPECT_EQ(rig.probes.automationRequests, 1);
    EXPECT_FALSE(rig.published().automationBusy);
    EXPECT_EQ(rig.published().automation, c.answer.state);
    EXPECT_EQ(rig.published().automationMessage, c.answer.message);
    EXPECT_EQ(Permissions::loadAutomationAnswer(rig.defaults), c.answer.state);
    EXPECT_EQ(rig.statuses().size(), reportsBefore + 1);
    expectStepAfter(rig, 1.0, c.advances ? SetupStep::contacts : SetupStep::automation);
  }
}

TEST(AppModelPermissionTest, ContactsRequestOutcomes) {
  const struct {
    S before, answer;
    SetupStep advancesTo;
  } cases[] = {
      {S::unknown, S::granted, SetupStep::done},
      {S::unknown, S::denied, SetupStep::contacts},
      {S::granted, S::granted, SetupStep::done},  // asked again: reported all the same
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::Message()
                 << static_cast<int>(c.before) << " then " << static_cast<int>(c.answer));
    AppModelRig rig;
    rig.probes.automationAnswer = S::granted;
    rig.probes.contacts = c.before;
    rig.startPaired();
    const int loads = rig.contactsLoads;
    ASSERT_GE(loads, 1);
    rig.model().wake();
    rig.settle();
    ASSERT_EQ(rig.contactsLoads, loads);  // the book is kept between cycles

    const auto reportsBefore = rig.statuses().size();
    rig.probes.contactsAfterRequest = c.answer;
    rig.model().requestContacts();
    rig.settle();
    EXPECT_EQ(rig.published().contacts, c.answer);
    EXPECT_EQ(rig.statuses().size(), reportsBefore + 1);  // forced, changed or not
    EXPECT_EQ(rig.statuses().back().contactsAccess, c.answer);
    rig.model().wake();
    rig.settle();
    EXPECT_EQ(rig.contactsLoads, loads + 1);  // names as the new answer allows
    expectStepAfter(rig, AppModel::contactsAdvanceSec, c.advancesTo);
  }
}

// Without Messages, sending needs no permission: Automation counts as
// granted whatever was remembered, and nothing is asked. Without an address
// book the Contacts step is still shown, once; going on from it is no skip
// the done screen would ask to undo.
TEST(AppModelPermissionTest, WhatThePlatformLacksIsNeitherAskedNorMissed) {
  AppModelRig rig;
  rig.options.sendsThroughMessages = false;
  rig.options.addressBook = false;
  Permissions::saveAutomationAnswer(rig.defaults, S::denied);
  rig.probes.automationAnswer = S::denied;
  rig.startPaired();
  EXPECT_EQ(rig.published().automation, S::granted);
  EXPECT_FALSE(rig.published().automationNeeded);
  EXPECT_FALSE(rig.published().addressBook);
  EXPECT_EQ(rig.published().step, SetupStep::contacts);
  ASSERT_FALSE(rig.statuses().empty());
  EXPECT_EQ(rig.statuses().back().automationAccess, S::granted);

  rig.model().requestAutomation();
  rig.model().requestContacts();
  rig.model().refreshPermissions();
  rig.settle();
  EXPECT_EQ(rig.probes.automationRequests, 0);
  EXPECT_EQ(rig.probes.contactsRequests, 0);
  EXPECT_EQ(rig.published().automation, S::granted);

  rig.model().skip(SetupStep::contacts);
  EXPECT_EQ(rig.published().step, SetupStep::done);
  EXPECT_TRUE(SetupTexts::skippedPermissions(rig.published()).empty());
  rig.model().showCurrentStep();
  EXPECT_EQ(rig.published().step, SetupStep::done);
}

// The tick and the reports.

TEST_F(AppModelTest, TheTickRefreshesAndAnUnchangedReportWaitsFiveMinutesUnlessForced) {
  rig.startPaired();
  // Asks for a report; the number of reports sent so far.
  const auto report = [&](bool forced) {
    rig.model().reportStatus(forced);
    rig.settle();
    return rig.statuses().size();
  };
  const auto base = rig.statuses().size();
  const int probes = rig.probes.fullDiskProbes;
  EXPECT_EQ(report(false), base);
  EXPECT_EQ(report(true), base + 1);
  rig.scheduler.advance(30.0);
  EXPECT_EQ(rig.published().now, rig.scheduler.nowMs());
  rig.scheduler.advance(269.0);
  EXPECT_EQ(report(false), base + 1);
  EXPECT_EQ(rig.probes.fullDiskProbes, probes);
  rig.scheduler.advance(1.0);  // the tick's tenth fire probes and reports, unchanged or not
  EXPECT_EQ(report(false), base + 3);
  EXPECT_EQ(rig.probes.fullDiskProbes, probes + 1);
  rig.probes.contacts = S::denied;  // a change goes at once
  rig.model().refreshPermissions();
  rig.settle();
  EXPECT_EQ(rig.statuses().size(), base + 4);
  EXPECT_EQ(rig.statuses().back().contactsAccess, S::denied);
}

TEST_F(AppModelTest, NoReportWithoutATokenOrInPreview) {
  rig.start();
  rig.model().reportStatus(true);
  rig.settle();
  EXPECT_TRUE(rig.made().empty());

  AppModelRig preview;
  preview.pairedBefore();
  preview.options.previewMode = true;
  preview.start();
  preview.model().reportStatus(true);
  preview.model().refreshOwnHandles(true);
  preview.settle();
  EXPECT_TRUE(preview.made().empty());
  EXPECT_EQ(preview.probes.fullDiskProbes, 0);
  EXPECT_FALSE(preview.published().connected);
}

TEST_F(AppModelTest, OwnHandlesAreReadAtMostHourlyAndReportedWhenTheyChange) {
  rig.options.chatDBPath = rig.dir.file("own.db");
  {
    chatdbgen::ChatDbBuilder db(rig.options.chatDBPath);
    const auto self = db.oneToOne("+14155550199");
    db.message(self, {.text = "note", .fromMe = true, .dateMs = rig.scheduler.nowMs() - 1000,
                      .destinationCallerId = "+14155550199"});
  }
  rig.startPaired();
  ASSERT_FALSE(rig.statuses().empty());
  EXPECT_EQ(rig.statuses().back().ownHandles, std::vector<std::string>{"+14155550199"});
  EXPECT_EQ(rig.statuses().back().appVersion, "1.2.3");
  for (const auto& m : rig.made()) EXPECT_EQ(m.token, "tok-old");
  rig.scheduler.advance(3000.0);
  rig.settle();
  rig.model().refreshOwnHandles(false);
  EXPECT_EQ(rig.manualWorker.pending(), 0u);  // checked less than an hour ago
  rig.model().refreshOwnHandles(true);
  EXPECT_EQ(rig.manualWorker.pending(), 1u);
  rig.model().refreshOwnHandles(true);  // busy: not twice
  EXPECT_EQ(rig.manualWorker.pending(), 1u);
  const auto reports = rig.statuses().size();
  rig.settle();
  EXPECT_EQ(rig.statuses().size(), reports);  // unchanged handles: no report

  // A second own handle appears; the tick's tenth fire reads the handles
  // again once the last check is an hour old.
  {
    const std::string next = rig.dir.file("own-next.db");
    chatdbgen::ChatDbBuilder db(next);
    for (const char* handle : {"+14155550199", "+14155550188"}) {
      db.message(db.oneToOne(handle), {.text = "note",
                                       .fromMe = true,
                                       .dateMs = rig.scheduler.nowMs() - 1000,
                                       .destinationCallerId = handle});
    }
    std::filesystem::rename(next, rig.options.chatDBPath);
  }
  rig.scheduler.advance(3590.0);
  rig.settle();
  EXPECT_EQ(rig.statuses().back().ownHandles, std::vector<std::string>{"+14155550199"});
  rig.scheduler.advance(10.0);
  rig.settle();
  auto handles = rig.statuses().back().ownHandles.value_or(std::vector<std::string>{});
  std::sort(handles.begin(), handles.end());
  EXPECT_EQ(handles, (std::vector<std::string>{"+14155550188", "+14155550199"}));
}

// Launch at login.

TEST_F(AppModelTest, FinishingSetupRegistersTheLoginItemAndTheToggleChangesOnlyWhatDiffers) {
  rig.start();
  ASSERT_TRUE(rig.published().launchAtLogin);
  EXPECT_TRUE(rig.model().needsSetup());
  rig.model().finishSetup();
  EXPECT_TRUE(rig.model().setupCompleted());
  EXPECT_EQ(rig.loginItem.registers, 1);
  EXPECT_TRUE(rig.loginItem.enabled);
  rig.model().setLaunchAtLogin(true);
  EXPECT_EQ(rig.loginItem.registers, 1);
  rig.model().setLaunchAtLogin(false);
  EXPECT_EQ(rig.loginItem.unregisters, 1);
  EXPECT_FALSE(rig.published().launchAtLogin);
  rig.model().setLaunchAtLogin(false);
  EXPECT_EQ(rig.loginItem.unregisters, 1);
  rig.loginItem.failure = "Operation not permitted.";
  rig.model().setLaunchAtLogin(true);
  EXPECT_EQ(rig.published().loginItemError, "Operation not permitted.");
  EXPECT_FALSE(rig.published().launchAtLogin);
}

// An item waiting for approval in the system's settings is off, and the
// screen says where to approve it, from the start.
TEST_F(AppModelTest, ALoginItemAwaitingApprovalShowsOffWithWhereToApprove) {
  rig.defaults.setBool(DefaultsKey::setupCompleted, true);
  rig.loginItem.approval = "Approve it in System Settings.";
  rig.start();
  EXPECT_FALSE(rig.published().launchAtLogin);
  EXPECT_EQ(rig.published().loginItemError, "Approve it in System Settings.");
}

// Observers and lifetime.

TEST_F(AppModelTest, ObserversHearOfChangesOnlyAndCanLeave) {
  int heard = 0;
  const int key = rig.model().observe([&] { ++heard; });
  rig.start();
  const int afterStart = heard;
  EXPECT_GT(afterStart, 0);
  rig.model().cancelPendingLink();  // nothing pending: no change
  EXPECT_EQ(heard, afterStart);
  rig.model().unobserve(key);
  rig.model().connectWithBrowser();
  EXPECT_EQ(heard, afterStart);
}

TEST_F(AppModelTest, WorkFinishingAfterTheModelIsGoneIsDropped) {
  rig.pairedBefore();
  rig.start();
  rig.model().pair("ABCD1234", rig.server);
  rig.model().requestAutomation();
  ASSERT_GT(rig.manualWorker.pending(), 0u);
  rig.destroy();
  rig.settle();  // results are posted, and dropped
  EXPECT_EQ(rig.scheduler.timerCount(), 0u);
  EXPECT_EQ(rig.tokens.load(TokenStore::deviceTokenKey), "tok-old");
}

}  // namespace
}  // namespace corvane
