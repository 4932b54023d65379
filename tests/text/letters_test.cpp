#include "core/text/letters.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

namespace corvane {
namespace {

TEST(LettersTest, UppercasesCodePointByCodePoint) {
  const std::pair<std::string, std::string> cases[] = {
      {"en_us", "EN_US"},
      {"\u00E9lise", "\u00C9LISE"},
      {"\u017Fe", "SE"},     // long s upper-cases to an ASCII letter
      {"\u01C6", "\u01C4"},  // one code point stays one code point
      {"\u0436\u4E2D", "\u0416\u4E2D"},
      {"a\xFF"
       "b",
       "A\xFF"
       "B"},  // invalid bytes survive untouched
      {"", ""},
  };
  for (const auto& [input, expected] : cases) EXPECT_EQ(uppercased(input), expected) << input;
}

TEST(LettersTest, RecognisesLettersOfAnyScript) {
  for (const char32_t c : {U'a', U'Z', U'\u00E9', U'\u0436', U'\u4E2D', U'\u02B0', U'\u216B'}) {
    EXPECT_TRUE(isLetter(c)) << static_cast<unsigned>(c);
  }
  for (const char32_t c :
       {U'1', U'\u0663', U'_', U'@', U' ', U'\u0301', U'\u00BD', U'\U0001F600'}) {
    EXPECT_FALSE(isLetter(c)) << static_cast<unsigned>(c);
  }
}

// Foundation's alphanumerics: letters, marks and numbers.
TEST(LettersTest, AlphanumericsAreLettersMarksAndNumbersOfAnyScript) {
  for (const char32_t c :
       {U'a', U'Z', U'0', U'\u00E9', U'\u4E2D', U'\u0301', U'\u0663', U'\u00BD'}) {
    EXPECT_TRUE(isAlphanumeric(c)) << static_cast<unsigned>(c);
  }
  for (const char32_t c : {U'_', U'-', U' ', U'\u00A0', U'\uFFFD', U'\U0001F600'}) {
    EXPECT_FALSE(isAlphanumeric(c)) << static_cast<unsigned>(c);
  }
}

}  // namespace
}  // namespace corvane
