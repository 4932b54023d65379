// Process entry. Until the headless runner lands it only explains how it is used.
#include <csignal>
#include <cstdio>

namespace {
constexpr const char* kUsage =
    "Usage: Corvane --headless [--once] [--chat-db PATH] [--home DIR] [--server URL] [--token TOKEN]\n"
    "                          [--fake-send] [--dry-run] [--contacts] [--region CC]\n"
    "       Corvane --headless --pair CODE [--server URL] [--home DIR]\n"
    "       Corvane --headless --status [--chat-db PATH] [--server URL] [--token TOKEN]\n"
    "       Corvane --render-icon OUT.png [--size 1024]\n";
}  // namespace

int main() {
  std::signal(SIGPIPE, SIG_IGN);
  std::fputs(kUsage, stdout);
  return 0;
}
