#include "app/ui/setup_window.h"

#include <gtest/gtest.h>

#include <QCheckBox>
#include <QDialog>
#include <QFontMetrics>
#include <QLayout>
#include <QLineEdit>
#include <QMenu>
#include <QTest>
#include <algorithm>
#include <utility>

#include "app/model/setup_texts.h"
#include "app/ui/wrapped_label.h"
#include "tests/support/app_model_rig.h"
#include "tests/ui/ui_helpers.h"

namespace corvane {
namespace {

using testing::click;
using testing::enabled;
using testing::expectShown;
using testing::shown;
using testing::text;
using S = PermissionState;

// A window over a real model; `closed` counts the close callback, `opened`
// the pages "Open Corvane" asked for.
class SetupWindowTest : public ::testing::Test {
 protected:
  testing::AppModelRig rig;
  int closed = 0;
  std::vector<std::string> opened;
  std::unique_ptr<SetupWindow> window;

  // A window over a model started as the application starts it (again, over
  // the same files, when called twice), but paused: the worker runs only
  // what the test starts.
  SetupWindow& open(SetupWindow::Frame frame = {}) {
    window.reset();
    rig.destroy();
    rig.model().setPaused(true);
    if (!rig.options.previewMode) rig.start();
    window = std::make_unique<SetupWindow>(
        rig.model(), [this] { ++closed; },
        [this](const std::string& url) { opened.push_back(url); }, std::move(frame));
    window->show();
    return *window;
  }
  // A window over a preview model, which shows what the test sets.
  SetupWindow& preview(SetupWindow::Frame frame = {}) {
    rig.options.previewMode = true;
    return open(std::move(frame));
  }
  const AppModel::Published& published() { return rig.published(); }
};

TEST_F(SetupWindowTest, EachScreenShowsItsControlsAndTextsInItsStates) {
  using Step = SetupStep;
  struct Case {
    const char* name;
    AppModel::Published state;
    std::vector<const char*> visible, hidden;
    std::vector<std::pair<const char*, std::string>> texts;
  };
  const Case cases[] = {
      {"move",
       {.step = Step::move},
       {"moveToApplications", "notNow"},
       {"moveError", "stepCaption"},
       {{"stepTitle", "Move Corvane to Applications"},
        {"stepBody",
         "Corvane works best from your Applications folder \u2014 that's where macOS "
         "remembers the permissions you're about to give it."},
        {"moveToApplications", "Move to Applications"},
        {"notNow", "Not now"}}},
      {"connect: idle",
       {},
       {"connectWithBrowser", "codeToggle"},
       {"waitingForBrowser", "pairingError", "pendingLink", "connectedAs", "codeBox", "back"},
       {{"stepTitle", "Connect your account"},
        {"stepBody",
         "Sign in on the Corvane website and this Mac links up automatically. No "
         "codes to copy."},
        {"connectWithBrowser", "Connect with Corvane"},
        {"codeToggle", "Have a code?"}}},
      // Written as given: not upper-cased, bold where marked.
      {"full disk: not yet on",
       {.step = Step::fullDisk},
       {"stepCaption", "fullDiskInstruction", "openFullDiskSettings", "revealApplication",
        "relaunch"},
       {"fullDiskGranted", "fullDiskWaiting"},
       {{"stepCaption", "Full Disk Access"},
        {"stepTitle", "Let Corvane read Messages"},
        {"stepBody",
         "So Corvane can see who's waiting on you \u2014 only people you add to your "
         "roster ever leave this Mac."},
        {"fullDiskInstruction",
         "Turn on **Corvane** in the list. Don't see it? Click **+**, and "
         "pick Corvane from Applications."},
        {"openFullDiskSettings", "Open System Settings"},
        {"revealApplication", "Show Corvane in Finder"},
        {"relaunch", "Turned it on? Restart Corvane"}}},
      {"automation: denied",
       {.automation = S::denied, .step = Step::automation},
       {"automationDenied", "openAutomationSettings", "checkAgain"},
       {"allowSending"},
       {{"automationDenied",
         "macOS said no. To fix it, open System Settings \u203A Privacy & "
         "Security \u203A Automation and turn on **Messages** under Corvane."},
        {"stepBody",
         "Corvane only sends a text when you tap Send on the website, or when it "
         "replies to a note you texted yourself. macOS will ask you once."}}},
      {"automation: undecided",
       {.step = Step::automation},
       {"allowSending", "skipAutomation", "back"},
       {"automationBusy", "automationDenied", "openAutomationSettings", "checkAgain",
        "automationGranted", "automationMessage", "stepCaption"},
       {{"stepTitle", "Let Corvane send the texts you approve"}}},
      {"automation: no answer",
       {.automationMessage = "Messages didn't answer in time.", .step = Step::automation},
       {"allowSending", "automationMessage"},
       {"automationDenied"},
       {{"automationMessage", "Messages didn't answer in time."}}},
      {"contacts: undecided",
       {.step = Step::contacts},
       {"allowContacts", "skipContacts"},
       {"contactsBusy", "contactsGranted", "contactsDenied", "openContactsSettings",
        "contactsContinue"},
       {{"stepTitle", "Show names, not numbers"},
        {"stepBody",
         "Corvane can use your Contacts to put names on the people you text. Optional "
         "\u2014 you can name people on the website instead."}}},
      {"contacts: denied",
       {.contacts = S::denied, .step = Step::contacts},
       {"contactsDenied", "openContactsSettings"},
       {"allowContacts"},
       {{"contactsDenied",
         "Contacts access is off. You can turn it on later in System Settings "
         "\u203A Privacy & Security \u203A Contacts."}}},
      {"contacts: the prompt is up",
       {.contactsBusy = true, .step = Step::contacts},
       {"contactsBusy", "allowContacts"},
       {"contactsGranted", "contactsDenied"},
       {}},
      {"contacts: granted",
       {.contacts = S::granted, .step = Step::contacts},
       {"contactsGranted", "contactsContinue"},
       {"allowContacts", "contactsDenied", "skipContacts"},
       {}},
      // Without Messages or an address book: the same screens, saying so.
      {"automation: no Messages app",
       {.automation = S::granted, .automationNeeded = false, .step = Step::automation},
       {"automationGranted", "automationContinue"},
       {"allowSending", "skipAutomation"},
       {{"automationGranted", "No permission needed here"},
        {"stepTitle", "Let Corvane send the texts you approve"}}},
      {"automation: Messages, granted",
       {.automation = S::granted, .step = Step::automation},
       {"automationGranted"},
       {"allowSending"},
       {{"automationGranted", "Corvane can send through Messages"}}},
      {"contacts: no address book",
       {.addressBook = false, .step = Step::contacts},
       {"contactsContinue"},
       {"allowContacts", "skipContacts", "contactsGranted", "contactsDenied"},
       {{"stepTitle", "Show names, not numbers"}}},
      {"done: one skipped",
       {.contacts = S::granted, .step = Step::done},
       {"skippedPermissions", "launchAtLogin", "done", "openCorvane"},
       {},
       {{"skippedPermissions", SetupTexts::skippedPermissionsSentence({"Automation"})},
        {"stepTitle", "You're all set"},
        {"stepBody",
         "Corvane lives up here \u2197 in your menu bar. Add the people you're talking "
         "to on the website \u2014 Corvane takes it from there."}}},
  };
  SetupWindow& w = preview();
  EXPECT_EQ(w.size(), QSize(600, 580));
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    AppModel::Published p = c.state;
    p.server = "https://example.test";
    rig.model().setPreview(p);
    expectShown(w, c.visible, c.hidden);
    for (const auto& [name, expected] : c.texts) EXPECT_EQ(text(w, name), expected) << name;
    EXPECT_EQ(enabled(w, "allowContacts"), !p.contactsBusy);  // not asked twice
    // Every wrapped text whole, in lines of about even length: no word
    // left alone at the end ("No / codes to copy.").
    QCoreApplication::sendPostedEvents(nullptr, QEvent::LayoutRequest);
    for (const WrappedLabel* label : w.findChildren<WrappedLabel*>()) {
      if (!label->isVisibleTo(&w) || !label->wordWrap()) continue;
      SCOPED_TRACE(label->objectName().toStdString());
      EXPECT_GE(label->height(), label->heightForWidth(label->width()));
      const QStringList lines = label->lines();
      const QFontMetrics metrics(label->font());
      int longest = 0, shortest = label->width();
      for (const QString& line : lines) {
        longest = std::max(longest, metrics.horizontalAdvance(line));
        shortest = std::min(shortest, metrics.horizontalAdvance(line));
      }
      if (lines.size() > 1) {
        EXPECT_GE(shortest * 2, longest) << lines.join('|').toStdString();
      }
    }
  }
}

// Under a title bar drawn over the content (macOS), nothing sits below its
// buttons; with the system's own frame the content keeps the window's top.
TEST_F(SetupWindowTest, TheContentStartsBelowATitleBarDrawnOverIt) {
  for (const int overlap : {0, 28}) {
    SCOPED_TRACE(overlap);
    std::vector<QWidget*> framed;
    SetupWindow& w = preview([&](QWidget& window) {
      framed.push_back(&window);
      return overlap;
    });
    EXPECT_EQ(framed, std::vector<QWidget*>{&w});  // once, the window itself
    // The tallest screen: Full Disk Access, waiting to be switched on.
    rig.model().setPreview({.openedFullDiskSettingsAt = 1, .step = SetupStep::fullDisk});
    QCoreApplication::sendPostedEvents(nullptr, QEvent::LayoutRequest);
    ASSERT_TRUE(shown(w, "back"));
    const int top = testing::child(w, "back")->mapTo(&w, QPoint(0, 0)).y();
    EXPECT_GE(top, overlap);
    EXPECT_LT(top, overlap + 20);
    // All of it at its full height, in the window as large as ever.
    EXPECT_LE(w.layout()->totalHeightForWidth(w.width()), w.height());
    EXPECT_EQ(w.size(), QSize(600, 580));
  }
}

TEST_F(SetupWindowTest, AFailedMoveIsExplainedThenConnectWaitsForTheBrowserOrPairsByCode) {
  rig.relocator.bundle = rig.dir.file("Downloads/Corvane.app");
  rig.relocator.inApplications = false;
  rig.relocator.moveFailure = "The volume is read-only";
  SetupWindow& w = open();
  EXPECT_EQ(text(w, "stepTitle"), "Move Corvane to Applications");
  expectShown(w, {"moveToApplications", "notNow"}, {"moveError", "back"});
  click(w, "moveToApplications");
  EXPECT_EQ(rig.relocator.moves, 1);
  EXPECT_EQ(text(w, "moveError"), SetupTexts::moveFailed("The volume is read-only"));
  EXPECT_TRUE(shown(w, "moveError"));
  click(w, "notNow");
  EXPECT_TRUE(rig.defaults.getBool(DefaultsKey::skippedMove));  // not offered again

  EXPECT_EQ(text(w, "stepTitle"), "Connect your account");
  click(w, "back");  // Move still applies, so there is a way back to it
  EXPECT_EQ(published().step, SetupStep::move);
  click(w, "notNow");
  click(w, "connectWithBrowser");
  EXPECT_EQ(rig.opener.urls, std::vector<std::string>{AppModel::connectPageURL(rig.server)});
  EXPECT_TRUE(shown(w, "waitingForBrowser"));

  click(w, "codeToggle");
  EXPECT_EQ(text(w, "codeToggle"), "Hide code box");
  auto* field = qobject_cast<QLineEdit*>(testing::child(w, "codeField"));
  ASSERT_TRUE(field && shown(w, "codeField"));
  QTest::keyClicks(field, "ab c");
  QTest::keyClick(field, Qt::Key_Return);  // Return sends it too
  expectShown(w, {"pairingError"}, {"waitingForBrowser"});
  EXPECT_EQ(text(w, "pairingError"), AppModel::codeTooShortText);

  field->clear();
  QTest::keyClicks(field, "K7QP 2MXD");
  click(w, "codeConnect");
  EXPECT_FALSE(enabled(w, "codeConnect"));  // while the pairing runs
  rig.settle();
  EXPECT_EQ(rig.pairings(), std::vector<std::string>{rig.server + " K7QP2MXD"});
  expectShown(w, {"connectedAs", "connectContinue"},
              {"codeField", "connectWithBrowser", "codeToggle", "pendingLink"});
  EXPECT_EQ(text(w, "connectedAs"), "Connected as Sam");
}

TEST_F(SetupWindowTest, PendingLinkIsConfirmedOrCancelled) {
  SetupWindow& w = open();
  const std::string link =
      "corvane://connect?code=ABCD1234&server=https%3A%2F%2Fcorvane.example.net";
  rig.model().handleLink(link);
  expectShown(w, {"pendingLinkText", "pendingContinue", "pendingCancel", "untrustedWarning"},
              {"connectWithBrowser", "connectedAs"});
  EXPECT_EQ(text(w, "pendingLinkText"),
            "Connect this Mac to the Corvane account at corvane.example.net");
  click(w, "pendingCancel");
  expectShown(w, {"connectWithBrowser"}, {"pendingLink"});

  rig.model().handleLink(link);
  click(w, "pendingContinue");
  rig.settle();
  EXPECT_EQ(rig.pairings(), std::vector<std::string>{"https://corvane.example.net ABCD1234"});
  EXPECT_TRUE(shown(w, "connectedAs"));
}

// The steps after connecting, as a user walks through them: each button,
// a denial and its recovery, and the last step's toggle and buttons.
TEST_F(SetupWindowTest, TheStepsAfterConnecting) {
  rig.pairedBefore();
  rig.probes.access = {false, false};
  rig.probes.automationRequestAnswer = {S::denied, std::nullopt};
  rig.probes.contactsAfterRequest = S::denied;
  SetupWindow& w = open();
  ASSERT_EQ(published().step, SetupStep::fullDisk);
  EXPECT_EQ(text(w, "stepTitle"), "Let Corvane read Messages");
  expectShown(w, {"fullDiskInstruction", "stepCaption", "back"},
              {"fullDiskWaiting", "fullDiskGranted"});
  click(w, "openFullDiskSettings");
  EXPECT_TRUE(shown(w, "fullDiskWaiting"));
  click(w, "revealApplication");  // the executable when there is no bundle
  EXPECT_EQ(rig.opener.revealed, std::vector<std::filesystem::path>{rig.options.executablePath});
  rig.relocator.bundle = "/Applications/Corvane.app";
  click(w, "relaunch");
  EXPECT_EQ(rig.relocator.relaunched, std::vector<std::filesystem::path>{*rig.relocator.bundle});
  rig.probes.access = {true, true};
  rig.scheduler.advance(AppModel::fullDiskPollSec);
  expectShown(w, {"fullDiskGranted"}, {"openFullDiskSettings", "fullDiskWaiting"});
  rig.scheduler.advance(5);

  ASSERT_EQ(published().step, SetupStep::automation);
  click(w, "skipAutomation");
  EXPECT_EQ(published().step, SetupStep::contacts);
  click(w, "back");
  click(w, "allowSending");
  EXPECT_TRUE(shown(w, "automationBusy"));
  EXPECT_FALSE(enabled(w, "allowSending"));
  rig.settle();
  expectShown(w, {"automationDenied", "openAutomationSettings", "checkAgain"}, {"allowSending"});
  click(w, "openAutomationSettings");
  rig.probes.automationAnswer = S::granted;  // turned on in System Settings
  click(w, "checkAgain");
  rig.settle();
  expectShown(w, {"automationGranted"},
              {"checkAgain", "allowSending", "automationDenied", "skipAutomation"});
  click(w, "automationContinue");

  EXPECT_EQ(text(w, "stepTitle"), "Show names, not numbers");
  click(w, "skipContacts");
  EXPECT_EQ(published().step, SetupStep::done);
  click(w, "back");
  click(w, "allowContacts");
  rig.settle();
  EXPECT_EQ(rig.probes.contactsRequests, 1);
  expectShown(w, {"contactsDenied", "contactsContinue"},
              {"allowContacts", "contactsGranted", "skipContacts"});
  click(w, "openContactsSettings");
  EXPECT_EQ(rig.probes.panes, (std::vector<std::string>{"Privacy_AllFiles", "Privacy_Automation",
                                                        "Privacy_Contacts"}));
  click(w, "contactsContinue");

  ASSERT_EQ(published().step, SetupStep::done);
  EXPECT_FALSE(shown(w, "skippedPermissions"));  // a denial is an answer, not a skip
  auto* toggle = qobject_cast<QCheckBox*>(testing::child(w, "launchAtLogin"));
  ASSERT_NE(toggle, nullptr);
  EXPECT_TRUE(toggle->isChecked());  // a first setup starts with it on
  click(w, "launchAtLogin");
  EXPECT_FALSE(toggle->isChecked());
  EXPECT_FALSE(shown(w, "loginItemError"));
  rig.loginItem.failure = "Operation not permitted";
  click(w, "launchAtLogin");
  EXPECT_FALSE(toggle->isChecked());  // it is still not registered
  EXPECT_TRUE(shown(w, "loginItemError"));
  EXPECT_EQ(text(w, "loginItemError"), "Operation not permitted");
  click(w, "openCorvane");
  EXPECT_EQ(opened, std::vector<std::string>{rig.server});
  EXPECT_EQ(closed, 0);
  click(w, "done");
  EXPECT_TRUE(rig.model().setupCompleted());
  EXPECT_EQ(closed, 1);
}

// Where texts go to the development sender and there is no address book,
// Full Disk Access leads past Automation to a Contacts screen that only
// says so, and going on from it leaves nothing to turn on later.
TEST_F(SetupWindowTest, WithoutMessagesOrAnAddressBookTheStepsSaySoAndGoOn) {
  rig.options.sendsThroughMessages = false;
  rig.options.addressBook = false;
  rig.pairedBefore();
  rig.probes.access = {false, false};
  SetupWindow& w = open();
  ASSERT_EQ(published().step, SetupStep::fullDisk);
  rig.probes.access = {true, true};
  click(w, "openFullDiskSettings");
  rig.scheduler.advance(5);
  ASSERT_EQ(published().step, SetupStep::contacts);
  EXPECT_NE(text(w, "stepBody").find("none it can read"), std::string::npos) << text(w, "stepBody");
  click(w, "back");
  EXPECT_NE(text(w, "stepBody").find("no Messages app"), std::string::npos) << text(w, "stepBody");
  expectShown(w, {"automationGranted", "automationContinue"}, {"allowSending", "skipAutomation"});
  click(w, "automationContinue");
  click(w, "contactsContinue");
  ASSERT_EQ(published().step, SetupStep::done);
  EXPECT_FALSE(shown(w, "skippedPermissions"));
  EXPECT_EQ(rig.probes.automationRequests + rig.probes.contactsRequests, 0);
  rig.model().showCurrentStep();  // reopening the window starts at done
  EXPECT_EQ(published().step, SetupStep::done);
}

// Closing setup keeps the Dock icon only under a window that could be main.
TEST_F(SetupWindowTest, AnotherVisibleTopLevelWindowKeepsTheApplicationRegular) {
  SetupWindow& setup = preview();
  const struct {
    const char* name;
    Qt::WindowType type;
    bool shown, minimised, counts;
  } cases[] = {
      {"an update dialog", Qt::Dialog, true, false, true},
      {"a second window", Qt::Window, true, false, true},
      {"a hidden dialog", Qt::Dialog, false, false, false},
      {"a minimised window", Qt::Window, true, true, false},
      {"a tool palette", Qt::Tool, true, false, false},
      {"a tool tip", Qt::ToolTip, true, false, false},
  };
  EXPECT_FALSE(otherMainWindowVisible(&setup));  // the setup window alone
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    QWidget other(nullptr, c.type);
    other.resize(200, 100);
    if (c.shown) c.minimised ? other.showMinimized() : other.show();
    EXPECT_EQ(otherMainWindowVisible(&setup), c.counts);
  }
  QMenu menu;  // the open tray menu is no window
  menu.addAction(QStringLiteral("Quit Corvane"));
  menu.popup(QPoint(0, 0));
  EXPECT_FALSE(otherMainWindowVisible(&setup));
  QDialog about;
  about.show();
  EXPECT_TRUE(otherMainWindowVisible(&setup));
  menu.hide();
}

}  // namespace
}  // namespace corvane
