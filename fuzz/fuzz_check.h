// Shared by the fuzz targets: invariant checks and small, independent
// reference implementations to check the product code against.
//
// A broken invariant prints what failed and aborts; libFuzzer reports that as
// a crash and saves the input, and the replay program fails its test.
#pragma once

#include <utf8proc.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace corvane::fuzz {

// `s` with anything but printable ASCII written as \xNN, for failure messages.
inline std::string escaped(std::string_view s) {
  std::string out = "\"";
  for (const char c : s) {
    const auto b = static_cast<unsigned char>(c);
    if (b >= 0x20 && b < 0x7F && b != '"' && b != '\\') {
      out += c;
    } else {
      char hex[8];
      std::snprintf(hex, sizeof hex, "\\x%02X", b);
      out += hex;
    }
  }
  return out + "\"";
}

[[noreturn]] inline void fail(const char* condition, const char* file, int line,
                              const std::string& detail) {
  std::fprintf(stderr, "%s:%d: invariant broken: %s\n  %s\n", file, line, condition,
               detail.c_str());
  std::abort();
}

// `detail` is only evaluated when the check fails, so it may be costly.
#define FUZZ_CHECK(condition, detail)                                                  \
  do {                                                                                 \
    if (!(condition)) ::corvane::fuzz::fail(#condition, __FILE__, __LINE__, (detail)); \
  } while (0)

inline std::string_view asText(const std::uint8_t* data, std::size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

// Two inputs from one: the first byte is the length of the first part, which
// is cut short when the data runs out; the rest is the second part.
inline std::pair<std::string_view, std::string_view> splitInput(const std::uint8_t* data,
                                                                std::size_t size) {
  if (size == 0) return {};
  const std::string_view rest = asText(data + 1, size - 1);
  const std::size_t n = std::min<std::size_t>(data[0], rest.size());
  return {rest.substr(0, n), rest.substr(n)};
}

// Byte offsets of the code points of well-formed UTF-8 `s`, and their values,
// from utf8proc's decoder rather than ours.
struct CodePoints {
  std::vector<std::size_t> offsets;
  std::vector<std::int32_t> values;
  bool valid = true;
};

inline CodePoints codePoints(std::string_view s) {
  CodePoints out;
  std::size_t i = 0;
  while (i < s.size()) {
    utf8proc_int32_t cp = 0;
    const auto n = utf8proc_iterate(reinterpret_cast<const utf8proc_uint8_t*>(s.data() + i),
                                    static_cast<utf8proc_ssize_t>(s.size() - i), &cp);
    if (n <= 0) {
      out.valid = false;
      return out;
    }
    out.offsets.push_back(i);
    out.values.push_back(cp);
    i += static_cast<std::size_t>(n);
  }
  return out;
}

// Byte offsets at which an extended grapheme cluster ends in well-formed
// UTF-8 `s`, in order (the last is s.size() unless `s` is empty).
inline std::vector<std::size_t> graphemeEnds(std::string_view s) {
  const CodePoints cps = codePoints(s);
  std::vector<std::size_t> ends;
  utf8proc_int32_t state = 0;
  for (std::size_t k = 1; k < cps.values.size(); ++k) {
    if (utf8proc_grapheme_break_stateful(cps.values[k - 1], cps.values[k], &state)) {
      ends.push_back(cps.offsets[k]);
    }
  }
  if (!s.empty()) ends.push_back(s.size());
  return ends;
}

// UTF-16 code units of well-formed UTF-8 `s`: one per code point, two for
// those beyond the Basic Multilingual Plane (four-byte sequences).
inline std::size_t utf16Units(std::string_view s) {
  std::size_t units = 0;
  for (const char c : s) {
    const auto b = static_cast<unsigned char>(c);
    if ((b & 0xC0) != 0x80) ++units;
    if (b >= 0xF0) ++units;
  }
  return units;
}

}  // namespace corvane::fuzz
