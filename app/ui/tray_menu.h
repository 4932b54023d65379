// TrayMenu: the menu-bar item — a system-tray icon and its menu. The first
// line says how syncing goes (statusLine), then the account, pausing, "Sync
// now", the way back into setup, updates and "Quit Corvane". The texts follow
// the model after every change and again just before the menu opens.
//
// The menu is built once and only its items' texts, visibility and
// enablement change, so the tray never holds a menu that was deleted.
//
// Main thread only. The model must outlive the menu.
#pragma once

#include <QIcon>
#include <QImage>
#include <QObject>
#include <functional>
#include <memory>

#include "app/model/app_model.h"

class QAction;
class QMenu;
class QSystemTrayIcon;

namespace corvane {

class TrayMenu : public QObject {
  Q_OBJECT
 public:
  struct Actions {
    std::function<void()> showSetup;  // "Setup…" / "Finish setup…"
    std::function<void()> quit;       // "Quit Corvane"
  };

  // The icon is not shown until show() is called. With `popUpOnClick` a
  // single click on the icon opens the menu too, not only a right click:
  // for systems that don't do that themselves (SystemIntegration).
  TrayMenu(AppModel& model, const QIcon& icon, Actions actions, bool popUpOnClick = true,
           QObject* parent = nullptr);
  ~TrayMenu() override;

  void show();
  QSystemTrayIcon* trayIcon() const { return tray_.get(); }
  QMenu* menu() const { return menu_.get(); }

  // Reads the model into the items' texts and states.
  void refresh();

  // The menu as it would open now, drawn into an image (for screenshots).
  QImage render();

 private:
  QAction* add(const char* name, const QString& text);

  AppModel& model_;
  Actions actions_;
  int observer_ = 0;
  // The menu outlives the tray icon that points at it.
  std::unique_ptr<QMenu> menu_;
  std::unique_ptr<QSystemTrayIcon> tray_;

  QAction* status_ = nullptr;
  QAction* connectedAs_ = nullptr;
  QAction* pause_ = nullptr;
  QAction* syncNow_ = nullptr;
  QAction* setup_ = nullptr;
  QAction* update_ = nullptr;
  QAction* checkForUpdates_ = nullptr;
  QAction* quit_ = nullptr;
};

}  // namespace corvane
