// The application's log in the unified system log, where Console and
// `log stream --predicate 'subsystem == "app.corvane.mac"'` show it.
#import <Foundation/Foundation.h>
#include <os/log.h>

#include "app/ui/system_integration.h"

namespace corvane::SystemIntegration {
namespace {

// The lines are the agent's own texts, which never hold the token or a
// pairing code; "public" keeps them readable rather than redacted.
// https://developer.apple.com/documentation/os/os_log_with_type
class SystemLog final : public SyncLogger {
 public:
  // https://developer.apple.com/documentation/os/os_log_create
  explicit SystemLog(const char* subsystem) : log_(os_log_create(subsystem, "agent")) {}

  void info(const std::string& message) override {
    os_log_with_type(log_, OS_LOG_TYPE_DEFAULT, "%{public}s", message.c_str());
  }
  void warn(const std::string& message) override {
    os_log_with_type(log_, OS_LOG_TYPE_DEFAULT, "warn: %{public}s", message.c_str());
  }
  void error(const std::string& message) override {
    os_log_with_type(log_, OS_LOG_TYPE_ERROR, "%{public}s", message.c_str());
  }

 private:
  os_log_t log_;  // released by ARC
};

}  // namespace

std::shared_ptr<SyncLogger> makeLogger() {
  @autoreleasepool {
    // A build run outside its bundle has no identifier; the product's stands in.
    const char* identifier = NSBundle.mainBundle.bundleIdentifier.UTF8String;
    return std::make_shared<SystemLog>(identifier != nullptr ? identifier : "app.corvane.mac");
  }
}

}  // namespace corvane::SystemIntegration
