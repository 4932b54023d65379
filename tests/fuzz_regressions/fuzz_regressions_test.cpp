// Inputs the fuzz targets found, each pinned to the invariant it broke.
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "core/protocol/connect_link.h"
#include "core/protocol/server_url.h"
#include "core/protocol/wire_json.h"
#include "core/sync/self_channel.h"

namespace corvane {
namespace {

using SelfChannel::normalizeForMatch;

// An empty value was read on into the rest of the query, so
// "code=&server=" gave the code "&server=".
TEST(ConnectLinkFuzzRegression, EmptyValueStaysEmpty) {
  EXPECT_EQ(ConnectLink::parse(ConnectLink::make("", "")), std::nullopt);  // "code=&server="
  EXPECT_EQ(ConnectLink::parse("corvane://connect?code=&x=ABCDEF"), std::nullopt);
  EXPECT_EQ(ConnectLink::parse("corvane://connect?code=&code=WXYZ"), std::nullopt);
}

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

// libcurl took a host of stray bytes ending in U+0085 (a line break), and
// the address it gave validated a second time to another host.
TEST(ServerURLFuzzRegression, HostWithBreaksOrBrokenUTF8IsRefused) {
  const std::string found =
      "http://127.\x80\x80\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFFHTTP"
      "\xC2\x85\xC2\x85\xC2\x85\xC2\x85\xC2\x85\xC2\x85?code=\xC2\x85\xC2\x85\xC2\x85"
      "\xC2\xC2\x85\xC2\x85\xC2\x85\xC2\x85\xC2\x85\xC2\x85\xC2\x85\xC2\x85S://\xFF\xFF"
      "\xFF\xFF\xFF\x80\x80\x80\x80\x80\x80\x80\x9B\x84"
      "amp\xC2\x93\x9A.t\x85\xC2\xE5"
      "st\x85";
  const std::string addresses[] = {found,
                                   "http://127.0.0.1\u0085?x=1",
                                   "https://example.test\u0085/",
                                   "https://example.test\u00A0/",
                                   "https://ex\x01" "ample.test",
                                   "https://\xFF\xFE.test"};
  for (const auto& text : addresses) {
    EXPECT_EQ(ServerURL::validate(text), std::nullopt) << text;
  }
  // International names stay accepted.
  EXPECT_EQ(ServerURL::validate("https://b\u00FCcher.example/x"), "https://b\u00FCcher.example");
}

// A server answer is either a record or a DecodingError, which is all the API
// client catches; a number beyond a double's range was neither.
TEST(WireJsonFuzzRegression, NumberBeyondDoubleRangeIsADecodingError) {
  // The fuzzer's input: valid JSON syntax whose number overflows a double.
  const std::string found =
      "922331e99972\x17"
      "36853685477sd\"}";
  const std::string answers[] = {found, "1e999", "{\"accepted\":1e999,\"dropped\":0}",
                                 "{\"queued\":-1e400}"};
  for (const auto& text : answers) {
    try {
      decodeJSON<SyncResponse>(text);
      ADD_FAILURE() << "decoded " << text;
    } catch (const DecodingError& e) {
      EXPECT_EQ(std::string(e.what()), "not valid JSON (a number is out of range)") << text;
    }
    EXPECT_THROW(decodeJSON<SelfMessageResponse>(text), DecodingError) << text;
  }
}

}  // namespace
}  // namespace corvane
