#include "app/headless/command_line.h"

#include <algorithm>

namespace corvane {

const char* const kUsageText =
    "Usage: Corvane --headless [--once] [--chat-db PATH] [--home DIR] [--server URL] [--token TOKEN]\n"
    "                          [--fake-send] [--dry-run] [--contacts] [--region CC]\n"
    "       Corvane --headless --pair CODE [--server URL] [--home DIR]\n"
    "       Corvane --headless --status [--chat-db PATH] [--server URL] [--token TOKEN]\n"
    "       Corvane --render-icon OUT.png [--size 1024]\n"
    "\n"
    "  --once        run one sync cycle and exit (exit 0 ok, 1 failed, 2 disconnected)\n"
    "  --chat-db     Messages database to read (default ~/Library/Messages/chat.db)\n"
    "  --home        directory for state.json (default ~/Library/Application Support/Corvane)\n"
    "  --token       device token (default: the one saved by the app in the Keychain)\n"
    "  --fake-send   log outbox sends (and append to <home>/fake-sent.jsonl) instead of using Messages\n"
    "  --dry-run     read and report only: no uploads, no sends, no state changes\n"
    "  --contacts    use Contacts names (off by default in headless mode)";

bool CommandLine::flag(std::string_view name) const {
  return std::find(args_.begin(), args_.end(), name) != args_.end();
}

std::optional<std::string> CommandLine::value(std::string_view name) const {
  const auto it = std::find(args_.begin(), args_.end(), name);
  if (it == args_.end() || it + 1 == args_.end()) return std::nullopt;
  return *(it + 1);
}

}  // namespace corvane
