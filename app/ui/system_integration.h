// SystemIntegration: what starting the application asks of the system that
// differs between macOS and the others — where it logs, the sender of
// approved texts, the registration and delivery of "corvane://" links,
// hearing that the user opened the running application again, and the
// setup window's frame.
//
// Main thread only, with the QApplication in place.
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <string>

#include "core/send/message_sender.h"
#include "core/sync/sync_logger.h"

class QWidget;

namespace corvane::SystemIntegration {

// What the system offers that the setup and the menu depend on.
struct Capabilities {
  // Texts go through Messages, which needs the Automation permission;
  // otherwise makeSender's development sender, which needs none.
  bool sendsThroughMessages = false;
  // An address book the Contacts step can ask for.
  bool addressBook = false;
  // A click on the status icon opens its menu without our help.
  bool statusMenuOpensOnClick = false;
};
Capabilities capabilities();

// The application's log: the unified system log on macOS (subsystem the
// bundle identifier, category "agent"; Console shows it), standard error
// elsewhere. The headless mode keeps standard error everywhere.
std::shared_ptr<SyncLogger> makeLogger();

// Messages through AppleScript on macOS (verified in `chatDBPath`); elsewhere
// a FakeSender that logs each text and appends it to "fake-sent.jsonl" in
// `stateDir`.
std::shared_ptr<MessageSender> makeSender(const std::string& chatDBPath,
                                          const std::filesystem::path& stateDir,
                                          std::shared_ptr<SyncLogger> log);

// Makes the desktop hand "corvane://" links to this executable. macOS reads
// the scheme from the bundle's Info.plist: nothing to do. Elsewhere it
// installs the desktop entry (desktop_entry.h) when it is missing or names
// another executable. Failures are logged, never fatal.
void registerURLScheme(SyncLogger& log);

// Calls `reopen` when the user opens the running application again (from
// Finder or the Dock). Elsewhere that is a second start, which comes through
// SingleInstance instead, and nothing is installed. Keep the result for as
// long as `reopen` may be called.
std::shared_ptr<void> watchReopen(std::function<void()> reopen);

// Hands `link` the URL of every get-URL Apple event from now on, the one
// that launched the application included: call it before the event loop
// runs. Elsewhere links come from the command line and SingleInstance, and
// nothing is installed. Keep the result for as long as `link` may be called.
std::shared_ptr<void> watchLinks(std::function<void(const std::string& url)> link);

// Frames the top-level `window` (a SetupWindow::Frame) before it is first
// shown. On macOS: a transparent title bar without its title over content
// that fills the window, which stays as large as it was, and a window moved
// by its background; the answer is the height of the title bar over the
// content. Elsewhere the system's normal frame stays, and the answer is 0.
int frameSetupWindow(QWidget& window);

}  // namespace corvane::SystemIntegration
