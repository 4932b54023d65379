#import <AppKit/AppKit.h>
#import <CoreServices/CoreServices.h>

#include <QWidget>
#include <cmath>

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

// The get-URL Apple event's handler. Qt's application delegate installs
// its own in applicationWillFinishLaunching:, which replaces whatever was
// there and routes links however the Qt version at hand does; this one is
// installed before that and again just after it, and once more when launch
// has finished, so that every link, the launching one included, comes here.
// "Handling Apple Events":
// https://developer.apple.com/library/archive/documentation/Cocoa/Conceptual/ScriptableCocoaApplications/SApps_handle_AEs/SAppsHandleAEs.html
@interface CorvaneLinkHandler : NSObject
@property(nonatomic, copy) void (^link)(const char* url);
- (void)install;
- (void)handleGetURL:(NSAppleEventDescriptor*)event reply:(NSAppleEventDescriptor*)reply;
@end

@implementation CorvaneLinkHandler
// https://developer.apple.com/documentation/foundation/nsappleeventmanager/seteventhandler(_:andselector:foreventclass:andeventid:)
- (void)install {
  [[NSAppleEventManager sharedAppleEventManager] setEventHandler:self
                                                     andSelector:@selector(handleGetURL:reply:)
                                                   forEventClass:kInternetEventClass
                                                      andEventID:kAEGetURL];
}

- (void)launchStage:(NSNotification*)notification {
  [self install];
}

// https://developer.apple.com/documentation/foundation/nsappleeventdescriptor/paramdescriptor(forkeyword:)
- (void)handleGetURL:(NSAppleEventDescriptor*)event reply:(NSAppleEventDescriptor*)reply {
  const char* url = [event paramDescriptorForKeyword:keyDirectObject].stringValue.UTF8String;
  if (url != nullptr) self.link(url);
}
@end

namespace corvane::SystemIntegration {
namespace {

struct LinkRegistration {
  CorvaneLinkHandler* handler;
  ~LinkRegistration() {
    [NSNotificationCenter.defaultCenter removeObserver:handler];
    [[NSAppleEventManager sharedAppleEventManager] removeEventHandlerForEventClass:kInternetEventClass
                                                                        andEventID:kAEGetURL];
  }
};

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

// Messages and Contacts are there; NSStatusItem opens the menu Qt gives it
// on any click.
Capabilities capabilities() {
  return {.sendsThroughMessages = true, .addressBook = true, .statusMenuOpensOnClick = true};
}

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

std::shared_ptr<void> watchLinks(std::function<void(const std::string&)> link) {
  auto registration = std::make_shared<LinkRegistration>();
  registration->handler = [[CorvaneLinkHandler alloc] init];
  registration->handler.link = ^(const char* url) {
    link(url);
  };
  [registration->handler install];
  // Qt's delegate became an observer of these when QApplication was built;
  // the notification center, in practice, calls observers in the order they
  // were added, so this one comes after it.
  // https://developer.apple.com/documentation/appkit/nsapplication/willfinishlaunchingnotification
  for (NSNotificationName stage :
       {NSApplicationWillFinishLaunchingNotification, NSApplicationDidFinishLaunchingNotification}) {
    [NSNotificationCenter.defaultCenter addObserver:registration->handler
                                           selector:@selector(launchStage:)
                                               name:stage
                                             object:nil];
  }
  return registration;
}

int frameSetupWindow(QWidget& widget) {
  // A top-level widget's native handle is its window's content view.
  NSView* view = (__bridge NSView*)reinterpret_cast<void*>(widget.winId());
  NSWindow* window = view.window;
  if (window == nil) return 0;
  // The content view takes the whole window, title bar included.
  // https://developer.apple.com/documentation/appkit/nswindow/stylemask-swift.struct/fullsizecontentview
  window.styleMask |= NSWindowStyleMaskFullSizeContentView;
  // https://developer.apple.com/documentation/appkit/nswindow/titlebarappearstransparent
  window.titlebarAppearsTransparent = YES;
  // https://developer.apple.com/documentation/appkit/nswindow/titlevisibility-swift.property
  window.titleVisibility = NSWindowTitleHidden;
  // https://developer.apple.com/documentation/appkit/nswindow/ismovablebywindowbackground
  window.movableByWindowBackground = YES;
  // The frame kept its size and the content grew into the title bar; back
  // to the size Qt lays the widget out at.
  // https://developer.apple.com/documentation/appkit/nswindow/setcontentsize(_:)
  [window setContentSize:NSMakeSize(widget.width(), widget.height())];
#if QT_VERSION >= QT_VERSION_CHECK(6, 9, 0)
  // Qt 6.9 on would keep the widget's content out of the title bar too, on
  // top of the room the setup window keeps for it.
  // https://doc.qt.io/qt-6/qt.html#WidgetAttribute-enum
  widget.setAttribute(Qt::WA_ContentsMarginsRespectsSafeArea, false);
#endif
  // What the title bar covers: the window less the part content can use.
  // https://developer.apple.com/documentation/appkit/nswindow/contentlayoutrect
  return static_cast<int>(std::lround(NSHeight(window.frame) - NSHeight(window.contentLayoutRect)));
}

}  // namespace corvane::SystemIntegration
