#include "core/text/unicode.h"

#include <utf8proc.h>

#include <cstring>

namespace corvane {
namespace {

constexpr char32_t kReplacement = 0xFFFD;

// Decodes one code point following the Unicode "maximal subpart" practice.
// Returns false (with `cp` = U+FFFD) for ill-formed input; `i` always advances.
bool decodeOne(std::string_view s, std::size_t& i, char32_t& cp) {
  const auto b0 = static_cast<unsigned char>(s[i]);
  if (b0 < 0x80) {
    cp = b0;
    ++i;
    return true;
  }
  int need = 0;
  unsigned char lo = 0x80, hi = 0xBF;
  char32_t value = 0;
  if (b0 >= 0xC2 && b0 <= 0xDF) {
    need = 1;
    value = b0 & 0x1F;
  } else if (b0 >= 0xE0 && b0 <= 0xEF) {
    need = 2;
    value = b0 & 0x0F;
    if (b0 == 0xE0) lo = 0xA0;
    if (b0 == 0xED) hi = 0x9F;  // no surrogates
  } else if (b0 >= 0xF0 && b0 <= 0xF4) {
    need = 3;
    value = b0 & 0x07;
    if (b0 == 0xF0) lo = 0x90;
    if (b0 == 0xF4) hi = 0x8F;  // nothing above U+10FFFF
  } else {
    cp = kReplacement;
    ++i;
    return false;
  }
  std::size_t j = i + 1;
  for (int k = 0; k < need; ++k, ++j) {
    if (j >= s.size()) break;
    const auto b = static_cast<unsigned char>(s[j]);
    if (b < lo || b > hi) break;
    lo = 0x80;
    hi = 0xBF;
    value = (value << 6) | (b & 0x3F);
    if (k == need - 1) {
      cp = value;
      i = j + 1;
      return true;
    }
  }
  cp = kReplacement;
  i = j;
  return false;
}

// Where the run of ASCII bytes starting at `from` ends. Every text read from
// the database is validated, so runs are skipped eight bytes at a time.
std::size_t asciiPrefix(std::string_view s, std::size_t from = 0) {
  std::size_t i = from;
  for (; i + 8 <= s.size(); i += 8) {
    std::uint64_t word;
    std::memcpy(&word, s.data() + i, sizeof word);
    if ((word & 0x8080808080808080u) != 0) break;
  }
  while (i < s.size() && static_cast<unsigned char>(s[i]) < 0x80) ++i;
  return i;
}

// Walks `s` cluster by cluster; `accept(end, units)` is called with the byte
// offset just past each cluster and that cluster's UTF-16 length, and returns
// false to stop. Returns the byte offset where the walk stopped.
template <typename Accept>
std::size_t walkGraphemes(std::string_view s, Accept accept) {
  utf8proc_int32_t state = 0;
  std::size_t i = 0, clusterEnd = 0, clusterUnits = 0;
  char32_t prev = 0;
  bool first = true;
  while (i < s.size()) {
    char32_t cp;
    const std::size_t start = i;
    decodeOne(s, i, cp);
    if (!first && utf8proc_grapheme_break_stateful(static_cast<utf8proc_int32_t>(prev),
                                                   static_cast<utf8proc_int32_t>(cp), &state)) {
      if (!accept(start, clusterUnits)) return clusterEnd;
      clusterEnd = start;
      clusterUnits = 0;
    }
    first = false;
    prev = cp;
    clusterUnits += cp >= 0x10000 ? 2 : 1;
  }
  if (!first && accept(s.size(), clusterUnits)) return s.size();
  return clusterEnd;
}

}  // namespace

char32_t decodeUTF8At(std::string_view s, std::size_t& i) {
  char32_t cp;
  decodeOne(s, i, cp);
  return cp;
}

void appendUTF8(std::string& out, char32_t c) {
  if (c < 0x80) {
    out += static_cast<char>(c);
  } else if (c < 0x800) {
    out += static_cast<char>(0xC0 | (c >> 6));
    out += static_cast<char>(0x80 | (c & 0x3F));
  } else if (c < 0x10000) {
    out += static_cast<char>(0xE0 | (c >> 12));
    out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (c & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (c >> 18));
    out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (c & 0x3F));
  }
}

bool isValidUTF8(std::string_view s) {
  std::size_t i = asciiPrefix(s);
  char32_t cp;
  while (i < s.size()) {
    if (!decodeOne(s, i, cp)) return false;
    i = asciiPrefix(s, i);
  }
  return true;
}

std::string repairUTF8(std::string_view s) {
  // Nearly every input is valid: one copy instead of one append per character.
  if (isValidUTF8(s)) return std::string(s);
  std::size_t i = asciiPrefix(s);
  std::string out(s.substr(0, i));
  out.reserve(s.size());
  while (i < s.size()) {
    const std::size_t start = i;
    char32_t cp;
    if (decodeOne(s, i, cp)) {
      out.append(s.substr(start, i - start));
    } else {
      appendUTF8(out, kReplacement);
    }
  }
  return out;
}

std::size_t utf16Length(std::string_view s) {
  std::size_t i = asciiPrefix(s), units = i;
  char32_t cp;
  while (i < s.size()) {
    decodeOne(s, i, cp);
    units += cp >= 0x10000 ? 2 : 1;
  }
  return units;
}

std::string clipUTF16(std::string_view s, std::size_t max) {
  // A UTF-16 length never exceeds the UTF-8 length.
  if (s.size() <= max || utf16Length(s) <= max) return std::string(s);
  std::size_t total = 0;
  const std::size_t end = walkGraphemes(s, [&](std::size_t, std::size_t units) {
    if (total + units > max) return false;
    total += units;
    return true;
  });
  return std::string(s.substr(0, end));
}

std::string prefixGraphemes(std::string_view s, std::size_t count) {
  if (s.size() <= count) return std::string(s);
  std::size_t taken = 0;
  const std::size_t end = walkGraphemes(s, [&](std::size_t, std::size_t) {
    if (taken == count) return false;
    ++taken;
    return true;
  });
  return std::string(s.substr(0, end));
}

bool isWhitespaceOrNewline(char32_t c) {
  if (c == ' ' || (c >= 0x09 && c <= 0x0D) || c == 0x85) return true;
  if (c < 0x80) return false;
  const auto cat = utf8proc_category(static_cast<utf8proc_int32_t>(c));
  return cat == UTF8PROC_CATEGORY_ZS || cat == UTF8PROC_CATEGORY_ZL ||
         cat == UTF8PROC_CATEGORY_ZP;
}

std::string_view trimWhitespace(std::string_view s) {
  std::size_t begin = 0;
  while (begin < s.size()) {
    std::size_t next = begin;
    char32_t cp;
    if (!decodeOne(s, next, cp) || !isWhitespaceOrNewline(cp)) break;
    begin = next;
  }
  std::size_t end = s.size();
  while (end > begin) {
    // Step back to the lead byte of the last code point (at most 3 continuation bytes).
    std::size_t start = end - 1;
    while (start > begin && end - start < 4 &&
           (static_cast<unsigned char>(s[start]) & 0xC0) == 0x80) {
      --start;
    }
    std::size_t next = start;
    char32_t cp;
    if (!decodeOne(s, next, cp) || next != end || !isWhitespaceOrNewline(cp)) break;
    end = start;
  }
  return s.substr(begin, end - begin);
}

std::string lowercased(std::string_view s) {
  std::string out;
  out.reserve(s.size());
  std::size_t i = 0;
  while (i < s.size()) {
    const auto b = static_cast<unsigned char>(s[i]);
    if (b < 0x80) {
      out += static_cast<char>(b >= 'A' && b <= 'Z' ? b + ('a' - 'A') : b);
      ++i;
      continue;
    }
    const std::size_t start = i;
    char32_t cp;
    if (decodeOne(s, i, cp)) {
      appendUTF8(out, static_cast<char32_t>(utf8proc_tolower(static_cast<utf8proc_int32_t>(cp))));
    } else {
      out.append(s.substr(start, i - start));  // keep bytes we cannot interpret
    }
  }
  return out;
}

bool isDecimalDigit(char32_t c) {
  if (c < 0x80) return c >= '0' && c <= '9';
  return utf8proc_category(static_cast<utf8proc_int32_t>(c)) == UTF8PROC_CATEGORY_ND;
}

}  // namespace corvane
