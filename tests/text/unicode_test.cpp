#include "core/text/unicode.h"

#include <gtest/gtest.h>

#include <string>

namespace corvane {
namespace {

const std::string kFamily = "\U0001F468\u200D\U0001F469\u200D\U0001F467";  // 8 UTF-16 units
const std::string kFlag = "\U0001F1E9\U0001F1EA";                         // 4 units
const std::string kEAcute = "e\u0301";                                    // 2 units, one character

TEST(ClipUTF16Test, NeverSplitsACharacter) {
  struct Case {
    std::string input;
    std::size_t max;
    std::string expected;
  };
  const Case cases[] = {
      {"hello", 5, "hello"},
      {"hello", 3, "hel"},
      {"", 0, ""},
      {"ab" + kFamily, 9, "ab"},
      {"ab" + kFamily, 10, "ab" + kFamily},
      {kFlag + kFlag, 7, kFlag},
      {kFlag + kFlag, 8, kFlag + kFlag},
      {"caf" + kEAcute + "!", 4, "caf"},
      {"caf" + kEAcute + "!", 5, "caf" + kEAcute},
      {"\U0001F600x", 1, ""},
      {"\u00e9\u00e9\u00e9", 2, "\u00e9\u00e9"},  // 2-byte letters count one unit each
      {"ab\xff\xfe" "cd", 3, "ab\xff"},  // invalid bytes give a prefix of the input
  };
  for (const auto& c : cases) {
    EXPECT_EQ(clipUTF16(c.input, c.max), c.expected) << c.input << " / " << c.max;
  }
}

TEST(UTF8Test, ValidationAndRepair) {
  struct Case {
    std::string input;
    bool valid;
    std::string repaired;
  };
  const Case cases[] = {
      {"plain", true, "plain"},
      {"\u00e9\U0001F600", true, "\u00e9\U0001F600"},
      {"a\xc3", false, "a\uFFFD"},                       // truncated sequence
      {"\xc0\xaf", false, "\uFFFD\uFFFD"},               // overlong
      {"\xed\xa0\x80", false, "\uFFFD\uFFFD\uFFFD"},     // surrogate
      {"\xf4\x90\x80\x80", false, "\uFFFD\uFFFD\uFFFD\uFFFD"},  // above U+10FFFF
      {"\xe2\x82x", false, "\uFFFDx"},                   // maximal subpart is one U+FFFD
      {std::string("a\0b", 3), true, std::string("a\0b", 3)},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(isValidUTF8(c.input), c.valid) << c.input;
    EXPECT_EQ(repairUTF8(c.input), c.repaired) << c.input;
    EXPECT_TRUE(isValidUTF8(repairUTF8(c.input)));
  }
}

// ASCII runs are skipped a word at a time; a bad or multi-byte sequence must
// be seen at every offset, on either side of a word boundary.
TEST(UTF8Test, ValidationSeesEveryOffset) {
  for (std::size_t length = 1; length <= 20; ++length) {
    for (std::size_t at = 0; at < length; ++at) {
      std::string bad(length, 'a'), good(length, 'a');
      bad[at] = '\xff';
      good.replace(at, 1, "\u00e9");
      EXPECT_FALSE(isValidUTF8(bad)) << length << " " << at;
      EXPECT_EQ(repairUTF8(bad),
                std::string(at, 'a') + "\uFFFD" + std::string(length - at - 1, 'a'));
      EXPECT_TRUE(isValidUTF8(good)) << length << " " << at;
      EXPECT_EQ(repairUTF8(good), good);
      EXPECT_EQ(utf16Length(good), length);
    }
  }
}

TEST(TrimTest, RemovesUnicodeSpacesAndLineBreaksOnly) {
  const std::pair<std::string, std::string> cases[] = {
      {"  hi  ", "hi"},
      {"\t\r\n hi \n", "hi"},
      {"\u00a0\u2028hi\u3000\u0085", "hi"},
      {"\u200Bhi", "\u200Bhi"},  // zero-width space is a format character, not a space
      {"a b", "a b"},
      {" \n ", ""},
      {"hi\xff ", "hi\xff"},
  };
  for (const auto& [input, expected] : cases) EXPECT_EQ(trimWhitespace(input), expected) << input;
}

TEST(TextTest, LowercasingAndDigits) {
  EXPECT_EQ(lowercased("IMAGE/PNG \u00c9T\u00c9"), "image/png \u00e9t\u00e9");
  EXPECT_TRUE(isDecimalDigit(U'7'));
  EXPECT_TRUE(isDecimalDigit(U'\u0663'));  // Arabic-Indic three
  EXPECT_TRUE(isDecimalDigit(U'\uFF15'));  // full-width five
  EXPECT_FALSE(isDecimalDigit(U'\u00BD'));  // vulgar fraction is a number, not a digit
  EXPECT_FALSE(isDecimalDigit(U'a'));
}

}  // namespace
}  // namespace corvane
