#include "core/text/letters.h"

#include <utf8proc.h>

#include "core/text/unicode.h"

namespace corvane {

bool isLetter(char32_t c) {
  if (c < 0x80) return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
  switch (utf8proc_category(static_cast<utf8proc_int32_t>(c))) {
    case UTF8PROC_CATEGORY_LU:
    case UTF8PROC_CATEGORY_LL:
    case UTF8PROC_CATEGORY_LT:
    case UTF8PROC_CATEGORY_LM:
    case UTF8PROC_CATEGORY_LO:
    case UTF8PROC_CATEGORY_NL:
      return true;
    default:
      return false;
  }
}

bool isAlphanumeric(char32_t c) {
  if (isLetter(c)) return true;
  if (c < 0x80) return c >= '0' && c <= '9';
  switch (utf8proc_category(static_cast<utf8proc_int32_t>(c))) {
    case UTF8PROC_CATEGORY_MN:
    case UTF8PROC_CATEGORY_MC:
    case UTF8PROC_CATEGORY_ME:
    case UTF8PROC_CATEGORY_ND:
    case UTF8PROC_CATEGORY_NO:
      return true;
    default:
      return false;
  }
}

std::string uppercased(std::string_view s) {
  std::string out;
  out.reserve(s.size());
  std::size_t i = 0;
  while (i < s.size()) {
    const std::size_t start = i;
    const char32_t cp = decodeUTF8At(s, i);
    const auto upper = static_cast<char32_t>(utf8proc_toupper(static_cast<utf8proc_int32_t>(cp)));
    // Unchanged code points (and ill-formed bytes, decoded as U+FFFD) are
    // copied from the source so that nothing is silently repaired.
    if (upper == cp) {
      out.append(s.substr(start, i - start));
    } else {
      appendUTF8(out, upper);
    }
  }
  return out;
}

}  // namespace corvane
