#include "core/send/message_sender.h"

#include "core/text/unicode.h"

namespace corvane {

std::string normalizeSentText(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  bool pendingBlank = false;
  for (std::size_t i = 0; i < text.size();) {
    const std::size_t start = i;
    const char32_t c = decodeUTF8At(text, i);
    if (c == U'\uFFFC') continue;  // where Messages puts an attachment
    if (isWhitespaceOrNewline(c)) {
      pendingBlank = !out.empty();
      continue;
    }
    if (pendingBlank) out += ' ';
    pendingBlank = false;
    out.append(text.substr(start, i - start));
  }
  return out;
}

}  // namespace corvane
