// osascript's error output is whatever the script host printed; explain turns
// it into the sentence a user sees, so it must stay readable text and never
// cut a character in half.
#include <cstdint>
#include <string>

#include "core/send/osascript.h"
#include "core/text/unicode.h"
#include "fuzz/fuzz_check.h"

using namespace corvane;
using fuzz::escaped;

namespace {

constexpr std::string_view kAutomation =
    "macOS blocked Corvane from controlling Messages. Allow it in System Settings \u203A "
    "Privacy & Security \u203A Automation \u203A Corvane \u203A Messages.";
constexpr std::string_view kAccount =
    "Messages has no matching account (sign in to iMessage, or enable Text Message Forwarding "
    "for SMS).";
constexpr std::string_view kRecipient = "Messages couldn't find that recipient: ";

// True when `quoted` is the start of `error` and holds its first `limit`
// characters (extended grapheme clusters), or all of it when it has fewer.
bool isQuoted(std::string_view error, std::string_view quoted, std::size_t limit) {
  if (!error.starts_with(quoted)) return false;
  if (!isValidUTF8(error)) return true;
  const auto ends = fuzz::graphemeEnds(error);
  return quoted.size() == (ends.size() <= limit ? error.size() : ends[limit - 1]);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view error = fuzz::asText(data, size);
  const std::string message = Osascript::explain(error);
  const std::string detail = escaped(error) + " gave " + escaped(message);
  FUZZ_CHECK(!message.empty(), detail);
  if (isValidUTF8(error)) FUZZ_CHECK(isValidUTF8(message), detail);
  // The Automation refusal wins over every other reading.
  if (error.find("-1743") != std::string_view::npos) FUZZ_CHECK(message == kAutomation, detail);

  // Otherwise one of the fixed sentences, or the start of what osascript said.
  const bool fixed = message == kAutomation || message == kAccount;
  const bool recipient = message.starts_with(kRecipient) &&
                         isQuoted(error, std::string_view(message).substr(kRecipient.size()), 200);
  const bool empty = error.empty() && message == "osascript failed";
  FUZZ_CHECK(fixed || recipient || empty || isQuoted(error, message, 300), detail);
  return 0;
}
