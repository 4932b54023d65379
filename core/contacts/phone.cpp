#include "core/contacts/phone.h"

#include <algorithm>
#include <cstdlib>
#include <vector>

#include "core/text/letters.h"
#include "core/text/unicode.h"

namespace corvane::Phone {
namespace {

char asciiLower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c; }

bool equalIgnoringASCIICase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return asciiLower(x) == asciiLower(y);
         });
}

// The prefixes and markers searched for are ASCII, so comparing bytes with
// ASCII case folding matches what lower-casing the whole string would, and
// keeps byte offsets valid in the original.
bool hasPrefixIgnoringCase(std::string_view s, std::string_view prefix) {
  return s.size() >= prefix.size() && equalIgnoringASCIICase(s.substr(0, prefix.size()), prefix);
}

std::size_t findIgnoringCase(std::string_view s, std::string_view needle) {
  for (std::size_t i = 0; i + needle.size() <= s.size(); ++i) {
    if (equalIgnoringASCIICase(s.substr(i, needle.size()), needle)) return i;
  }
  return std::string_view::npos;
}

// "Characters" are extended grapheme clusters, as a reader would count them.
bool hasAtLeastCharacters(std::string_view s, std::size_t n) {
  return n == 0 || prefixGraphemes(s, n - 1).size() < s.size();
}

bool hasExactlyCharacters(std::string_view s, std::size_t n) {
  return hasAtLeastCharacters(s, n) && !hasAtLeastCharacters(s, n + 1);
}

// `digits` yields only whole code points, and decimal digits never combine
// into one character, so counting and cutting by code point is exact.
bool isLeadByte(char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; }

std::size_t scalarCount(std::string_view s) {
  return static_cast<std::size_t>(std::count_if(s.begin(), s.end(), isLeadByte));
}

std::string_view lastScalars(std::string_view s, std::size_t n) {
  std::size_t start = s.size(), taken = 0;
  while (start > 0 && taken < n) {
    --start;
    if (isLeadByte(s[start])) ++taken;
  }
  return s.substr(start);
}

bool isASCIILetter(char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); }

// Two characters that are letters (judged by each one's first code point).
bool isTwoLetters(std::string_view s) {
  if (!hasExactlyCharacters(s, 2)) return false;
  std::size_t i = 0;
  if (!isLetter(decodeUTF8At(s, i))) return false;
  i = prefixGraphemes(s, 1).size();
  return isLetter(decodeUTF8At(s, i));
}

bool keepsTrunkZero(std::string_view region) {
  return std::find(keepTrunkZeroRegions.begin(), keepTrunkZeroRegions.end(), region) !=
         keepTrunkZeroRegions.end();
}

std::optional<std::string> normalizeIn(std::optional<std::string_view> raw,
                                       std::optional<std::string_view> region,
                                       const std::function<std::string()>& fallbackRegion) {
  if (!raw) return std::nullopt;
  std::string_view s = trimWhitespace(*raw);
  if (s.empty()) return std::nullopt;
  for (const std::string_view prefix : schemePrefixes) {
    if (hasPrefixIgnoringCase(s, prefix)) {
      s.remove_prefix(prefix.size());  // deliberately not trimmed again
      break;
    }
  }
  if (hasPrefixIgnoringCase(s, "urn:")) return std::nullopt;

  if (isEmail(s)) {
    std::string email = lowercased(trimWhitespace(s));
    if (!hasAtLeastCharacters(email, 3)) return std::nullopt;
    return email;
  }

  const std::string d = digits(s);
  const std::size_t length = scalarCount(d);
  if (length < 3) return std::nullopt;
  if (s.starts_with('+')) return "+" + d;
  // An international dialling prefix ("00") in front of a country code.
  if (s.starts_with("00") && length >= 9) return "+" + d.substr(2);

  const std::string r = uppercased(region && !region->empty() ? *region : fallbackRegion());
  const std::string_view cc = callingCode(r).value_or(*callingCode(defaultRegion));
  if (cc == "1") {
    if (length == 10 && !d.starts_with('0') && !d.starts_with('1')) return "+1" + d;
    if (length == 11 && d.starts_with('1')) return "+" + d;
    return d;  // a short code or an unplaceable number stays as bare digits
  }
  std::string_view national = d;
  if (!keepsTrunkZero(r) && d.starts_with('0') && !d.starts_with("00")) {
    national.remove_prefix(1);
  }
  const std::size_t nationalLength = scalarCount(national);
  if (nationalLength >= 6 && nationalLength <= 13 && length >= 7) {
    return "+" + std::string(cc) + std::string(national);
  }
  return d;
}

}  // namespace

std::optional<std::string_view> callingCode(std::string_view region) {
  for (const auto& [code, cc] : callingCodes) {
    if (code == region) return cc;
  }
  return std::nullopt;
}

std::optional<std::string> normalize(std::optional<std::string_view> raw,
                                     std::optional<std::string_view> region) {
  return normalizeIn(raw, region, [] { return detectRegion(); });
}

std::optional<std::string> normalize(std::optional<std::string_view> raw,
                                     std::optional<std::string_view> region,
                                     const RegionSources& sources) {
  return normalizeIn(raw, region, [&] { return detectRegion(sources); });
}

bool isEmail(std::string_view s) { return s.find('@') != std::string_view::npos; }

std::string digits(std::string_view s) {
  std::string out;
  std::size_t i = 0;
  while (i < s.size()) {
    const std::size_t start = i;
    if (isDecimalDigit(decodeUTF8At(s, i))) out.append(s.substr(start, i - start));
  }
  return out;
}

std::optional<std::string> last10(std::string_view s) {
  const std::string d = digits(s);
  if (scalarCount(d) < 7) return std::nullopt;
  return std::string(lastScalars(d, 10));
}

bool same(std::string_view a, std::string_view b) {
  if (a == b) return true;
  if (isEmail(a) || isEmail(b)) return false;
  const auto lastA = last10(a);
  return lastA && lastA == last10(b);
}

std::optional<std::string> regionFromLocale(std::optional<std::string_view> identifier) {
  if (!identifier) return std::nullopt;
  const std::string_view id = trimWhitespace(*identifier);

  constexpr std::string_view regionOverride = "@rg=";
  if (const auto at = findIgnoringCase(id, regionOverride); at != std::string_view::npos) {
    const std::string two = prefixGraphemes(id.substr(at + regionOverride.size()), 2);
    if (isTwoLetters(two)) return uppercased(two);
  }

  const std::string_view base = id.substr(0, id.find('@'));
  std::vector<std::string_view> pieces;
  std::size_t start = 0;
  while (start <= base.size()) {
    const std::size_t end = std::min(base.find_first_of("_-", start), base.size());
    if (end > start) pieces.push_back(base.substr(start, end - start));
    start = end + 1;
  }
  if (pieces.size() < 2) return std::nullopt;
  // The first piece is the language and never a region, even when it has two letters.
  for (std::size_t i = pieces.size() - 1; i >= 1; --i) {
    const std::string_view piece = pieces[i];
    if (piece.size() == 2 && isASCIILetter(piece[0]) && isASCIILetter(piece[1])) {
      return uppercased(piece);
    }
  }
  return std::nullopt;
}

std::optional<std::string> processEnvironment(std::string_view name) {
  const char* value = std::getenv(std::string(name).c_str());
  if (value == nullptr) return std::nullopt;
  return std::string(value);
}

std::optional<std::string> posixLocaleRegion(const Environment& environment) {
  for (const char* variable : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
    std::optional<std::string> locale = environment(variable);
    if (!locale || locale->empty()) continue;
    // language[_territory][.codeset][@modifier]: the codeset is no part of a
    // locale identifier, and left in it would hide the territory.
    const std::size_t dot = locale->find('.'), at = locale->find('@');
    if (dot < at) locale->erase(dot, at - dot);
    return regionFromLocale(*locale);
  }
  return std::nullopt;
}

std::string detectRegion(const RegionSources& sources) {
  if (const auto value = sources.environment(regionVariable);
      value && hasExactlyCharacters(*value, 2)) {
    return uppercased(*value);
  }
  if (const auto region = sources.localeRegion(); region && hasExactlyCharacters(*region, 2)) {
    return uppercased(*region);
  }
  return std::string(defaultRegion);
}

}  // namespace corvane::Phone
