// Texts from the database and the server, as arbitrary bytes, through the two
// helpers every outgoing text passes: clipUTF16 (the server's length limits)
// and normalizeForMatch (echo and duplicate detection). The first two bytes
// of an input are the clip limit in UTF-16 units, the rest the text.
#include <cstdint>
#include <string>

#include "core/sync/self_channel.h"
#include "core/text/normalization.h"
#include "core/text/unicode.h"
#include "fuzz/fuzz_check.h"

using namespace corvane;
using fuzz::escaped;

namespace {

void checkClip(std::string_view s, std::size_t max) {
  const std::string clipped = clipUTF16(s, max);
  const std::string detail =
      escaped(s) + " clipped to " + std::to_string(max) + " gave " + escaped(clipped);
  FUZZ_CHECK(s.starts_with(clipped), detail);
  FUZZ_CHECK(utf16Length(clipped) <= max, detail);
  if (utf16Length(s) <= max) FUZZ_CHECK(clipped == s, detail);
  if (!isValidUTF8(s)) return;

  // Exactly the longest run of whole grapheme clusters that fits, measured
  // with utf8proc's decoder and a separate UTF-16 count.
  FUZZ_CHECK(utf16Length(s) == fuzz::utf16Units(s), detail);
  std::size_t expected = 0;
  for (const std::size_t end : fuzz::graphemeEnds(s)) {
    if (fuzz::utf16Units(s.substr(0, end)) > max) break;
    expected = end;
  }
  FUZZ_CHECK(clipped.size() == expected,
             detail + ", expected " + std::to_string(expected) + " bytes");
}

void checkNormalized(std::string_view s) {
  const std::string form = SelfChannel::normalizeForMatch(s);
  const std::string detail = escaped(s) + " gave " + escaped(form);
  FUZZ_CHECK(isValidUTF8(form), detail);
  // Replies are recorded in this form and compared in it again later, so a
  // second pass must change nothing.
  FUZZ_CHECK(SelfChannel::normalizeForMatch(form) == form,
             detail + ", then " + escaped(SelfChannel::normalizeForMatch(form)));
  FUZZ_CHECK(toNFC(form) == form, detail);
  FUZZ_CHECK(trimWhitespace(form) == form, detail);
  for (const std::string_view gone : {"\uFFFC", "\u2018", "\u2019", "\u201C", "\u201D"}) {
    FUZZ_CHECK(form.find(gone) == std::string::npos, detail);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return 0;
  const std::size_t max = static_cast<std::size_t>(data[0]) | (std::size_t{data[1]} << 8);
  const std::string_view s = fuzz::asText(data + 2, size - 2);
  checkClip(s, max);
  checkClip(s, max % 64);  // small limits cut inside most texts
  checkNormalized(s);
  return 0;
}
