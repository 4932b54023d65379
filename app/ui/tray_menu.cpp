#include "app/ui/tray_menu.h"

#include <QAction>
#include <QCursor>
#include <QMenu>
#include <QSystemTrayIcon>

#include "app/model/status_line.h"

namespace corvane {
namespace {

QString q(const std::string& text) { return QString::fromStdString(text); }

// Where Qt draws the menu itself (not a native one), a quieter look close to
// the menus of the desktop it runs on. The status line is a disabled item, so
// disabled text keeps a contrast of 4.5:1 and stays readable.
const char* const menuStyle = R"(
QMenu { background: #fbfbfc; border: 1px solid #d3d4d9; border-radius: 8px; padding: 5px 0; }
QMenu::item { padding: 5px 28px 5px 18px; color: #1d1d1f; font-size: 13px; }
QMenu::item:selected { background: #2b6ce6; color: #ffffff; border-radius: 5px; margin: 0 5px;
                       padding: 5px 23px 5px 13px; }
QMenu::item:disabled { color: #6e6e73; }
QMenu::separator { height: 1px; background: #e2e3e7; margin: 5px 10px; }
)";

}  // namespace

TrayMenu::TrayMenu(AppModel& model, const QIcon& icon, Actions actions, bool popUpOnClick,
                   QObject* parent)
    : QObject(parent), model_(model), actions_(std::move(actions)) {
  menu_ = std::make_unique<QMenu>();
  menu_->setObjectName(QStringLiteral("trayMenu"));
  menu_->setStyleSheet(QString::fromUtf8(menuStyle));

  status_ = add("status", {});
  status_->setEnabled(false);
  connectedAs_ = add("connectedAs", {});
  connectedAs_->setEnabled(false);
  menu_->addSeparator();
  pause_ = add("pause", {});
  connect(pause_, &QAction::triggered, this, [this] { model_.setPaused(!model_.published().paused); });
  syncNow_ = add("syncNow", QStringLiteral("Sync now"));
  connect(syncNow_, &QAction::triggered, this, [this] { model_.wake(); });
  menu_->addSeparator();
  setup_ = add("setup", {});
  connect(setup_, &QAction::triggered, this, [this] {
    if (actions_.showSetup) actions_.showSetup();
  });
  update_ = add("updateAvailable", {});
  // The updater's own window presents the waiting version.
  connect(update_, &QAction::triggered, this, [this] { model_.checkForUpdates(); });
  checkForUpdates_ = add("checkForUpdates", QStringLiteral("Check for Updates\u2026"));
  connect(checkForUpdates_, &QAction::triggered, this, [this] { model_.checkForUpdates(); });
  menu_->addSeparator();
  quit_ = add("quit", QStringLiteral("Quit Corvane"));
  connect(quit_, &QAction::triggered, this, [this] {
    if (actions_.quit) actions_.quit();
  });

  // "· last sync 5 min ago" must not be stale when the menu opens.
  connect(menu_.get(), &QMenu::aboutToShow, this, &TrayMenu::refresh);

  tray_ = std::make_unique<QSystemTrayIcon>(icon);
  tray_->setObjectName(QStringLiteral("trayIcon"));
  tray_->setContextMenu(menu_.get());
  if (popUpOnClick) {
    // Qt opens the context menu on a right click and only reports a left
    // one (Trigger); a status icon's menu opens on either.
    connect(tray_.get(), &QSystemTrayIcon::activated, this,
            [this](QSystemTrayIcon::ActivationReason reason) {
              if (reason != QSystemTrayIcon::Trigger || menu_->isVisible()) return;
              const QRect icon = tray_->geometry();
              menu_->popup(icon.isValid() ? icon.bottomLeft() : QCursor::pos());
            });
  }

  observer_ = model_.observe([this] { refresh(); });
  refresh();
}

TrayMenu::~TrayMenu() {
  model_.unobserve(observer_);
  tray_.reset();
}

QAction* TrayMenu::add(const char* name, const QString& text) {
  QAction* action = menu_->addAction(text);
  action->setObjectName(QString::fromLatin1(name));
  return action;
}

void TrayMenu::show() { tray_->show(); }

void TrayMenu::refresh() {
  const AppModel::Published& p = model_.published();
  const QString status = q(statusLine(p));
  status_->setText(status);
  tray_->setToolTip(QStringLiteral("Corvane \u2014 ") + status);

  const bool named = p.connected && p.userName && !p.userName->empty();
  connectedAs_->setVisible(named);
  connectedAs_->setText(named ? QStringLiteral("Connected as ") + q(*p.userName) : QString());

  pause_->setText(p.paused ? QStringLiteral("Resume syncing") : QStringLiteral("Pause syncing"));
  // Without a device token there is no loop to pause or wake.
  pause_->setEnabled(p.connected);
  syncNow_->setEnabled(p.connected);
  setup_->setText(model_.setupCompleted() ? QStringLiteral("Setup\u2026")
                                          : QStringLiteral("Finish setup\u2026"));
  update_->setVisible(p.availableVersion.has_value());
  update_->setText(p.availableVersion
                       ? QStringLiteral("Update available: Corvane ") + q(*p.availableVersion)
                       : QString());
  checkForUpdates_->setEnabled(p.canCheckForUpdates);
}

QImage TrayMenu::render() {
  refresh();
  menu_->ensurePolished();
  menu_->adjustSize();
  return menu_->grab().toImage();
}

}  // namespace corvane
