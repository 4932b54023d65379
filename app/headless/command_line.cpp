#include "app/headless/command_line.h"

#include <algorithm>
#include <array>

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

namespace {

struct KnownOption {
  std::string_view name;
  bool takesValue;
};

constexpr std::array<KnownOption, 19> kKnownOptions{{
    {"--headless", false},   {"--once", false},         {"--chat-db", true},
    {"--home", true},        {"--server", true},        {"--token", true},
    {"--fake-send", false},  {"--dry-run", false},      {"--contacts", false},
    {"--region", true},      {"--pair", true},          {"--status", false},
    {"--render-icon", true}, {"--size", true},          {"--snapshot-setup", true},
    {"--qa-expect-link", false}, {"--help", false},     {"-h", false},
    {"--version", false},
}};

const KnownOption* known(std::string_view argument) {
  for (const auto& option : kKnownOptions) {
    if (option.name == argument) return &option;
  }
  return nullptr;
}

std::optional<std::string> firstUnknownOption(const std::vector<std::string>& args) {
  for (std::size_t i = 0; i < args.size(); ++i) {
    const std::string& argument = args[i];
    if (const KnownOption* option = known(argument)) {
      // Only an option's first occurrence takes a value (CommandLine::value).
      const bool first = std::find(args.begin(), args.begin() + static_cast<long>(i), argument) ==
                         args.begin() + static_cast<long>(i);
      if (option->takesValue && first) ++i;
      continue;
    }
    if (argument.starts_with("--")) return argument;
  }
  return std::nullopt;
}

}  // namespace

EntryChoice chooseEntry(const CommandLine& args) {
  if (args.value("--render-icon")) return {Entry::renderIcon};
  const bool help = args.flag("--help") || args.flag("-h");
  const bool headless = args.flag("--headless");
  if (headless && help) return {Entry::headless};
  if (help) return {Entry::help};
  if (args.flag("--version")) return {Entry::version};
  if (auto unknown = firstUnknownOption(args.arguments())) {
    return {Entry::usageError, std::move(*unknown)};
  }
  return {headless ? Entry::headless : Entry::application};
}

UsagePlaces UsagePlaces::macOS() {
  return {.chatDB = "~/Library/Messages/chat.db",
          .home = "~/Library/Application Support/Corvane",
          .token = "the Keychain",
          .sender = "Messages",
          .contacts = "use Contacts names (off by default in headless mode)"};
}

UsagePlaces UsagePlaces::xdg() {
  return {.chatDB = "~/Library/Messages/chat.db",
          .home = "~/.local/share/Corvane, or $XDG_DATA_HOME/Corvane",
          .token = "~/.config/Corvane, or $XDG_CONFIG_HOME/Corvane",
          .sender = "Messages, which only macOS has",
          .contacts = "use address-book names (this system has none; off by default)"};
}

std::string fullUsageText(const UsagePlaces& places) {
  // The headless lines keep the words of the headless --help; what differs by
  // platform comes from `places`.
  return "Usage: Corvane [corvane://connect?code=CODE] [--snapshot-setup DIR] [--qa-expect-link]\n"
         "       Corvane --headless [--once] [--chat-db PATH] [--home DIR] [--server URL] "
         "[--token TOKEN]\n"
         "                          [--fake-send] [--dry-run] [--contacts] [--region CC]\n"
         "       Corvane --headless --pair CODE [--server URL] [--home DIR]\n"
         "       Corvane --headless --status [--chat-db PATH] [--server URL] [--token TOKEN]\n"
         "       Corvane --render-icon OUT.png [--size 1024]\n"
         "       Corvane --help | --version\n"
         "\n"
         "Without --headless, Corvane is the menu-bar application; it needs a display.\n"
         "  corvane://…           a connect link, handed to the Corvane already running\n"
         "  --snapshot-setup DIR  render the setup screens and the menu into DIR as PNG files\n"
         "  --qa-expect-link      start as if \"Connect with Corvane\" had just been pressed\n"
         "\n"
         "--headless runs the sync agent without a display:\n"
         "  --once                run one sync cycle and exit (exit 0 ok, 1 failed, 2 disconnected)\n"
         "  --chat-db PATH        Messages database to read\n"
         "                        (default: the app's \"chatDBPath\" setting, else " +
         places.chatDB +
         ")\n"
         "  --home DIR            directory for state.json\n"
         "                        (default " +
         places.home +
         ")\n"
         "  --server URL          server to sync with, https:// (or http://localhost for "
         "development);\n"
         "                        default: Corvane's own\n"
         "  --token TOKEN         device token (default: $QUODDLE_TOKEN, else the one the app "
         "saved\n"
         "                        in " +
         places.token +
         ")\n"
         "  --fake-send           log outbox sends (and append to <home>/fake-sent.jsonl) instead "
         "of\n"
         "                        using " +
         places.sender +
         "\n"
         "  --dry-run             read and report only: no uploads, no sends, no state changes\n"
         "  --contacts            " +
         places.contacts +
         "\n"
         "  --region CC           country for phone numbers without one (default: the system's)\n"
         "  --pair CODE           pair this computer with a connect code and exit\n"
         "  --status              send one status report to the server and exit\n"
         "\n"
         "  --render-icon OUT.png write the application icon to a PNG file and exit\n"
         "  --size N              the icon's size in pixels (default 1024)\n"
         "  -h, --help            print this text and exit\n"
         "  --version             print the version and exit\n"
         "\n"
         "Exit codes: 0 ok, 1 failed, 2 not connected or token revoked, 64 bad usage, 69 no display.";
}

}  // namespace corvane
