#include "core/send/apple_scripts.h"

namespace corvane::AppleScripts {

// One template, so the two services can't drift apart. The service type is
// a bare AppleScript constant, not a string.
#define CORVANE_SEND_SCRIPT(serviceType)                                                    \
  "on run argv\n  tell application \"Messages\"\n    set svc to 1st account whose service " \
  "type = " serviceType                                                                     \
  "\n    send (item 1 of argv) to participant (item 2 of argv) of svc\n  end tell\nend run\n"

constinit const std::string_view iMessage = CORVANE_SEND_SCRIPT("iMessage");
constinit const std::string_view sms = CORVANE_SEND_SCRIPT("SMS");

#undef CORVANE_SEND_SCRIPT

}  // namespace corvane::AppleScripts
