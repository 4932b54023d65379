// Inputs the text fuzz target found, each pinned to the invariant it broke.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core/sync/self_channel.h"

namespace corvane {
namespace {

using SelfChannel::normalizeForMatch;

// An attachment placeholder between a letter and a combining mark: removed
// after composing, it left "a\u0301", which a second pass composed to "á".
TEST(SelfChannelFuzzRegression, PlaceholderBeforeACombiningMarkNormalizesInOnePass) {
  // The fuzzer's input, less its first two bytes (the clip limit).
  const std::string found =
      "\xCC\x80\xCC\x80\x9D\x01\x00\x9F\xF2\xF2\xF5\x9D\x01\x00\x9F\xF2"
      "a\xEF\xBF\xBC\xCC\x81 e\xCC\x81\xF5";
  for (const std::string& text :
       {found, std::string("a\uFFFC\u0301"), std::string("\uFFFC\u0301")}) {
    const std::string once = normalizeForMatch(text);
    EXPECT_EQ(normalizeForMatch(once), once) << text;
  }
  EXPECT_EQ(normalizeForMatch("a\uFFFC\u0301"), "\u00E1");
}

// Why it matters: replies are recorded normalised and compared normalised
// again, so a form that moves on a second pass misses the echo.
TEST(SelfChannelFuzzRegression, ReplyWithPlaceholderBeforeAMarkIsStillAnEcho) {
  const std::string reply = "Done\uFFFC\u0301";
  const std::vector<SentText> sent = {{normalizeForMatch(reply), 1'000}};
  EXPECT_TRUE(SelfChannel::isAssistantEcho(reply, 2'000, sent, SelfChannel::echoWindowMs));
}

}  // namespace
}  // namespace corvane
