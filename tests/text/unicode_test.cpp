#include "core/text/unicode.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <utility>

#include "core/text/letters.h"

namespace corvane {
namespace {

const std::string kFamily = "\U0001F468\u200D\U0001F469\u200D\U0001F467";  // 8 UTF-16 units
const std::string kFlag = "\U0001F1E9\U0001F1EA";                         // 4 units
const std::string kEAcute = "e\u0301";                                    // 2 units, one character

TEST(ClipUTF16Test, NeverSplitsACharacter) {
  const std::tuple<std::string, std::size_t, std::string> cases[] = {
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
  for (const auto& [input, max, expected] : cases) {
    EXPECT_EQ(clipUTF16(input, max), expected) << input << " / " << max;
  }
}

TEST(UTF8Test, ValidationAndRepair) {
  const std::tuple<std::string, bool, std::string> cases[] = {
      {"plain", true, "plain"},
      {"\u00e9\U0001F600", true, "\u00e9\U0001F600"},
      {"a\xc3", false, "a\uFFFD"},                       // truncated sequence
      {"\xc0\xaf", false, "\uFFFD\uFFFD"},               // overlong
      {"\xed\xa0\x80", false, "\uFFFD\uFFFD\uFFFD"},     // surrogate
      {"\xf4\x90\x80\x80", false, "\uFFFD\uFFFD\uFFFD\uFFFD"},  // above U+10FFFF
      {"\xe2\x82x", false, "\uFFFDx"},                   // maximal subpart is one U+FFFD
      {std::string("a\0b", 3), true, std::string("a\0b", 3)},
  };
  for (const auto& [input, valid, repaired] : cases) {
    EXPECT_EQ(isValidUTF8(input), valid) << input;
    EXPECT_EQ(repairUTF8(input), repaired) << input;
    EXPECT_TRUE(isValidUTF8(repaired));
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
      {"\t\r\n hi \n", "hi"},
      {"\u00a0\u2028hi\u3000\u0085", "hi"},
      {"\u200Bhi", "\u200Bhi"},  // zero-width space is a format character, not a space
      {" \n ", ""},
      {"hi\xff ", "hi\xff"},
  };
  for (const auto& [input, expected] : cases) EXPECT_EQ(trimWhitespace(input), expected) << input;
}

TEST(LettersTest, UppercasesCodePointByCodePoint) {
  const std::pair<std::string, std::string> cases[] = {
      {"en_us", "EN_US"},
      {"\u00E9lise", "\u00C9LISE"},
      {"\u01C6", "\u01C4"},  // one code point stays one code point
      {"a\xFF" "b", "A\xFF" "B"},  // invalid bytes survive untouched
  };
  for (const auto& [input, expected] : cases) EXPECT_EQ(uppercased(input), expected) << input;
}

// Alphanumerics are letters, marks and numbers, of any script.
TEST(LettersTest, LettersAndAlphanumericsOfAnyScript) {
  const std::tuple<char32_t, bool, bool> cases[] = {  // character, letter, alphanumeric
      {U'a', true, true},       {U'\u00E9', true, true},  {U'\u0436', true, true},
      {U'\u4E2D', true, true},  {U'\u02B0', true, true},  {U'\u216B', true, true},
      {U'1', false, true},      {U'\u0663', false, true}, {U'\u0301', false, true},
      {U'\u00BD', false, true}, {U'_', false, false},     {U'@', false, false},
      {U' ', false, false},     {U'\u00A0', false, false}, {U'\uFFFD', false, false},
      {U'\U0001F600', false, false},
  };
  for (const auto& [c, letter, alphanumeric] : cases) {
    EXPECT_EQ(isLetter(c), letter) << static_cast<unsigned>(c);
    EXPECT_EQ(isAlphanumeric(c), alphanumeric) << static_cast<unsigned>(c);
  }
}

}  // namespace
}  // namespace corvane
