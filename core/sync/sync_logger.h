// SyncLogger: where the agent's progress lines go, one line per event.
// ConsoleLogger writes them to standard error (standard output is kept for
// command results); SilentLogger drops them. Both are safe from any thread.
#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>

namespace corvane {

class SyncLogger {
 public:
  SyncLogger() = default;
  virtual ~SyncLogger() = default;
  SyncLogger(const SyncLogger&) = delete;
  SyncLogger& operator=(const SyncLogger&) = delete;

  virtual void info(const std::string& message) = 0;
  virtual void warn(const std::string& message) = 0;
  virtual void error(const std::string& message) = 0;
};

// "[2023-11-14T22:13:20.123Z] warn: message" per line.
class ConsoleLogger final : public SyncLogger {
 public:
  explicit ConsoleLogger(std::FILE* out = stderr, std::function<std::int64_t()> clockMs = {});

  void info(const std::string& message) override { write("", message); }
  void warn(const std::string& message) override { write("warn: ", message); }
  void error(const std::string& message) override { write("error: ", message); }

 private:
  void write(const char* prefix, const std::string& message);
  std::FILE* out_;
  std::function<std::int64_t()> clockMs_;
};

class SilentLogger final : public SyncLogger {
 public:
  void info(const std::string&) override {}
  void warn(const std::string&) override {}
  void error(const std::string&) override {}
};

}  // namespace corvane
