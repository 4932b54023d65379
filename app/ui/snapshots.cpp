#include "app/ui/snapshots.h"

#include <QAbstractButton>
#include <QDir>
#include <QLineEdit>
#include <QLinearGradient>
#include <QPainter>
#include <QPainterPath>
#include <cstdio>
#include <functional>
#include <map>
#include <vector>

#include "app/model/app_model.h"
#include "app/ui/app_icon.h"
#include "app/ui/qt_scheduler.h"
#include "app/ui/setup_window.h"
#include "app/ui/tray_menu.h"
#include "core/protocol/server_url.h"
#include "core/sync/sync_logger.h"

namespace corvane {
namespace {

// Services that do nothing: preview mode never reaches them, and a picture
// must not depend on the machine it is made on.
class NoTokens final : public TokenStore {
 public:
  bool save(std::string_view, std::string_view) override { return false; }
  std::optional<std::string> load(std::string_view) override { return std::nullopt; }
  void remove(std::string_view) override {}
};

class MemoryDefaults final : public UserDefaults {
 public:
  std::optional<std::string> getString(std::string_view key) override {
    auto it = strings_.find(std::string(key));
    return it == strings_.end() ? std::nullopt : std::optional(it->second);
  }
  bool getBool(std::string_view key) override {
    auto it = flags_.find(std::string(key));
    return it != flags_.end() && it->second;
  }
  bool setString(std::string_view key, std::string_view value) override {
    strings_[std::string(key)] = std::string(value);
    return true;
  }
  bool setBool(std::string_view key, bool value) override {
    flags_[std::string(key)] = value;
    return true;
  }
  bool remove(std::string_view key) override {
    strings_.erase(std::string(key));
    flags_.erase(std::string(key));
    return true;
  }

 private:
  std::map<std::string, std::string> strings_;
  std::map<std::string, bool> flags_;
};

class NoProbes final : public PermissionProbes {
 public:
  FullDiskAccess probeFullDiskAccess(const std::string&) override { return {}; }
  std::optional<PermissionState> automationPermission() override { return std::nullopt; }
  AutomationRequest requestAutomation() override { return {}; }
  PermissionState contactsAuthorization() override { return PermissionState::unknown; }
  void requestContactsAccess(std::function<void(bool)>) override {}
  void openPrivacyPane(std::string_view) override {}
};

class NoWorker final : public BackgroundWorker {
 public:
  void run(std::function<void()>) override {}
};

class NoLoginItem final : public LoginItem {
 public:
  bool isEnabled() override { return false; }
  std::optional<std::string> registerItem() override { return std::nullopt; }
  std::optional<std::string> unregisterItem() override { return std::nullopt; }
};

class NoRelocator final : public Relocator {
 public:
  std::optional<std::filesystem::path> bundlePath() override { return std::nullopt; }
  bool isInApplications() override { return true; }
  std::optional<std::string> moveToApplications() override { return std::nullopt; }
  void relaunch(const std::filesystem::path&) override {}
};

class NoOpener final : public Opener {
 public:
  void openURL(const std::string&) override {}
  void reveal(const std::filesystem::path&) override {}
};

// A fixed moment, so "last sync 4 min ago" reads the same on every run.
constexpr std::int64_t sampleNowMs = 1'767'607'200'000;  // 2026-01-05 10:00 UTC
const char* const sampleUser = "Alex Rivera";

struct Preview {
  NoTokens tokens;
  MemoryDefaults defaults;
  NoProbes probes;
  QtMainScheduler scheduler;
  NoWorker worker;
  NoLoginItem loginItem;
  NoRelocator relocator;
  NoOpener opener;
  AppModel model;

  Preview()
      : model(
            AppModel::Services{
                .tokens = tokens,
                .defaults = defaults,
                .probes = probes,
                .scheduler = scheduler,
                .worker = worker,
                .clock = [] { return sampleNowMs; },
                .makeAPI = [](const std::string&, std::optional<std::string>)
                    -> std::shared_ptr<AgentAPI> { return nullptr; },
                .makeStore = {},
                .sender = nullptr,
                .loadContacts = {},
                .loginItem = loginItem,
                .relocator = relocator,
                .opener = opener,
                .updater = nullptr,
                .log = std::make_shared<SilentLogger>(),
            },
            previewOptions()) {}

  static AppModel::Options previewOptions() {
    AppModel::Options options;
    options.appVersion = "preview";
    options.deviceName = "Preview";
    options.previewMode = true;
    return options;
  }
};

// The state every picture starts from: a first setup, nothing granted yet.
AppModel::Published base() {
  AppModel::Published p;
  p.server = ServerURL::defaultURL();
  p.now = sampleNowMs;
  p.launchAtLogin = true;
  return p;
}

AppModel::Published connectedBase() {
  AppModel::Published p = base();
  p.connected = true;
  p.userName = sampleUser;
  return p;
}

struct Shot {
  const char* name;
  std::function<AppModel::Published()> state;
  // View state to set up after the model's state, e.g. opening the code box.
  std::function<void(SetupWindow&)> prepare = {};
};

std::vector<Shot> setupShots() {
  using S = PermissionState;
  auto at = [](SetupStep step, AppModel::Published p) {
    p.step = step;
    return p;
  };
  auto openCodeBox = [](SetupWindow& w) {
    w.findChild<QAbstractButton*>(QStringLiteral("codeToggle"))->click();
    w.findChild<QLineEdit*>(QStringLiteral("codeField"))->setText(QStringLiteral("K7QP 2MXD"));
  };
  auto granted = [&](SetupStep step) {
    AppModel::Published p = at(step, connectedBase());
    p.fullDiskAccess = true;
    p.messagesReady = true;
    return p;
  };
  return {
      {"0-move", [=] { return at(SetupStep::move, base()); }},
      {"0b-move-failed",
       [=] {
         auto p = at(SetupStep::move, base());
         p.moveError = "You don't have permission to save the file in the folder Applications";
         return p;
       }},
      {"1-connect", [=] { return at(SetupStep::connect, base()); }},
      {"1b-connect-waiting",
       [=] {
         auto p = at(SetupStep::connect, base());
         p.pairing = PairingState::waitingForBrowser(sampleNowMs - 20'000);
         return p;
       }},
      {"1c-connect-code", [=] { return at(SetupStep::connect, base()); }, openCodeBox},
      {"1c2-connect-code-failed",
       [=] {
         auto p = at(SetupStep::connect, base());
         p.pairing = PairingState::failed(
             "That code didn't work. It may have expired \u2014 get a fresh one and try again.");
         return p;
       },
       openCodeBox},
      {"1d-connect-pending-link",
       [=] {
         auto p = at(SetupStep::connect, base());
         p.pendingLink = ConnectLink{"K7QP2MXD", "https://corvane.example.net"};
         return p;
       }},
      {"1e-connect-switch-account",
       [=] {
         auto p = at(SetupStep::connect, connectedBase());
         p.pendingLink = ConnectLink{"K7QP2MXD", std::nullopt};
         return p;
       }},
      {"1f-connected", [=] { return at(SetupStep::connect, connectedBase()); }},
      {"2-full-disk-access", [=] { return at(SetupStep::fullDisk, connectedBase()); }},
      {"2a-full-disk-waiting",
       [=] {
         auto p = at(SetupStep::fullDisk, connectedBase());
         p.openedFullDiskSettingsAt = sampleNowMs - 5'000;
         return p;
       }},
      {"2b-full-disk-granted", [=] { return granted(SetupStep::fullDisk); }},
      {"3-automation", [=] { return granted(SetupStep::automation); }},
      {"3a-automation-asking",
       [=] {
         auto p = granted(SetupStep::automation);
         p.automationBusy = true;
         return p;
       }},
      {"3b-automation-denied",
       [=] {
         auto p = granted(SetupStep::automation);
         p.automation = S::denied;
         return p;
       }},
      {"3c-automation-granted",
       [=] {
         auto p = granted(SetupStep::automation);
         p.automation = S::granted;
         return p;
       }},
      {"3d-automation-no-messages",
       [=] {
         auto p = granted(SetupStep::automation);
         p.automation = S::granted;
         p.automationNeeded = false;
         return p;
       }},
      {"4-contacts",
       [=] {
         auto p = granted(SetupStep::contacts);
         p.automation = S::granted;
         return p;
       }},
      {"4b-contacts-denied",
       [=] {
         auto p = granted(SetupStep::contacts);
         p.automation = S::granted;
         p.contacts = S::denied;
         return p;
       }},
      {"4c-contacts-granted",
       [=] {
         auto p = granted(SetupStep::contacts);
         p.automation = S::granted;
         p.contacts = S::granted;
         return p;
       }},
      {"4d-contacts-no-address-book",
       [=] {
         auto p = granted(SetupStep::contacts);
         p.automation = S::granted;
         p.addressBook = false;
         return p;
       }},
      {"5-done",
       [=] {
         auto p = granted(SetupStep::done);
         p.automation = S::granted;
         p.contacts = S::granted;
         return p;
       }},
      {"5b-done-skipped", [=] { return granted(SetupStep::done); }},
  };
}

struct MenuShot {
  const char* name;
  std::function<AppModel::Published()> state;
  bool setupCompleted = true;  // "Setup…" rather than "Finish setup…"
};

std::vector<MenuShot> menuShots() {
  auto syncing = [] {
    AppModel::Published p = connectedBase();
    p.fullDiskAccess = true;
    p.messagesReady = true;
    p.automation = PermissionState::granted;
    p.contacts = PermissionState::granted;
    p.step = SetupStep::done;
    p.rosterCount = 12;
    p.lastSyncAt = sampleNowMs - 4 * 60'000;
    return p;
  };
  return {
      {"menu-syncing", syncing},
      {"menu-not-connected", [] { return base(); }, false},
      {"menu-paused",
       [=] {
         auto p = syncing();
         p.paused = true;
         return p;
       }},
      {"menu-error",
       [=] {
         auto p = syncing();
         p.phase = SyncPhase::error(std::string(AppModel::cantReachText));
         return p;
       }},
      {"menu-update",
       [=] {
         auto p = syncing();
         p.availableVersion = "1.4.0";
         p.canCheckForUpdates = true;
         return p;
       }},
  };
}

// The menu as it hangs from the menu bar: a strip of bar with the item's
// icon, the menu below it with a soft shadow, on a quiet desktop.
QImage menuPicture(const QImage& menu, const QIcon& icon) {
  const qreal dpr = menu.devicePixelRatio();
  const QSizeF menuSize = QSizeF(menu.size()) / dpr;
  constexpr int barHeight = 26;
  const int width = std::max(380, static_cast<int>(menuSize.width()) + 150);
  const int height = barHeight + 6 + static_cast<int>(menuSize.height()) + 34;
  QImage picture(QSize(width, height) * dpr, QImage::Format_ARGB32_Premultiplied);
  picture.setDevicePixelRatio(dpr);
  QPainter painter(&picture);
  painter.setRenderHint(QPainter::Antialiasing);

  QLinearGradient desktop(0, 0, width, height);
  desktop.setColorAt(0, QColor(0x9c, 0xb9, 0xe8));
  desktop.setColorAt(1, QColor(0xc9, 0xb8, 0xe6));
  painter.fillRect(QRectF(0, 0, width, height), desktop);
  painter.fillRect(QRectF(0, 0, width, barHeight), QColor(255, 255, 255, 200));
  painter.fillRect(QRectF(0, barHeight - 1, width, 1), QColor(0, 0, 0, 30));

  const int iconX = width - 96;
  constexpr int iconSide = 18;
  painter.fillRect(QRectF(iconX - 5, 2, iconSide + 10, barHeight - 4), QColor(0, 0, 0, 28));
  icon.paint(&painter, QRect(iconX, (barHeight - iconSide) / 2, iconSide, iconSide));

  const qreal menuX = std::min<qreal>(iconX - 5, width - menuSize.width() - 10);
  const QRectF menuRect(QPointF(menuX, barHeight + 5), menuSize);
  for (int i = 8; i > 0; --i) {
    QPainterPath shadow;
    shadow.addRoundedRect(menuRect.adjusted(-i, -i + 3, i, i + 3), 8 + i, 8 + i);
    painter.fillPath(shadow, QColor(0, 0, 0, 5));
  }
  QPainterPath clip;
  clip.addRoundedRect(menuRect, 8, 8);
  painter.setClipPath(clip);
  painter.drawImage(menuRect, menu);
  return picture;
}

bool save(const QImage& image, const QDir& dir, const char* name) {
  const QString path = dir.filePath(QString::fromLatin1(name) + QStringLiteral(".png"));
  if (image.save(path, "PNG")) return true;
  std::fprintf(stderr, "snapshot failed: can't write %s\n", qPrintable(path));
  return false;
}

}  // namespace

QStringList snapshotNames() {
  QStringList names;
  for (const auto& shot : setupShots()) names << QString::fromLatin1(shot.name) + ".png";
  for (const auto& shot : menuShots()) names << QString::fromLatin1(shot.name) + ".png";
  return names;
}

int snapshotSetup(const QString& dirPath) {
  QDir dir(dirPath);
  if (!dir.mkpath(QStringLiteral("."))) {
    std::fprintf(stderr, "snapshot failed: can't create %s\n", qPrintable(dirPath));
    return 1;
  }
  Preview preview;
  for (const auto& shot : setupShots()) {
    preview.model.setPreview(shot.state());
    // A fresh window per picture, so view state doesn't carry over.
    SetupWindow window(preview.model, [] {}, [](const std::string&) {});
    window.setAttribute(Qt::WA_DontShowOnScreen);
    window.show();
    if (shot.prepare) shot.prepare(window);
    if (!save(window.grab().toImage(), dir, shot.name)) return 1;
  }
  const QIcon icon = AppIcon::trayIcon();
  TrayMenu menu(preview.model, icon, {});
  for (const auto& shot : menuShots()) {
    preview.defaults.setBool(DefaultsKey::setupCompleted, shot.setupCompleted);
    preview.model.setPreview(shot.state());
    if (!save(menuPicture(menu.render(), icon), dir, shot.name)) return 1;
  }
  std::printf("screenshots to %s\n", qPrintable(dirPath));
  std::fflush(stdout);
  return 0;
}

}  // namespace corvane
