// Sparkle's standard updater behind UpdateController. The Objective-C bridge
// only forwards: every answer comes from the portable Updater.
#import <Foundation/Foundation.h>
#import <Sparkle/Sparkle.h>

#include "app/platform/mac/sparkle_updater_mac.h"

static void* const kCanCheckContext = const_cast<void**>(&kCanCheckContext);

// The user driver's delegate and the observer of the updater's
// canCheckForUpdates. `updater` is cleared before the Updater goes away, so
// late callbacks and queued observations find nothing to call.
@interface CorvaneUpdaterBridge : NSObject <SPUStandardUserDriverDelegate>
@property(nonatomic, assign) corvane::Updater* updater;
@end

@implementation CorvaneUpdaterBridge

- (BOOL)supportsGentleScheduledUpdateReminders {
  return corvane::Updater::supportsGentleScheduledUpdateReminders;
}

- (BOOL)standardUserDriverShouldHandleShowingScheduledUpdate:(SUAppcastItem*)update
                                         andInImmediateFocus:(BOOL)immediateFocus {
  return self.updater == nullptr || self.updater->shouldHandleShowingScheduledUpdate(immediateFocus);
}

- (void)standardUserDriverWillHandleShowingUpdate:(BOOL)handleShowingUpdate
                                        forUpdate:(SUAppcastItem*)update
                                            state:(SPUUserUpdateState*)state {
  if (self.updater == nullptr) return;
  const char* version = update.displayVersionString.UTF8String;
  self.updater->willHandleShowingUpdate(version != nullptr ? version : "", state.userInitiated);
}

- (void)standardUserDriverDidReceiveUserAttentionForUpdate:(SUAppcastItem*)update {
  if (self.updater != nullptr) self.updater->didReceiveUserAttention();
}

- (void)standardUserDriverWillFinishUpdateSession {
  if (self.updater != nullptr) self.updater->willFinishUpdateSession();
}

- (void)observeValueForKeyPath:(NSString*)keyPath
                      ofObject:(id)object
                        change:(NSDictionary<NSKeyValueChangeKey, id>*)change
                       context:(void*)context {
  if (context != kCanCheckContext) {
    [super observeValueForKeyPath:keyPath ofObject:object change:change context:context];
    return;
  }
  const BOOL can = [change[NSKeyValueChangeNewKey] boolValue];
  // Sparkle may change the value on any thread; the Updater lives on the main one.
  __weak CorvaneUpdaterBridge* weakSelf = self;
  dispatch_async(dispatch_get_main_queue(), ^{
    CorvaneUpdaterBridge* bridge = weakSelf;
    if (bridge != nil && bridge.updater != nullptr) bridge.updater->setCanCheckForUpdates(can);
  });
}

@end

namespace corvane {
namespace {

class SparkleController final : public UpdateController {
 public:
  explicit SparkleController(CorvaneUpdaterBridge* bridge)
      : bridge_(bridge),
        controller_([[SPUStandardUpdaterController alloc] initWithStartingUpdater:YES
                                                                  updaterDelegate:nil
                                                               userDriverDelegate:bridge]) {}

  ~SparkleController() override {
    if (observing_) {
      [controller_.updater removeObserver:bridge_
                               forKeyPath:@"canCheckForUpdates"
                                  context:kCanCheckContext];
    }
    bridge_.updater = nullptr;
  }

  void observe(Updater& updater) {
    bridge_.updater = &updater;
    [controller_.updater addObserver:bridge_
                          forKeyPath:@"canCheckForUpdates"
                             options:NSKeyValueObservingOptionInitial | NSKeyValueObservingOptionNew
                             context:kCanCheckContext];
    observing_ = true;
  }

  void checkForUpdates() override { [controller_ checkForUpdates:nil]; }

 private:
  // Strong: the user driver holds its delegate weakly.
  CorvaneUpdaterBridge* bridge_;
  SPUStandardUpdaterController* controller_;
  bool observing_ = false;
};

}  // namespace

std::unique_ptr<Updater> makeSparkleUpdater(ActivationPolicy& policy,
                                            std::function<bool()> setupWindowVisible) {
  auto controller = std::make_unique<SparkleController>([[CorvaneUpdaterBridge alloc] init]);
  SparkleController& sparkle = *controller;
  auto updater =
      std::make_unique<Updater>(std::move(controller), policy, std::move(setupWindowVisible));
  sparkle.observe(*updater);
  return updater;
}

}  // namespace corvane
