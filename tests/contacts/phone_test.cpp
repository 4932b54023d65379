#include "core/contacts/phone.h"

#include <gtest/gtest.h>

#include <map>
#include <optional>
#include <string>
#include <tuple>
#include <utility>

namespace corvane {
namespace {

using Vars = std::map<std::string, std::string, std::less<>>;

Phone::Environment environmentOf(Vars vars) {
  return [vars = std::move(vars)](std::string_view name) -> std::optional<std::string> {
    const auto it = vars.find(name);
    if (it == vars.end()) return std::nullopt;
    return it->second;
  };
}

Phone::RegionSources sources(Vars vars, std::optional<std::string> localeRegion = std::nullopt) {
  return {environmentOf(std::move(vars)), [localeRegion] { return localeRegion; }};
}

TEST(PhoneNormalizeTest, NumbersAndAddressesInEveryForm) {
  const struct {
    std::optional<std::string> raw, region, expected;
  } cases[] = {
      {" tel:+1 (415) 555-0100 ", "US", "+14155550100"},
      {"14155550100", "US", "+14155550100"},
      {"415\u00A0555\u00A00100", "CA", "+14155550100"},
      // Not placeable as a ten-digit national number: bare digits, no "+".
      {"0155550100", "US", "0155550100"},
      {"1415555010", "US", "1415555010"},
      {"24155550100", "US", "24155550100"},
      // Short codes stay bare digits.
      {"*611#", "US", "611"},
      {"123456", "DE", "123456"},
      {"0612345678", "FR", "+33612345678"},
      {"(0)20 7946 0000", "GB", "+442079460000"},
      // Italy keeps the trunk zero after the country code; regions in any case.
      {"06 1234 5678", "it", "+390612345678"},
      // A national part of 6 to 13 digits, from at least 7 digits in all.
      {"0123456", "DE", "+49123456"},
      {"01234567890123", "DE", "+491234567890123"},
      {"12345678901234", "DE", "12345678901234"},
      // Only a single leading zero is a trunk prefix.
      {"00123456", "FR", "+3300123456"},
      // Regions outside the table read numbers as North American.
      {"4155550100", "ZZ", "+14155550100"},
      {"0612345678", "ZZ", "0612345678"},
      // San Marino keeps its trunk zero but has no calling code of its own here.
      {"0549 123456", "SM", "0549123456"},
      {"0044 20 7946 0000", "FR", "+442079460000"},
      {"\u00A0+44 20 7946 0000\u2028", "FR", "+442079460000"},
      {"SMS:+447700900123", "US", "+447700900123"},
      {"tel:+33 (0)6 12 34 56 78", "US", "+330612345678"},
      {"+\u0669\u0667\u0661 \u0665\u0660 \u0661\u0662\u0663", "AE",
       "+\u0669\u0667\u0661\u0665\u0660\u0661\u0662\u0663"},
      // "00" is a dialling prefix only in front of at least seven more digits.
      {"00 44 12345", "US", "+4412345"},
      {"00 44 1234", "US", "00441234"},
      // The rest after a scheme is not trimmed again, so the "+" is not leading.
      {"tel: +44 20 7946 0000", "US", "442079460000"},
      {"tel: 415 555 0100", "US", "+14155550100"},
      {"MAILTO: Alex@Example.org ", std::nullopt, "alex@example.org"},
      {"mailto:\u00A0Bob@X.io", "US", "bob@x.io"},
      {"imessage:alex@icloud.com", std::nullopt, "alex@icloud.com"},
      {"\u00C9LISE@Example.FR", std::nullopt, "\u00E9lise@example.fr"},
      {"a@b", std::nullopt, "a@b"},
      {"a@", std::nullopt, std::nullopt},
      // Three code points but two characters.
      {"e\u0301@", std::nullopt, std::nullopt},
      // Digits in an address never make it a phone number.
      {"4155550100@example.com", "US", "4155550100@example.com"},
      // What is no handle at all.
      {std::nullopt, "US", std::nullopt},
      {" \n\t\u00A0", "US", std::nullopt},
      {"tel:", "US", std::nullopt},
      {"URN:biz:123", std::nullopt, std::nullopt},
      {"tel:urn:x-id:4155550100", "US", std::nullopt},
      {"12", "US", std::nullopt},
      {"call me", "US", std::nullopt},
      // Two digits in four bytes.
      {"+\u0669\u0667", "AE", std::nullopt},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Phone::normalize(c.raw, c.region, sources({})), c.expected)
        << "raw \"" << c.raw.value_or("<absent>") << "\" in " << c.region.value_or("<absent>");
  }
  EXPECT_EQ(Phone::normalize("0612345678", "FR"), "+33612345678");
}

TEST(PhoneNormalizeTest, AbsentOrEmptyRegionUsesTheDetectedOne) {
  const auto detected = sources({{"QUODDLE_REGION", "gb"}});
  EXPECT_EQ(Phone::normalize("020 7946 0000", std::nullopt, detected), "+442079460000");
  EXPECT_EQ(Phone::normalize("020 7946 0000", "", detected), "+442079460000");
  EXPECT_EQ(Phone::normalize("020 7946 0000", "FR", detected), "+332079460000");
}

TEST(PhoneDigitsTest, KeepsEveryDecimalDigitAsWritten) {
  const std::pair<std::string, std::string> cases[] = {
      {"+1 (415)", "1415"},
      {"abc", ""},
      {"\u0664\u0661\u0665-\u0665\u0665\u0665", "\u0664\u0661\u0665\u0665\u0665\u0665"},
      {"\uFF08\uFF14\uFF11\uFF15\uFF09", "\uFF14\uFF11\uFF15"},
      // Numeric, but not decimal digits.
      {"\u00BD \u00B2 \u2163", ""},
  };
  for (const auto& [input, expected] : cases) EXPECT_EQ(Phone::digits(input), expected) << input;
}

TEST(PhoneLast10Test, TakesTheLastTenDigitsOfNumbersWithAtLeastSeven) {
  const std::string arabic12 =
      "\u0660\u0661\u0662\u0663\u0664\u0665\u0666\u0667\u0668\u0669\u0660\u0661";
  const std::pair<std::string, std::optional<std::string>> cases[] = {
      {"+1 (415) 555-0100", "4155550100"},
      {"1234567", "1234567"},
      {"123456", std::nullopt},
      {"alex@example.org", std::nullopt},
      {arabic12, arabic12.substr(4)},  // ten code points, not ten bytes
  };
  for (const auto& [input, expected] : cases) EXPECT_EQ(Phone::last10(input), expected) << input;
}

TEST(PhoneSameTest, MatchesEqualHandlesAndPhoneNumbersOnTheirLastTenDigits) {
  const std::tuple<std::string, std::string, bool> cases[] = {
      {"+14155550100", "4155550100", true},
      {"+442079460000", "02079460000", true},
      {"1234567", "+1234567", true},
      {"+14155550100", "+14155550199", false},
      {"a@b.c", "A@b.c", false},
      {"123456", "123456 ", false},
      {"4155550100@x.io", "4155550100", false},
      {"4155550100", "+1 415 555 0100@x.io", false},
  };
  for (const auto& [a, b, expected] : cases) {
    EXPECT_EQ(Phone::same(a, b), expected) << a << " / " << b;
    EXPECT_EQ(Phone::same(b, a), expected) << b << " / " << a;
  }
}

TEST(PhoneRegionFromLocaleTest, FindsTheRegionOfAnIdentifier) {
  const std::pair<std::optional<std::string>, std::optional<std::string>> cases[] = {
      {"zh-Hant-TW", "TW"},
      {"en_us", "US"},
      {"de_DE@euro", "DE"},
      {"en_US@rg=gbzzzz", "GB"},
      {"en_US@RG=FRZZZZ", "FR"},
      // An override that is not two letters falls back to the identifier.
      {"en_US@rg=1zzz", "US"},
      {"es_419_MX", "MX"},
      // The language is never a region, however it looks.
      {"en", std::nullopt},
      {"gb__", std::nullopt},
      {"es-419", std::nullopt},
      {"en_USA", std::nullopt},
      {"x_\u00C9\u00C9", std::nullopt},
      {std::nullopt, std::nullopt},
  };
  for (const auto& [identifier, expected] : cases) {
    EXPECT_EQ(Phone::regionFromLocale(identifier), expected) << identifier.value_or("<absent>");
  }
}

TEST(PhonePosixLocaleRegionTest, ReadsTheLocaleTheCLibraryWouldUse) {
  const std::pair<Vars, std::optional<std::string>> cases[] = {
      {{{"LANG", "en_GB.UTF-8"}}, "GB"},
      {{{"LANG", "en_US.UTF-8@rg=gbzzzz"}}, "GB"},
      {{{"LC_MESSAGES", "fr_CA.UTF-8"}, {"LANG", "en_US.UTF-8"}}, "CA"},
      {{{"LC_ALL", "pt_BR"}, {"LC_MESSAGES", "fr_CA"}, {"LANG", "en_US"}}, "BR"},
      {{{"LC_ALL", ""}, {"LANG", "en_IE.UTF-8"}}, "IE"},
      // The first setting decides even when it names no region.
      {{{"LC_ALL", "C.UTF-8"}, {"LANG", "en_GB.UTF-8"}}, std::nullopt},
      {{}, std::nullopt},
  };
  for (const auto& [vars, expected] : cases) {
    EXPECT_EQ(Phone::posixLocaleRegion(environmentOf(vars)), expected)
        << (vars.empty() ? "<none>" : vars.begin()->second);
  }
}

TEST(PhoneDetectRegionTest, PrefersTheVariableThenTheLocaleThenUS) {
  const std::tuple<Vars, std::optional<std::string>, std::string> cases[] = {
      {{{"QUODDLE_REGION", "gb"}}, "FR", "GB"},
      {{{"QUODDLE_REGION", "GBR"}}, "FR", "FR"},
      {{{"QUODDLE_REGION", ""}}, "fr", "FR"},
      {{{"QUODDLE_REGION", "d"}}, std::nullopt, "US"},
      {{}, "419", "US"},
  };
  for (const auto& [vars, localeRegion, expected] : cases) {
    EXPECT_EQ(Phone::detectRegion(sources(vars, localeRegion)), expected)
        << localeRegion.value_or("<absent>");
  }
}

}  // namespace
}  // namespace corvane
