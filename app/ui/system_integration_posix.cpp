#include <QCoreApplication>
#include <QProcess>
#include <QStandardPaths>

#include "app/ui/desktop_entry.h"
#include "app/ui/system_integration.h"
#include "core/protocol/iso_time.h"
#include "core/send/fake_sender.h"

namespace corvane::SystemIntegration {

// No Messages, no address book, and tray hosts that only report a click.
Capabilities capabilities() { return {}; }

std::shared_ptr<SyncLogger> makeLogger() { return std::make_shared<ConsoleLogger>(); }

std::shared_ptr<MessageSender> makeSender(const std::string&, const std::filesystem::path& stateDir,
                                          std::shared_ptr<SyncLogger> log) {
  // Messages exists only on macOS; the texts are kept where a developer
  // can read them.
  std::error_code ignored;
  std::filesystem::create_directories(stateDir, ignored);
  return std::make_shared<FakeSender>(
      FakeSender::Options{.log = [log](const std::string& line) { log->info(line); },
                          .logFile = (stateDir / "fake-sent.jsonl").string(),
                          .nowMs = nowMs});
}

void registerURLScheme(SyncLogger& log) {
  const std::string executable = QCoreApplication::applicationFilePath().toStdString();
  const auto content = DesktopEntry::text(executable);
  if (!content) {
    log.warn("corvane:// links can't open Corvane: its path can't go into a desktop entry");
    return;
  }
  const auto directory = DesktopEntry::applicationsDirectory(UserDirectories::processEnvironment);
  const auto result = DesktopEntry::install(directory, *content);
  if (result.error) {
    log.warn("corvane:// links can't open Corvane: " + *result.error);
    return;
  }
  if (!result.written) return;
  log.info("installed " + (directory / DesktopEntry::fileName).string() + " for corvane:// links");
  // Desktops that read the MIME cache rather than the entries themselves
  // learn of the new handler from it.
  const QString updater = QStandardPaths::findExecutable("update-desktop-database");
  if (!updater.isEmpty()) {
    QProcess::startDetached(updater, {"-q", QString::fromStdString(directory.string())});
  }
}

std::shared_ptr<void> watchReopen(std::function<void()>) { return nullptr; }

std::shared_ptr<void> watchLinks(std::function<void(const std::string&)>) { return nullptr; }

int frameSetupWindow(QWidget&) { return 0; }

}  // namespace corvane::SystemIntegration
