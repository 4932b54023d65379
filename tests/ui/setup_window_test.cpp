#include "app/ui/setup_window.h"

#include <gtest/gtest.h>

#include <QCheckBox>
#include <QLineEdit>
#include <QTest>

#include "tests/ui/app_model_fixture.h"
#include "tests/ui/ui_helpers.h"

namespace corvane {
namespace {

using testing::click;
using testing::enabled;
using testing::shown;
using testing::text;
using S = PermissionState;

const std::string tooShort =
    "That code looks too short. Codes are on the Corvane website under Settings \u203A Devices.";

// A window over a real model; `closed` counts the close callback, `opened`
// the pages "Open Corvane" asked for.
class SetupWindowTest : public ::testing::Test {
 protected:
  testing::ModelStandIns env;
  int closed = 0;
  std::vector<std::string> opened;
  std::unique_ptr<SetupWindow> window;

  SetupWindow& open(AppModel& model) {
    window = std::make_unique<SetupWindow>(
        model, [this] { ++closed; }, [this](const std::string& url) { opened.push_back(url); });
    window->show();
    return *window;
  }
  // A preview model showing `p` as it is.
  SetupWindow& preview(const AppModel::Published& p) {
    AppModel& model = env.start(false, true);
    model.setPreview(p);
    return open(model);
  }
  const AppModel::Published& published() { return env.model->published(); }
};

AppModel::Published at(SetupStep step) {
  AppModel::Published p;
  p.step = step;
  p.server = "https://example.test";
  return p;
}

TEST_F(SetupWindowTest, EachStepShowsItsTitleBodyAndPlace) {
  struct Case {
    SetupStep step;
    std::string caption, title, body;
  };
  const Case cases[] = {
      {SetupStep::move, "", "Move Corvane to Applications",
       "Corvane works best from your Applications folder \u2014 that's where macOS remembers the "
       "permissions you're about to give it."},
      {SetupStep::connect, "", "Connect your account",
       "Sign in on the Corvane website and this Mac links up automatically. No codes to copy."},
      {SetupStep::fullDisk, "Full Disk Access", "Let Corvane read Messages",
       "So Corvane can see who's waiting on you \u2014 only people you add to your roster ever "
       "leave this Mac."},
      {SetupStep::automation, "", "Let Corvane send the texts you approve",
       "Corvane only sends a text when you tap Send on the website, or when it replies to a note "
       "you texted yourself. macOS will ask you once."},
      {SetupStep::contacts, "", "Show names, not numbers",
       "Corvane can use your Contacts to put names on the people you text. Optional \u2014 you "
       "can name people on the website instead."},
      {SetupStep::done, "", "You're all set",
       "Corvane lives up here \u2197 in your menu bar. Add the people you're talking to on the "
       "website \u2014 Corvane takes it from there."},
  };
  SetupWindow& w = preview(at(SetupStep::move));
  EXPECT_EQ(w.windowTitle(), "Set up Corvane");
  EXPECT_EQ(w.size(), QSize(600, 580));
  for (const auto& c : cases) {
    SCOPED_TRACE(c.title);
    env.model->setPreview(at(c.step));
    EXPECT_EQ(text(w, "stepTitle"), c.title);
    EXPECT_EQ(text(w, "stepBody"), c.body);
    EXPECT_EQ(shown(w, "stepCaption"), !c.caption.empty());
    if (!c.caption.empty()) EXPECT_EQ(text(w, "stepCaption"), c.caption);
    EXPECT_EQ(testing::child(w, "stepDots")->property("current").toInt(), static_cast<int>(c.step));
    EXPECT_EQ(shown(w, "back"), c.step > SetupStep::connect);
  }
}

TEST_F(SetupWindowTest, ConnectScreenFollowsThePairing) {
  struct Case {
    const char* name;
    std::function<void(AppModel::Published&)> state;
    std::vector<const char*> visible, hidden;
  };
  const Case cases[] = {
      {"idle", [](auto&) {}, {"connectWithBrowser", "codeToggle"},
       {"waitingForBrowser", "pairingError", "pendingLink", "connectedAs", "codeBox"}},
      {"waiting", [](auto& p) { p.pairing = PairingState::waitingForBrowser(1); },
       {"connectWithBrowser", "waitingForBrowser"}, {"pairingError", "connectedAs"}},
      {"failed", [](auto& p) { p.pairing = PairingState::failed("That code didn't work."); },
       {"pairingError"}, {"waitingForBrowser"}},
      {"connected",
       [](auto& p) {
         p.connected = true;
         p.userName = "Alex Rivera";
       },
       {"connectedAs", "connectContinue"}, {"connectWithBrowser", "codeToggle", "pendingLink"}},
      {"pending link", [](auto& p) { p.pendingLink = ConnectLink{"ABCD1234", std::nullopt}; },
       {"pendingLinkText", "pendingContinue", "pendingCancel"},
       {"connectWithBrowser", "connectedAs"}},
  };
  SetupWindow& w = preview(at(SetupStep::connect));
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    AppModel::Published p = at(SetupStep::connect);
    c.state(p);
    env.model->setPreview(p);
    for (const char* name : c.visible) EXPECT_TRUE(shown(w, name)) << name;
    for (const char* name : c.hidden) EXPECT_FALSE(shown(w, name)) << name;
  }
  AppModel::Published p = at(SetupStep::connect);
  p.pairing = PairingState::waitingForBrowser(1);
  env.model->setPreview(p);
  EXPECT_EQ(text(w, "waitingForBrowser"), "Finish signing in in your browser\u2026");
  p.pairing = PairingState::failed("That code didn't work.");
  env.model->setPreview(p);
  EXPECT_EQ(text(w, "pairingError"), "That code didn't work.");
  p.connected = true;
  p.userName = "Alex Rivera";
  env.model->setPreview(p);
  EXPECT_EQ(text(w, "connectedAs"), "Connected as Alex Rivera");
}

TEST_F(SetupWindowTest, PendingLinkNamesTheHostAndWarnsAboutAnUnusualServer) {
  AppModel::Published p = at(SetupStep::connect);
  p.pendingLink = ConnectLink{"ABCD1234", "https://corvane.example.net"};
  SetupWindow& w = preview(p);
  EXPECT_EQ(text(w, "pendingLinkText"),
            "Connect this Mac to the Corvane account at corvane.example.net");
  EXPECT_TRUE(shown(w, "untrustedWarning"));
  EXPECT_EQ(text(w, "untrustedWarning"),
            "This isn't the usual Corvane website. Only continue if you trust it \u2014 your "
            "roster's messages would go there.");

  p.connected = true;
  p.userName = "Alex Rivera";
  p.pendingLink = ConnectLink{"ABCD1234", std::nullopt};
  env.model->setPreview(p);
  EXPECT_EQ(text(w, "pendingLinkText"),
            "This Mac is connected as Alex Rivera. Switch it to the account from this link on "
            "example.test");
}

TEST_F(SetupWindowTest, FullDiskAccessScreenStates) {
  AppModel::Published p = at(SetupStep::fullDisk);
  p.connected = true;
  SetupWindow& w = preview(p);
  const std::string instruction = text(w, "fullDiskInstruction");
  EXPECT_NE(instruction.find("Turn on <b>Corvane</b> in the list. Don't see it? Click "
                             "<b>+</b>, and pick Corvane from Applications."),
            std::string::npos)
      << instruction;
  EXPECT_EQ(text(w, "openFullDiskSettings"), "Open System Settings");
  EXPECT_EQ(text(w, "revealApplication"), "Show Corvane in Finder");
  EXPECT_EQ(text(w, "relaunch"), "Turned it on? Restart Corvane");
  for (const char* name : {"openFullDiskSettings", "revealApplication", "relaunch"}) {
    EXPECT_TRUE(shown(w, name)) << name;
  }
  EXPECT_FALSE(shown(w, "fullDiskWaiting"));
  EXPECT_FALSE(shown(w, "fullDiskGranted"));

  p.openedFullDiskSettingsAt = 1;
  env.model->setPreview(p);
  EXPECT_TRUE(shown(w, "fullDiskWaiting"));
  EXPECT_EQ(text(w, "fullDiskWaiting"), "Waiting for you to switch it on\u2026");

  p.fullDiskAccess = true;
  env.model->setPreview(p);
  EXPECT_TRUE(shown(w, "fullDiskGranted"));
  EXPECT_EQ(text(w, "fullDiskGranted"), "Corvane can read Messages");
  EXPECT_FALSE(shown(w, "openFullDiskSettings"));
  EXPECT_FALSE(shown(w, "fullDiskWaiting"));
}

TEST_F(SetupWindowTest, AutomationScreenStates) {
  struct Case {
    const char* name;
    S automation;
    bool busy;
    std::optional<std::string> message;
    std::vector<const char*> visible, hidden;
  };
  const Case cases[] = {
      {"undecided", S::unknown, false, std::nullopt, {"allowSending", "skipAutomation"},
       {"automationBusy", "automationDenied", "openAutomationSettings", "checkAgain",
        "automationGranted", "automationMessage"}},
      {"asking", S::unknown, true, std::nullopt, {"allowSending", "automationBusy"},
       {"automationDenied"}},
      {"no answer", S::unknown, false, "Messages didn't answer in time.",
       {"allowSending", "automationMessage"}, {"automationDenied"}},
      {"denied", S::denied, false, std::nullopt,
       {"automationDenied", "openAutomationSettings", "checkAgain", "skipAutomation"},
       {"allowSending", "automationGranted", "automationMessage"}},
      {"denied with message", S::denied, false, "Not authorised to send Apple events.",
       {"automationDenied", "automationMessage", "openAutomationSettings", "checkAgain"},
       {"allowSending"}},
      {"granted", S::granted, false, std::nullopt, {"automationGranted", "automationContinue"},
       {"allowSending", "automationDenied", "skipAutomation"}},
  };
  SetupWindow& w = preview(at(SetupStep::automation));
  EXPECT_EQ(text(w, "allowSending"), "Allow sending");
  EXPECT_EQ(text(w, "skipAutomation"), "Skip for now");
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    AppModel::Published p = at(SetupStep::automation);
    p.automation = c.automation;
    p.automationBusy = c.busy;
    p.automationMessage = c.message;
    env.model->setPreview(p);
    for (const char* name : c.visible) EXPECT_TRUE(shown(w, name)) << name;
    for (const char* name : c.hidden) EXPECT_FALSE(shown(w, name)) << name;
    if (c.busy) {
      EXPECT_FALSE(enabled(w, "allowSending"));
      EXPECT_EQ(text(w, "automationBusy"), "Click OK in the box macOS shows\u2026");
    }
    if (c.message) EXPECT_EQ(text(w, "automationMessage"), *c.message);
  }
  AppModel::Published p = at(SetupStep::automation);
  p.automation = S::denied;
  env.model->setPreview(p);
  EXPECT_EQ(text(w, "automationDenied"),
            "macOS said no. To fix it, open System Settings \u203A Privacy &amp; Security \u203A "
            "Automation and turn on <b>Messages</b> under Corvane.");
  EXPECT_EQ(text(w, "openAutomationSettings"), "Open Automation Settings");
  EXPECT_EQ(text(w, "checkAgain"), "Check again");
  p.automation = S::granted;
  env.model->setPreview(p);
  EXPECT_EQ(text(w, "automationGranted"), "Corvane can send through Messages");
}

TEST_F(SetupWindowTest, ContactsScreenStates) {
  struct Case {
    S contacts;
    std::vector<const char*> visible, hidden;
  };
  const Case cases[] = {
      {S::unknown, {"allowContacts", "skipContacts"},
       {"contactsGranted", "contactsDenied", "openContactsSettings", "contactsContinue"}},
      {S::granted, {"contactsGranted", "contactsContinue"},
       {"allowContacts", "contactsDenied", "skipContacts"}},
      {S::denied, {"contactsDenied", "openContactsSettings", "contactsContinue"},
       {"allowContacts", "contactsGranted", "skipContacts"}},
  };
  SetupWindow& w = preview(at(SetupStep::contacts));
  for (const auto& c : cases) {
    SCOPED_TRACE(static_cast<int>(c.contacts));
    AppModel::Published p = at(SetupStep::contacts);
    p.contacts = c.contacts;
    env.model->setPreview(p);
    for (const char* name : c.visible) EXPECT_TRUE(shown(w, name)) << name;
    for (const char* name : c.hidden) EXPECT_FALSE(shown(w, name)) << name;
  }
  EXPECT_EQ(text(w, "contactsGranted"), "Names are on");
  EXPECT_EQ(text(w, "contactsDenied"),
            "Contacts access is off. You can turn it on later in System Settings \u203A Privacy & "
            "Security \u203A Contacts.");
  EXPECT_EQ(text(w, "openContactsSettings"), "Open Contacts Settings");
}

TEST_F(SetupWindowTest, DoneScreenNamesWhatWasSkipped) {
  struct Case {
    S automation, contacts;
    std::string sentence;  // empty: not shown
  };
  const Case cases[] = {
      {S::granted, S::granted, ""},
      {S::granted, S::denied, ""},
      {S::unknown, S::granted, "Automation. Turn it on anytime from Setup\u2026 in the menu."},
      {S::granted, S::unknown, "Contacts. Turn it on anytime from Setup\u2026 in the menu."},
      {S::denied, S::unknown,
       "Automation and Contacts. Turn them on anytime from Setup\u2026 in the menu."},
  };
  SetupWindow& w = preview(at(SetupStep::done));
  EXPECT_EQ(text(w, "launchAtLogin"), "Launch Corvane when I log in");
  EXPECT_EQ(text(w, "done"), "Done");
  EXPECT_EQ(text(w, "openCorvane"), "Open Corvane");
  for (const auto& c : cases) {
    SCOPED_TRACE(c.sentence);
    AppModel::Published p = at(SetupStep::done);
    p.automation = c.automation;
    p.contacts = c.contacts;
    env.model->setPreview(p);
    EXPECT_EQ(shown(w, "skippedPermissions"), !c.sentence.empty());
    if (!c.sentence.empty()) EXPECT_EQ(text(w, "skippedPermissions"), c.sentence);
  }
}

TEST_F(SetupWindowTest, SkippingBothPermissionsGivesTheJoinedSentence) {
  env.probes.automation = S::denied;
  AppModel& model = env.start(true);
  SetupWindow& w = open(model);
  ASSERT_EQ(published().step, SetupStep::automation);
  click(w, "skipAutomation");
  ASSERT_EQ(published().step, SetupStep::contacts);
  click(w, "skipContacts");
  ASSERT_EQ(published().step, SetupStep::done);
  EXPECT_TRUE(env.defaults.getBool(DefaultsKey::skippedAutomation));
  EXPECT_TRUE(env.defaults.getBool(DefaultsKey::skippedContacts));
  EXPECT_EQ(text(w, "skippedPermissions"),
            "Automation and Contacts. Turn them on anytime from Setup\u2026 in the menu.");
}

TEST_F(SetupWindowTest, NotNowOnMoveStartsTheFlowAtConnect) {
  env.relocator.bundle = env.dir.file("Downloads/Corvane.app");
  SetupWindow& w = open(env.start());
  ASSERT_EQ(text(w, "stepTitle"), "Move Corvane to Applications");
  click(w, "notNow");
  EXPECT_TRUE(env.defaults.getBool(DefaultsKey::skippedMove));
  EXPECT_EQ(published().step, SetupStep::connect);
  EXPECT_EQ(text(w, "stepTitle"), "Connect your account");

  // Reopened after a restart: Connect, not Move.
  window.reset();
  SetupWindow& again = open(env.start());
  EXPECT_EQ(published().step, SetupStep::connect);
  EXPECT_EQ(text(again, "stepTitle"), "Connect your account");
}

TEST_F(SetupWindowTest, FailedMoveIsExplainedUnderTheButtons) {
  env.relocator.bundle = env.dir.file("Downloads/Corvane.app");
  env.relocator.moveFailure = "The volume is read-only";
  SetupWindow& w = open(env.start());
  EXPECT_FALSE(shown(w, "moveError"));
  click(w, "moveToApplications");
  EXPECT_EQ(env.relocator.moves, 1);
  EXPECT_TRUE(shown(w, "moveError"));
  EXPECT_EQ(text(w, "moveError"),
            "Couldn't move Corvane: The volume is read-only. Drag it into Applications yourself, "
            "then open it from there.");
}

TEST_F(SetupWindowTest, ConnectWithCorvaneOpensTheBrowserAndWaits) {
  SetupWindow& w = open(env.start());
  EXPECT_FALSE(shown(w, "waitingForBrowser"));
  click(w, "connectWithBrowser");
  EXPECT_EQ(env.opener.urls,
            std::vector<std::string>{AppModel::connectPageURL(testing::ModelStandIns::sampleServer)});
  EXPECT_EQ(published().pairing.kind, PairingState::Kind::waitingForBrowser);
  EXPECT_TRUE(shown(w, "waitingForBrowser"));
}

TEST_F(SetupWindowTest, CodeBoxPairsWithTheTypedCode) {
  SetupWindow& w = open(env.start());
  EXPECT_EQ(text(w, "codeToggle"), "Have a code?");
  EXPECT_FALSE(shown(w, "codeField"));
  click(w, "codeToggle");
  EXPECT_EQ(text(w, "codeToggle"), "Hide code box");
  ASSERT_TRUE(shown(w, "codeField"));
  EXPECT_EQ(text(w, "codeLabel"), "Pairing code");

  QTest::keyClicks(testing::child(w, "codeField"), "K7QP 2MXD");
  click(w, "codeConnect");
  EXPECT_EQ(published().pairing.kind, PairingState::Kind::pairing);
  EXPECT_FALSE(enabled(w, "codeConnect"));

  env.settle();
  ASSERT_EQ(env.api->pairs.size(), 1u);
  EXPECT_EQ(env.api->pairs[0].code, "K7QP2MXD");
  EXPECT_EQ(env.apiServers.front(), testing::ModelStandIns::sampleServer);
  EXPECT_TRUE(published().connected);
  EXPECT_TRUE(shown(w, "connectedAs"));
  EXPECT_EQ(text(w, "connectedAs"), "Connected as Sam");
  EXPECT_FALSE(shown(w, "codeField"));
}

TEST_F(SetupWindowTest, CodeBoxClosesAndShowsWhyACodeFailed) {
  SetupWindow& w = open(env.start());
  click(w, "codeToggle");
  QTest::keyClicks(testing::child(w, "codeField"), "ab c");
  QTest::keyClick(testing::child(w, "codeField"), Qt::Key_Return);
  EXPECT_TRUE(env.api->pairs.empty());
  EXPECT_TRUE(shown(w, "pairingError"));
  EXPECT_EQ(text(w, "pairingError"), tooShort);

  click(w, "codeToggle");
  EXPECT_FALSE(shown(w, "codeField"));
  EXPECT_EQ(text(w, "codeToggle"), "Have a code?");
}

TEST_F(SetupWindowTest, PendingLinkIsConfirmedOrCancelled) {
  AppModel& model = env.start();
  SetupWindow& w = open(model);
  const std::string link = "corvane://connect?code=ABCD1234&server=https%3A%2F%2Fcorvane.example.net";
  model.handleLink(link);
  ASSERT_TRUE(shown(w, "pendingLink"));
  EXPECT_TRUE(shown(w, "untrustedWarning"));
  click(w, "pendingCancel");
  EXPECT_FALSE(published().pendingLink.has_value());
  EXPECT_FALSE(shown(w, "pendingLink"));
  EXPECT_TRUE(shown(w, "connectWithBrowser"));

  model.handleLink(link);
  click(w, "pendingContinue");
  env.settle();
  ASSERT_EQ(env.api->pairs.size(), 1u);
  EXPECT_EQ(env.api->pairs[0].code, "ABCD1234");
  EXPECT_EQ(env.apiServers.front(), "https://corvane.example.net");
  EXPECT_TRUE(published().connected);
}

TEST_F(SetupWindowTest, FullDiskAccessButtonsAndTheWaitForTheSwitch) {
  env.probes.fullDisk = {false, false};
  SetupWindow& w = open(env.start(true));
  ASSERT_EQ(published().step, SetupStep::fullDisk);
  click(w, "openFullDiskSettings");
  EXPECT_EQ(env.probes.openedPanes, std::vector<std::string>{"Privacy_AllFiles"});
  EXPECT_TRUE(shown(w, "fullDiskWaiting"));
  click(w, "revealApplication");
  EXPECT_EQ(env.opener.revealed.size(), 1u);
  click(w, "relaunch");
  EXPECT_EQ(env.relocator.relaunched.size(), 1u);

  env.probes.fullDisk = {true, true};
  env.scheduler.advance(AppModel::fullDiskPollSec);
  EXPECT_TRUE(shown(w, "fullDiskGranted"));
  EXPECT_FALSE(shown(w, "openFullDiskSettings"));
  env.scheduler.advance(AppModel::fullDiskAdvanceSec);
  EXPECT_EQ(text(w, "stepTitle"), "Let Corvane send the texts you approve");
}

TEST_F(SetupWindowTest, DeniedAutomationOffersRecoveryInsteadOfTheRequest) {
  env.probes.automationAnswer = {S::denied, std::nullopt};
  SetupWindow& w = open(env.start(true));
  ASSERT_EQ(published().step, SetupStep::automation);
  click(w, "allowSending");
  EXPECT_TRUE(shown(w, "automationBusy"));
  EXPECT_FALSE(enabled(w, "allowSending"));
  env.settle();
  EXPECT_EQ(env.probes.automationRequests, 1);
  EXPECT_EQ(published().automation, S::denied);
  EXPECT_FALSE(shown(w, "allowSending"));
  EXPECT_TRUE(shown(w, "openAutomationSettings"));
  EXPECT_TRUE(shown(w, "checkAgain"));

  click(w, "openAutomationSettings");
  EXPECT_EQ(env.probes.openedPanes, std::vector<std::string>{"Privacy_Automation"});
  // The user turned it on in System Settings.
  env.probes.automation = S::granted;
  click(w, "checkAgain");
  env.settle();
  EXPECT_TRUE(shown(w, "automationGranted"));
  EXPECT_FALSE(shown(w, "checkAgain"));
}

TEST_F(SetupWindowTest, ContactsRequestAndSettings) {
  env.probes.automation = S::granted;
  env.probes.contactsAfterRequest = S::denied;
  SetupWindow& w = open(env.start(true));
  ASSERT_EQ(published().step, SetupStep::contacts);
  click(w, "allowContacts");
  env.settle();
  EXPECT_EQ(published().contacts, S::denied);
  EXPECT_TRUE(shown(w, "contactsDenied"));
  click(w, "openContactsSettings");
  EXPECT_EQ(env.probes.openedPanes, std::vector<std::string>{"Privacy_Contacts"});
  click(w, "contactsContinue");
  EXPECT_EQ(published().step, SetupStep::done);
}

TEST_F(SetupWindowTest, BackReturnsToTheStepBefore) {
  env.probes.automation = S::granted;
  SetupWindow& w = open(env.start(true));
  ASSERT_EQ(published().step, SetupStep::contacts);
  click(w, "back");
  EXPECT_EQ(published().step, SetupStep::automation);
  EXPECT_EQ(text(w, "stepTitle"), "Let Corvane send the texts you approve");
  click(w, "automationContinue");
  EXPECT_EQ(published().step, SetupStep::contacts);
}

TEST_F(SetupWindowTest, LaunchAtLoginToggleAndItsError) {
  env.probes.automation = S::granted;
  env.probes.contacts = S::granted;
  SetupWindow& w = open(env.start(true));
  ASSERT_EQ(published().step, SetupStep::done);
  auto* toggle = qobject_cast<QCheckBox*>(testing::child(w, "launchAtLogin"));
  ASSERT_NE(toggle, nullptr);
  // A first setup starts with the toggle on.
  EXPECT_TRUE(toggle->isChecked());
  click(w, "launchAtLogin");
  EXPECT_FALSE(published().launchAtLogin);
  click(w, "launchAtLogin");
  EXPECT_TRUE(env.loginItem.enabled);
  EXPECT_FALSE(shown(w, "loginItemError"));

  env.loginItem.failure = "Operation not permitted";
  click(w, "launchAtLogin");
  EXPECT_TRUE(env.loginItem.enabled);
  EXPECT_TRUE(toggle->isChecked());  // it is still registered
  EXPECT_TRUE(shown(w, "loginItemError"));
  EXPECT_EQ(text(w, "loginItemError"), "Operation not permitted");
}

TEST_F(SetupWindowTest, DoneFinishesTheSetupAndClosesOpenCorvaneOpensTheWebsite) {
  env.probes.automation = S::granted;
  env.probes.contacts = S::granted;
  SetupWindow& w = open(env.start(true));
  ASSERT_EQ(published().step, SetupStep::done);
  click(w, "openCorvane");
  EXPECT_EQ(opened, std::vector<std::string>{testing::ModelStandIns::sampleServer});
  EXPECT_EQ(closed, 0);
  EXPECT_FALSE(env.defaults.getBool(DefaultsKey::setupCompleted));
  click(w, "done");
  EXPECT_TRUE(env.defaults.getBool(DefaultsKey::setupCompleted));
  EXPECT_TRUE(env.model->setupCompleted());
  EXPECT_EQ(closed, 1);
}

}  // namespace
}  // namespace corvane
