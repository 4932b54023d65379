// Handles come from the Messages database, the address book and the server;
// locale identifiers from the environment. The first byte of an input is the
// length of the region to normalise in, the rest the raw handle.
#include <cstdint>
#include <string>

#include "core/contacts/phone.h"
#include "core/text/letters.h"
#include "core/text/unicode.h"
#include "fuzz/fuzz_check.h"

using namespace corvane;
using fuzz::escaped;

namespace {

// No environment and no locale, so an empty region means "US" on every machine.
const Phone::RegionSources kNoSources{[](std::string_view) { return std::optional<std::string>(); },
                                      [] { return std::optional<std::string>(); }};

// The last `n` code points of `s` (all of them when there are fewer).
std::string_view lastCodePoints(std::string_view s, std::size_t n) {
  std::size_t start = s.size();
  while (start > 0 && n > 0) {
    --start;
    if ((static_cast<unsigned char>(s[start]) & 0xC0) != 0x80) --n;
  }
  return s.substr(start);
}

void checkNormalized(std::string_view raw, std::string_view region) {
  const auto handle = Phone::normalize(raw, region, kNoSources);
  if (!handle) return;
  const std::string& h = *handle;
  const std::string detail = escaped(raw) + " in " + escaped(region) + " gave " + escaped(h);
  FUZZ_CHECK(!h.empty(), detail);
  if (isValidUTF8(raw)) FUZZ_CHECK(isValidUTF8(h), detail);
  if (Phone::isEmail(h)) {
    FUZZ_CHECK(trimWhitespace(h) == h && lowercased(h) == h, detail);
    return;
  }
  // A phone number: "+" and digits or bare digits, nothing else, and the
  // number's own last digits (all of them, up to six) are kept as written.
  const std::string_view number = h.starts_with('+') ? std::string_view(h).substr(1) : h;
  FUZZ_CHECK(Phone::digits(number) == number, detail);
  const std::string rawDigits = Phone::digits(raw);
  FUZZ_CHECK(number.ends_with(lastCodePoints(rawDigits, 6)), detail);
}

void checkRegion(std::string_view identifier) {
  const auto region = Phone::regionFromLocale(identifier);
  if (!region) return;
  const std::string detail = escaped(identifier) + " gave " + escaped(*region);
  if (isValidUTF8(identifier)) FUZZ_CHECK(isValidUTF8(*region), detail);
  FUZZ_CHECK(uppercased(*region) == *region, detail);
  bool ascii = true;
  for (const char c : *region) ascii = ascii && static_cast<unsigned char>(c) < 0x80;
  if (ascii) {
    const auto upper = [](char c) { return c >= 'A' && c <= 'Z'; };
    // Not necessarily spelled so in the identifier: "@rg=cſ" gives "CS".
    FUZZ_CHECK(region->size() == 2 && upper((*region)[0]) && upper((*region)[1]), detail);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto [region, raw] = fuzz::splitInput(data, size);
  checkNormalized(raw, region);
  checkRegion(fuzz::asText(data, size));
  checkRegion(raw);
  return 0;
}
