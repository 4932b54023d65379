// The smallest menu-bar application Qt makes: an icon, a two-item menu and a
// window that is never shown. The footprint benchmark runs it beside Corvane,
// so what Qt itself costs on this machine is not counted as Corvane's.
#include <QAction>
#include <QApplication>
#include <QIcon>
#include <QMenu>
#include <QPixmap>
#include <QSystemTrayIcon>
#include <QWidget>

int main(int argc, char** argv) {
  QApplication app(argc, argv);
  QApplication::setQuitOnLastWindowClosed(false);

  QPixmap pixmap(22, 22);
  pixmap.fill(Qt::black);
  QMenu menu;
  menu.addAction("Sync now");
  QObject::connect(menu.addAction("Quit"), &QAction::triggered, &app, &QApplication::quit);
  QSystemTrayIcon tray{QIcon(pixmap)};
  tray.setContextMenu(&menu);
  tray.show();

  QWidget window;
  window.resize(600, 580);
  return QApplication::exec();
}
