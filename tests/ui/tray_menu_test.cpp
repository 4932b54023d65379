#include "app/ui/tray_menu.h"

#include <gtest/gtest.h>

#include <QAction>
#include <QMenu>
#include <QSystemTrayIcon>
#include <QTest>
#include <cmath>

#include "app/model/status_line.h"
#include "tests/support/app_model_rig.h"

namespace corvane {
namespace {

class TrayMenuTest : public ::testing::Test {
 protected:
  testing::AppModelRig rig;
  int setupShown = 0, quits = 0;
  std::unique_ptr<TrayMenu> tray;

  // The menu over the rig's model; over a preview model, the test sets what it shows.
  AppModel& make(bool preview = false, bool popUpOnClick = true) {
    rig.options.previewMode = preview;
    tray = std::make_unique<TrayMenu>(
        rig.model(), QIcon(), TrayMenu::Actions{[this] { ++setupShown; }, [this] { ++quits; }},
        popUpOnClick);
    return rig.model();
  }
  QAction* item(const char* name) {
    auto* action = tray->menu()->findChild<QAction*>(QString::fromLatin1(name));
    EXPECT_NE(action, nullptr) << name;
    return action;
  }
  // The items a user sees, top to bottom; disabled ones marked.
  std::vector<std::string> visibleItems() {
    std::vector<std::string> items;
    for (QAction* action : tray->menu()->actions()) {
      if (action->isSeparator() || !action->isVisible()) continue;
      items.push_back((action->isEnabled() ? "" : "(off) ") + action->text().toStdString());
    }
    return items;
  }
  // Opens the menu and clicks `name` with the mouse.
  void choose(const char* name) {
    QMenu* menu = tray->menu();
    menu->popup(QPoint(0, 0));
    QAction* action = item(name);
    ASSERT_TRUE(action->isVisible() && action->isEnabled()) << name;
    QTest::mouseClick(menu, Qt::LeftButton, {}, menu->actionGeometry(action).center());
    menu->hide();
  }
};

TEST_F(TrayMenuTest, ItemsInEachState) {
  const AppModel::Published paused{.connected = true, .userName = "Alex Rivera",
                                   .fullDiskAccess = true, .paused = true};
  AppModel::Published updateOffered = paused;
  updateOffered.paused = false;
  updateOffered.phase = SyncPhase::error("Sync problem \u2014 retrying");
  updateOffered.availableVersion = "1.4.0";
  updateOffered.canCheckForUpdates = true;
  const struct {
    const char* name;
    AppModel::Published state;
    bool setupCompleted;
    std::vector<std::string> items;
  } cases[] = {
      {"not connected",
       {},
       false,
       {"(off) Not connected", "(off) Pause syncing", "(off) Sync now", "Finish setup\u2026",
        "(off) Check for Updates\u2026", "Quit Corvane"}},
      {"paused",
       paused,
       true,
       {"(off) Paused", "(off) Connected as Alex Rivera", "Resume syncing", "Sync now",
        "Setup\u2026", "(off) Check for Updates\u2026", "Quit Corvane"}},
      {"an error and an update offered",
       updateOffered,
       true,
       {"(off) Sync problem \u2014 retrying", "(off) Connected as Alex Rivera", "Pause syncing",
        "Sync now", "Setup\u2026", "Update available: Corvane 1.4.0", "Check for Updates\u2026",
        "Quit Corvane"}},
  };
  AppModel& model = make(true);
  EXPECT_EQ(tray->trayIcon()->contextMenu(), tray->menu());
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    rig.defaults.setBool(DefaultsKey::setupCompleted, c.setupCompleted);
    model.setPreview(c.state);
    EXPECT_EQ(visibleItems(), c.items);
  }
  // The status line is read, not clicked, yet it must be as legible as text:
  // its darkest pixel against the menu at 4.5:1 or more.
  const QImage menu = tray->render();
  const QRect line = tray->menu()->actionGeometry(item("status"));
  const auto luminance = [](QRgb rgb) {
    const auto channel = [](int v) {
      const double c = v / 255.0;
      return c <= 0.03928 ? c / 12.92 : std::pow((c + 0.055) / 1.055, 2.4);
    };
    return 0.2126 * channel(qRed(rgb)) + 0.7152 * channel(qGreen(rgb)) +
           0.0722 * channel(qBlue(rgb));
  };
  double text = 1, background = luminance(menu.pixel(line.left() + 2, line.center().y()));
  for (int y = line.top(); y <= line.bottom(); ++y) {
    for (int x = line.left(); x <= line.right(); ++x)
      text = std::min(text, luminance(menu.pixel(x, y)));
  }
  EXPECT_GE((background + 0.05) / (text + 0.05), 4.5);

  // Finishing setup publishes nothing: the menu reads its texts again as it opens.
  rig.defaults.setBool(DefaultsKey::setupCompleted, false);
  tray->menu()->popup(QPoint(0, 0));
  EXPECT_EQ(item("setup")->text(), "Finish setup\u2026");
  tray->menu()->hide();
}

TEST_F(TrayMenuTest, TheItemsCallTheModelAndTheApplication) {
  rig.pairedBefore();
  rig.model().setPaused(true);
  rig.start();
  AppModel& model = make();
  rig.settle();  // the first status report and own-handles check
  choose("pause");
  EXPECT_FALSE(model.published().paused);
  // Resuming started a cycle; the status line follows it.
  ASSERT_EQ(rig.manualWorker.pending(), 1u);
  rig.settle();
  EXPECT_EQ(item("status")->text().toStdString(), statusLine(model.published()));

  choose("syncNow");
  EXPECT_EQ(model.published().phase.kind, SyncPhase::Kind::syncing);
  EXPECT_EQ(rig.manualWorker.pending(), 1u);

  choose("pause");
  EXPECT_TRUE(model.published().paused);
  EXPECT_EQ(item("status")->text(), "Paused");

  choose("setup");
  EXPECT_EQ(setupShown, 1);
  choose("quit");
  EXPECT_EQ(quits, 1);
}

// A single click opens the menu, fresh, where the system only reports the
// click; where the system opens it itself, a second menu never pops up.
TEST_F(TrayMenuTest, ASingleClickOnTheIconOpensTheMenu) {
  using R = QSystemTrayIcon::ActivationReason;
  const struct {
    bool popUpOnClick;
    R reason;
    bool opens;
  } cases[] = {
      {true, R::Trigger, true},      {true, R::Context, false},  // Qt opens that one itself
      {true, R::DoubleClick, false}, {true, R::MiddleClick, false},
      {false, R::Trigger, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::Message() << "popUpOnClick " << c.popUpOnClick << ", reason "
                                      << static_cast<int>(c.reason));
    make(false, c.popUpOnClick);
    item("status")->setText({});
    emit tray->trayIcon()->activated(c.reason);
    EXPECT_EQ(tray->menu()->isVisible(), c.opens);
    if (c.opens) {
      EXPECT_EQ(item("status")->text(), "Not connected");  // refreshed on opening
    }
    tray->menu()->hide();
  }
  // A click while the menu is open leaves it open, not closed and reopened.
  make();
  int shown = 0;
  QObject::connect(tray->menu(), &QMenu::aboutToShow, [&shown] { ++shown; });
  emit tray->trayIcon()->activated(R::Trigger);
  emit tray->trayIcon()->activated(R::Trigger);
  EXPECT_TRUE(tray->menu()->isVisible());
  EXPECT_EQ(shown, 1);
  tray->menu()->hide();
}

}  // namespace
}  // namespace corvane
