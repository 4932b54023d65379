#include "app/ui/application.h"

#include <pthread.h>
#include <signal.h>

#include <QApplication>
#include <QFile>
#include <QFileOpenEvent>
#include <QScreen>
#include <QSystemTrayIcon>
#include <QTimer>
#include <atomic>
#include <memory>
#include <thread>

#include "app/headless/command_line.h"
#include "app/model/app_model.h"
#include "app/model/thread_worker.h"
#include "app/platform/activation_policy.h"
#include "app/platform/bundle_relocator.h"
#include "app/platform/login_item.h"
#include "app/platform/permissions.h"
#include "app/platform/token_store.h"
#include "app/platform/updater.h"
#include "app/platform/user_defaults.h"
#include "app/ui/app_delegate.h"
#include "app/ui/app_icon.h"
#include "app/ui/desktop_opener.h"
#include "app/ui/link_inbox.h"
#include "app/ui/qt_scheduler.h"
#include "app/ui/setup_window.h"
#include "app/ui/single_instance.h"
#include "app/ui/snapshots.h"
#include "app/ui/system_integration.h"
#include "app/ui/tray_menu.h"
#include "core/api/api_client.h"
#include "core/chatdb/chat_db.h"
#include "core/contacts/phone.h"
#include "core/contacts/system_contacts.h"
#include "core/protocol/app_info.h"
#include "core/protocol/iso_time.h"
#include "core/sync/state_store.h"

namespace corvane {
namespace {

constexpr char kScheme[] = "corvane:";

// What the desktop entry's "%u" passes: any argument that is a link of ours.
QStringList linksIn(int argc, char** argv) {
  QStringList links;
  for (int i = 1; i < argc; ++i) {
    const QString argument = QString::fromLocal8Bit(argv[i]);
    if (argument.startsWith(kScheme, Qt::CaseInsensitive)) links << argument;
  }
  return links;
}

// SIGINT and SIGTERM end the event loop as "Quit Corvane" does, so a send
// in flight finishes and the socket and lock go away. They are blocked
// before Qt starts any thread, so every thread inherits that, and one
// thread of ours waits for them; nothing runs in a signal handler.
sigset_t stopSignalSet() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  return set;
}

void blockStopSignals() {
  const sigset_t set = stopSignalSet();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

class StopSignalWatcher {
 public:
  explicit StopSignalWatcher(QCoreApplication& app) {
    thread_ = std::thread([this, &app] {
      const sigset_t set = stopSignalSet();
      int received = 0;
      while (sigwait(&set, &received) != 0) {
      }
      if (!leaving_) QMetaObject::invokeMethod(&app, &QCoreApplication::quit, Qt::QueuedConnection);
    });
  }
  ~StopSignalWatcher() {
    leaving_ = true;
    pthread_kill(thread_.native_handle(), SIGTERM);  // ends the wait
    thread_.join();
  }
  StopSignalWatcher(const StopSignalWatcher&) = delete;
  StopSignalWatcher& operator=(const StopSignalWatcher&) = delete;

 private:
  std::atomic<bool> leaving_{false};
  std::thread thread_;
};

// The setup window, made when first shown and kept (hidden) after it is
// closed, so the user finds it as they left it.
class SetupWindowHost final : public QObject {
 public:
  SetupWindowHost(AppModel& model, Opener& opener) : model_(model), opener_(opener) {}

  void setOnClosed(std::function<void()> onClosed) { onClosed_ = std::move(onClosed); }

  void present() {
    if (!window_) {
      window_ = std::make_unique<SetupWindow>(
          model_, [this] { window_->close(); },
          [this](const std::string& url) { opener_.openURL(url); },
          SystemIntegration::frameSetupWindow);
      window_->installEventFilter(this);
      if (const QScreen* screen = window_->screen()) {
        window_->move(screen->availableGeometry().center() - window_->rect().center());
      }
    }
    window_->show();
    window_->raise();
    window_->activateWindow();
  }

  bool visible() const { return window_ && window_->isVisible(); }
  bool otherWindowVisible() const { return otherMainWindowVisible(window_.get()); }

 protected:
  bool eventFilter(QObject* watched, QEvent* event) override {
    // The close event may still be refused; whether the window went away
    // is known once it has been handled.
    if (event->type() == QEvent::Close && watched == window_.get()) {
      QTimer::singleShot(0, this, [this] {
        if (!visible() && onClosed_) onClosed_();
      });
    }
    return false;
  }

 private:
  AppModel& model_;
  Opener& opener_;
  std::function<void()> onClosed_;
  std::unique_ptr<SetupWindow> window_;
};

// Links that reach Qt as file-open events: on macOS a get-URL Apple event
// that came while Qt's handler stood in for ours (SystemIntegration::
// watchLinks), routed by the Qt version at hand.
class FileOpenFilter final : public QObject {
 public:
  explicit FileOpenFilter(LinkInbox& links) : links_(links) {}

 protected:
  bool eventFilter(QObject* watched, QEvent* event) override {
    if (event->type() != QEvent::FileOpen) return QObject::eventFilter(watched, event);
    const QUrl url = static_cast<QFileOpenEvent*>(event)->url();
    if (url.scheme().compare("corvane", Qt::CaseInsensitive) != 0) return false;
    links_.receive(url.toEncoded().toStdString());
    return true;
  }

 private:
  LinkInbox& links_;
};

void quitSoon() {
  QMetaObject::invokeMethod(QCoreApplication::instance(), &QCoreApplication::quit,
                            Qt::QueuedConnection);
}

}  // namespace

int runApplication(int argc, char** argv) {
  const CommandLine args(argc, argv);
  blockStopSignals();
  // Where the session names no runtime directory, Qt warns and makes one of
  // its own; the private folder the instance lock falls back on serves both,
  // and must be named before Qt looks.
  QString instanceError;
  const auto instanceDirectory =
      SingleInstance::defaultDirectory(UserDirectories::processEnvironment, &instanceError);
  if (instanceDirectory && qEnvironmentVariable("XDG_RUNTIME_DIR") != *instanceDirectory) {
    qputenv("XDG_RUNTIME_DIR", QFile::encodeName(*instanceDirectory));
  }
  QApplication app(argc, argv);
  QApplication::setApplicationName("Corvane");
  QApplication::setApplicationVersion(QString::fromStdString(AppInfo::version()));
  QApplication::setQuitOnLastWindowClosed(false);
  QApplication::setWindowIcon(AppIcon::windowIcon());
  StopSignalWatcher stopSignals(app);
  // Screenshots: the fixtures and nothing else — no instance, no links, no
  // services of the real account.
  if (const auto dir = args.value("--snapshot-setup")) {
    return snapshotSetup(QString::fromStdString(*dir));
  }
  // From here on, before the event loop runs and launch finishes: the link
  // that launched the application comes in while launching. It waits for
  // the delegate.
  LinkInbox links;
  const auto linkWatch =
      SystemIntegration::watchLinks([&links](const std::string& url) { links.receive(url); });
  FileOpenFilter fileOpen(links);
  app.installEventFilter(&fileOpen);
  const std::shared_ptr<SyncLogger> log = SystemIntegration::makeLogger();

  // A later start hands its links to the instance that runs and ends here.
  std::unique_ptr<SingleInstance> instance;
  if (instanceDirectory) {
    instance = std::make_unique<SingleInstance>(*instanceDirectory);
    switch (instance->start(linksIn(argc, argv))) {
      case SingleInstance::Role::handedOver:
        return 0;
      case SingleInstance::Role::failed:
        log->error(instance->errorString().toStdString());
        return 1;
      case SingleInstance::Role::unavailable:
        log->warn("can't make sure only one Corvane runs: " +
                  instance->errorString().toStdString());
        instance.reset();
        break;
      case SingleInstance::Role::primary:
        break;
    }
  } else {
    log->warn("can't make sure only one Corvane runs: " + instanceError.toStdString());
  }
  SystemIntegration::registerURLScheme(*log);

  auto tokens = TokenStore::makeDefault();
  auto defaults = UserDefaults::makeDefault();
  auto probes = PermissionProbes::makeDefault();
  QtMainScheduler scheduler;
  ThreadWorker worker;  // after the scheduler: its jobs post there until they end
  auto policy = ActivationPolicy::makeDefault();
  auto loginItem = LoginItem::makeDefault();
  auto relocator = BundleRelocator::makeDefault(quitSoon);
  DesktopOpener opener;
  SetupWindowHost* windowHost = nullptr;
  auto updater =
      Updater::makeDefault(*policy, [&windowHost] { return windowHost && windowHost->visible(); });

  const std::filesystem::path stateDir = FileStateStore::defaultDirectory();
  const std::string chatDBPath =
      defaults->getString(DefaultsKey::chatDBPath).value_or(ChatDB::defaultPath());
  const std::string region = Phone::detectRegion();
  const std::string userAgent = "corvane-mac/" + AppInfo::version();
  const SystemIntegration::Capabilities system = SystemIntegration::capabilities();

  AppModel model(AppModel::Services{
                     .tokens = *tokens,
                     .defaults = *defaults,
                     .probes = *probes,
                     .scheduler = scheduler,
                     .worker = worker,
                     .clock = nowMs,
                     .makeAPI =
                         [userAgent](const std::string& server, std::optional<std::string> token) {
                           return std::make_shared<APIClient>(server, std::move(token), userAgent);
                         },
                     .makeStore = {},
                     .sender = SystemIntegration::makeSender(chatDBPath, stateDir, log),
                     .loadContacts = [region] { return SystemContacts::load(region); },
                     .loginItem = *loginItem,
                     .relocator = *relocator,
                     .opener = opener,
                     .updater = updater.get(),
                     .log = log,
                 },
                 AppModel::Options{
                     .chatDBPath = chatDBPath,
                     .stateDir = stateDir,
                     .executablePath = QCoreApplication::applicationFilePath().toStdString(),
                     .region = region,
                     .appVersion = AppInfo::version(),
                     .osVersion = AppInfo::osVersion(),
                     .deviceName = AppInfo::deviceName(),
                     .previewMode = false,
                     .qaExpectLink = args.flag("--qa-expect-link"),
                     .sendsThroughMessages = system.sendsThroughMessages,
                     .addressBook = system.addressBook,
                 });

  SetupWindowHost host(model, opener);
  windowHost = &host;

  // Without a system tray nothing of the application would be on screen:
  // the setup window stands in for the menu, and closing it quits.
  const bool trayAvailable = QSystemTrayIcon::isSystemTrayAvailable();
  if (!trayAvailable) {
    log->warn("this desktop has no system tray: the setup window stays up instead of the menu");
  }

  AppDelegate delegate(
      AppDelegate::Hooks{
          .start = [&model] { model.start(); },
          .needsSetup = [&model, trayAvailable] { return !trayAvailable || model.needsSetup(); },
          .handleLink = [&model](const std::string& url) { model.handleLink(url); },
          .previewMode = [&model] { return model.previewMode(); },
          .showCurrentStep = [&model] { model.showCurrentStep(); },
          .stopPermissionPoll = [&model] { model.stopPermissionPoll(); },
          .presentWindow = [&host] { host.present(); },
          .otherWindowVisible = [&host] { return host.otherWindowVisible(); },
      },
      *policy, log);
  host.setOnClosed([&delegate, trayAvailable] {
    delegate.setupWindowClosed();
    if (!trayAvailable) quitSoon();
  });

  std::unique_ptr<TrayMenu> tray;
  if (trayAvailable) {
    tray = std::make_unique<TrayMenu>(
        model, AppIcon::trayIcon(),
        TrayMenu::Actions{.showSetup = [&delegate] { delegate.showSetupWindow(); },
                          .quit = quitSoon},
        !system.statusMenuOpensOnClick);
  }

  // Coming back to the application is when permissions granted in System
  // Settings should show.
  QObject::connect(&app, &QGuiApplication::applicationStateChanged, &app,
                   [&model](Qt::ApplicationState state) {
                     if (state == Qt::ApplicationActive) model.refreshPermissions();
                   });

  links.attach([&delegate](const std::string& url) { delegate.openURL(url); });
  if (instance) {
    QObject::connect(instance.get(), &SingleInstance::urlReceived, &app,
                     [&delegate](const QString& url) { delegate.openURL(url.toStdString()); });
    QObject::connect(instance.get(), &SingleInstance::reopenRequested, &app,
                     [&delegate] { delegate.reopen(); });
  }
  // A link this process was started with waits for launch like any other.
  for (const QString& link : linksIn(argc, argv)) delegate.openURL(link.toStdString());

  std::shared_ptr<void> reopenWatch;
  QTimer::singleShot(0, &app, [&] {
    delegate.launchFinished();
    if (tray) tray->show();
    reopenWatch = SystemIntegration::watchReopen([&delegate] { delegate.reopen(); });
    log->info("Corvane " + AppInfo::version() + " running" +
              (instance ? "; links reach it through " + instance->socketPath().toStdString()
                        : std::string()));
  });

  const int code = QApplication::exec();
  model.shutdown();
  return code;
}

}  // namespace corvane
