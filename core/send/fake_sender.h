// FakeSender: pretends to send. It logs each text (trimmed of white space at
// both ends, refused when nothing is left) and appends it as one JSON line to
// a file, so the headless agent can run end to end without Messages.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "core/send/message_sender.h"

namespace corvane {

class FakeSender final : public MessageSender {
 public:
  struct Options {
    std::function<void(const std::string&)> log;
    // Receives {"at","handle","text"} per send, one JSON object per line.
    std::optional<std::string> logFile;
    std::function<std::int64_t()> nowMs;  // wall clock by default
  };

  explicit FakeSender(Options options);

  SendResult send(const std::string& handle, const std::string& text) override;

 private:
  Options options_;
};

}  // namespace corvane
