// The attributed-body blob comes from the Messages database, which another
// program writes: the decoder must take any bytes at all.
#include <cstdint>
#include <span>
#include <string>

#include "core/chatdb/typed_stream.h"
#include "core/text/unicode.h"
#include "fuzz/fuzz_check.h"

using namespace corvane;
using fuzz::escaped;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto text = TypedStream::decodeAttributedBody(std::span(data, size));
  if (text) {
    FUZZ_CHECK(isValidUTF8(*text), escaped(*text));
    // Repair turns each bad byte into at most three, and invents nothing else.
    FUZZ_CHECK(text->size() <= 3 * size, std::to_string(text->size()));
  }

  // The same bytes taken as a text survive an archive of their own, with
  // ill-formed UTF-8 repaired the way the decoder repairs it.
  const std::string_view raw = fuzz::asText(data, size);
  const auto decoded = TypedStream::decodeAttributedBody(TypedStream::encodeAttributedBody(raw));
  FUZZ_CHECK(decoded == repairUTF8(raw), decoded ? escaped(*decoded) : "absent");
  return 0;
}
