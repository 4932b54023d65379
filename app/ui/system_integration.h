// SystemIntegration: what starting the application asks of the system that
// differs between macOS and the others — the sender of approved texts, the
// registration of "corvane://" links, and hearing that the user opened the
// running application again.
//
// Main thread only, with the QApplication in place.
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <string>

#include "core/send/message_sender.h"
#include "core/sync/sync_logger.h"

namespace corvane::SystemIntegration {

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

}  // namespace corvane::SystemIntegration
