#include "core/chatdb/typed_stream.h"

#include <gtest/gtest.h>

#include <tuple>

#include "core/chatdb/sql_value.h"

namespace corvane {
namespace {

using TypedStream::decodeAttributedBody;
using TypedStream::encodeAttributedBody;

Bytes bytes(std::string_view s) { return Bytes(s.begin(), s.end()); }

TEST(TypedStreamTest, RoundTripsEveryLengthForm) {
  for (const std::size_t n : {0u, 1u, 127u, 128u, 200u, 65535u, 65536u, 70000u}) {
    std::string text(n, 'x');
    for (std::size_t i = 0; i < n; i += 7) text[i] = static_cast<char>('a' + i % 26);
    EXPECT_EQ(decodeAttributedBody(encodeAttributedBody(text)), text) << n;
  }
  EXPECT_EQ(decodeAttributedBody(encodeAttributedBody("h\u00e9llo \U0001F600")),
            "h\u00e9llo \U0001F600");
}

TEST(TypedStreamTest, EncodesTheExactArchiveLayout) {
  const std::string_view expected(
      "\x04\x0B" "streamtyped" "\x81\xE8\x03\x84\x01\x40\x84\x84\x84\x12" "NSAttributedString"
      "\x00\x84\x84\x08" "NSObject" "\x00\x85\x92\x84\x84\x84\x08" "NSString"
      "\x01\x94\x84\x01\x2B\x02" "hi" "\x86\x84\x02\x69\x49\x01\x81\x00\x00\x92\x84\x84\x84",
      89);
  EXPECT_EQ(encodeAttributedBody("hi"), bytes(expected));
}

TEST(TypedStreamTest, MalformedBlobsNeverReadPastTheEnd) {
  const std::tuple<const char*, Bytes, std::optional<std::string>> cases[] = {
      {"empty", {}, std::nullopt},
      {"no class name", bytes("streamtyped+\x05hello"), std::nullopt},
      {"class name at the very end", bytes("xxNSString"), std::nullopt},
      {"no marker after the class name", bytes("+\x02hiNSString\x01\x94"), std::nullopt},
      {"32-bit length cut off", bytes("NSString+\x82\x05\x00\x00"), std::nullopt},
      {"length runs past the end", bytes("NSString+\x0Ahey"), "hey"},
      {"16-bit length runs past the end", bytes("NSString+\x81\xFF\xFF" "abc"), "abc"},
      {"32-bit length with no text", bytes("NSString+\x82\xFF\xFF\xFF\xFF"), std::nullopt},
      {"zero length", bytes(std::string_view("NSString+\x00", 10)), ""},
      {"0x80 is a plain length", bytes("NSString+\x80" "abc"), "abc"},
      {"invalid UTF-8 becomes U+FFFD", bytes("NSString+\x03" "a\xFF" "b"), "a\uFFFDb"},
      {"first class name wins", bytes("NSString+\x01" "aNSString+\x01" "b"), "a"},
  };
  for (const auto& [name, blob, expected] : cases) {
    EXPECT_EQ(decodeAttributedBody(blob), expected) << name;
  }
}

TEST(TypedStreamTest, EveryTruncationOfARealBlobIsSafe) {
  const Bytes blob = encodeAttributedBody(std::string(300, 'z'));
  for (std::size_t n = 0; n <= blob.size(); ++n) {
    const auto text = decodeAttributedBody(std::span(blob.data(), n));
    if (text) {
      EXPECT_EQ(*text, std::string(text->size(), 'z')) << n;
    }
  }
}

}  // namespace
}  // namespace corvane
