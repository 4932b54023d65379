#import <AppKit/AppKit.h>
#import <CoreServices/CoreServices.h>

#include "app/ui/system_integration.h"
#include "core/send/apple_script_sender.h"

// The reopen Apple event's handler: AppKit's own one only reaches Qt's
// application delegate, which turns it into an activation that can't be
// told apart from any other.
@interface CorvaneReopenHandler : NSObject
@property(nonatomic, copy) void (^reopen)(void);
- (void)handleReopen:(NSAppleEventDescriptor*)event reply:(NSAppleEventDescriptor*)reply;
@end

@implementation CorvaneReopenHandler
- (void)handleReopen:(NSAppleEventDescriptor*)event reply:(NSAppleEventDescriptor*)reply {
  self.reopen();
}
@end

namespace corvane::SystemIntegration {
namespace {

// Keeps the handler alive and takes it away with the last reference.
struct ReopenRegistration {
  CorvaneReopenHandler* handler;
  ~ReopenRegistration() {
    [[NSAppleEventManager sharedAppleEventManager]
        removeEventHandlerForEventClass:kCoreEventClass
                             andEventID:kAEReopenApplication];
  }
};

}  // namespace

std::shared_ptr<MessageSender> makeSender(const std::string& chatDBPath,
                                          const std::filesystem::path&,
                                          std::shared_ptr<SyncLogger> log) {
  AppleScriptSender::Options options;
  options.chatDBPath = chatDBPath;
  options.verifyTimeoutSec = 10.0;
  options.settleSec = 2.0;
  options.pollSec = 0.5;
  options.log = [log](const std::string& line) { log->info(line); };
  return std::make_shared<AppleScriptSender>(std::move(options));
}

void registerURLScheme(SyncLogger&) {}

std::shared_ptr<void> watchReopen(std::function<void()> reopen) {
  auto registration = std::make_shared<ReopenRegistration>();
  registration->handler = [[CorvaneReopenHandler alloc] init];
  registration->handler.reopen = ^{
    reopen();
  };
  [[NSAppleEventManager sharedAppleEventManager] setEventHandler:registration->handler
                                                     andSelector:@selector(handleReopen:reply:)
                                                   forEventClass:kCoreEventClass
                                                      andEventID:kAEReopenApplication];
  return registration;
}

}  // namespace corvane::SystemIntegration
