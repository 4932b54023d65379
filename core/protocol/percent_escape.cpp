#include "core/protocol/percent_escape.h"

#include "core/text/letters.h"
#include "core/text/unicode.h"

namespace corvane {

std::string percentEscape(std::string_view text, std::string_view alsoKeep) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(text.size());
  std::size_t i = 0;
  while (i < text.size()) {
    const std::size_t start = i;
    const char32_t c = decodeUTF8At(text, i);
    const std::string_view bytes = text.substr(start, i - start);
    // Ill-formed bytes decode as U+FFFD, which is no alphanumeric: escaped.
    if (isAlphanumeric(c) ||
        (c < 0x80 && alsoKeep.find(static_cast<char>(c)) != std::string_view::npos)) {
      out += bytes;
      continue;
    }
    for (const char ch : bytes) {
      const auto b = static_cast<unsigned char>(ch);
      out += '%';
      out += kHex[b >> 4];
      out += kHex[b & 0x0F];
    }
  }
  return out;
}

}  // namespace corvane
