// AppleScripts: the fixed script texts the agent runs through Osascript.
// The send scripts take the text as argument 1 and the recipient's handle as
// argument 2, so user text never becomes part of a script's source.
// Constants, safe from any thread.
#pragma once

#include <string_view>

namespace corvane::AppleScripts {

// Sends over the iMessage service.
extern const std::string_view iMessage;
// The same script over the SMS service.
extern const std::string_view sms;
// Asks Messages for its name: triggers and tests the Automation permission.
inline constexpr std::string_view probe = "tell application \"Messages\" to get name\n";

}  // namespace corvane::AppleScripts
