// Test doubles that record: a logger keeping its lines and a sender keeping
// its sends (with a hook that runs during the send, e.g. to inspect state).
#pragma once

#include <algorithm>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "core/send/message_sender.h"
#include "core/sync/sync_logger.h"

namespace corvane::testing {

class RecordingLogger final : public SyncLogger {
 public:
  void info(const std::string& m) override { add("info: " + m); }
  void warn(const std::string& m) override { add("warn: " + m); }
  void error(const std::string& m) override { add("error: " + m); }

  std::vector<std::string> lines() const {
    std::lock_guard lock(mutex_);
    return lines_;
  }
  // True when some line contains `part`.
  bool contains(const std::string& part) const {
    const auto all = lines();
    return std::any_of(all.begin(), all.end(),
                       [&](const std::string& l) { return l.find(part) != std::string::npos; });
  }

 private:
  void add(std::string line) {
    std::lock_guard lock(mutex_);
    lines_.push_back(std::move(line));
  }
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
};

class RecordingSender final : public MessageSender {
 public:
  struct Sent {
    std::string handle, text;
  };
  std::vector<Sent> sent;
  std::function<SendResult(const std::string& handle, const std::string& text)> answer;

  SendResult send(const std::string& handle, const std::string& text) override {
    sent.push_back({handle, text});
    return answer ? answer(handle, text) : SendResult{true, "iMessage", true, std::nullopt};
  }
};

}  // namespace corvane::testing
