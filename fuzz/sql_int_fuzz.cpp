// Integers stored as text in the Messages database (another program's
// writing) are read with SQLValue's own parser; checked here against the
// standard library's.
#include <charconv>
#include <cstdint>
#include <string>
#include <system_error>

#include "core/chatdb/sql_value.h"
#include "fuzz/fuzz_check.h"

using namespace corvane;
using fuzz::escaped;

namespace {

// An optional "+" or "-", then one or more ASCII digits, in range.
std::optional<std::int64_t> reference(std::string_view s) {
  if (s.starts_with('+')) {
    s.remove_prefix(1);
    if (s.starts_with('-')) return std::nullopt;
  }
  const std::string_view digits = s.starts_with('-') ? s.substr(1) : s;
  if (digits.empty() || digits.find_first_not_of("0123456789") != std::string_view::npos) {
    return std::nullopt;
  }
  std::int64_t value = 0;
  const auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), value);
  if (ec != std::errc() || end != s.data() + s.size()) return std::nullopt;
  return value;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text = fuzz::asText(data, size);
  const auto value = SQLValue::parseInt64(text);
  const auto expected = reference(text);
  FUZZ_CHECK(value == expected, escaped(text) + " gave " +
                                    (value ? std::to_string(*value) : "none") + ", expected " +
                                    (expected ? std::to_string(*expected) : "none"));
  FUZZ_CHECK(SQLValue(std::string(text)).int64() == value, escaped(text));
  if (value) FUZZ_CHECK(SQLValue::parseInt64(std::to_string(*value)) == value, escaped(text));
  return 0;
}
