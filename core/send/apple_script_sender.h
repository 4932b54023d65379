// AppleScriptSender: sends through the Messages application by script,
// iMessage first with an SMS fallback, then looks for the sent row in the
// Messages database to confirm that Messages really took it.
//
// The clock and the pauses are injected so tests run without waiting.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "core/send/message_sender.h"
#include "core/send/osascript.h"

namespace corvane {

class ChatDB;

class AppleScriptSender final : public MessageSender {
 public:
  struct Options {
    Osascript::Runner runner = Osascript::run;
    // Database used for verification; absent or empty: no verification.
    std::optional<std::string> chatDBPath;
    double verifyTimeoutSec = 10;
    // How long a matching row must stay free of an error code.
    double settleSec = 2;
    double pollSec = 0.5;
    std::function<void(const std::string&)> log;
    // Monotonic milliseconds, and a pause; the real clock and sleep by default.
    std::function<std::int64_t()> clockMs;
    std::function<void(double seconds)> sleep;
  };

  explicit AppleScriptSender(Options options);

  SendResult send(const std::string& handle, const std::string& text) override;

  static constexpr double scriptTimeoutSec = 30;

 private:
  // One attempt over `service`: the script, then verification when `db` is open.
  SendResult attempt(ChatDB* db, const std::string& service, const std::string& handle,
                     const std::string& text);
  SendResult verify(ChatDB& db, std::int64_t cursor, const std::string& service,
                    const std::string& text);
  void log(const std::string& line) const;

  Options options_;
};

}  // namespace corvane
