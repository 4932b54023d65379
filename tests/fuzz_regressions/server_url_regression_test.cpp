// Inputs the server-URL fuzz target found in server addresses, each pinned
// to the invariant it broke.
#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "core/protocol/server_url.h"

namespace corvane {
namespace {

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
                                   "https://ex\x01"
                                   "ample.test",
                                   "https://\xFF\xFE.test"};
  for (const auto& text : addresses) {
    EXPECT_EQ(ServerURL::validate(text), std::nullopt) << text;
  }
  // International names stay accepted.
  EXPECT_EQ(ServerURL::validate("https://b\u00FCcher.example/x"), "https://b\u00FCcher.example");
}

}  // namespace
}  // namespace corvane
