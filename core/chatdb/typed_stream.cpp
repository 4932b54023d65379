#include "core/chatdb/typed_stream.h"

#include <algorithm>
#include <string_view>

#include "core/text/unicode.h"

namespace corvane::TypedStream {
namespace {

constexpr std::string_view kClassName = "NSString";
constexpr std::uint8_t kInlineString = 0x2B;  // '+'
constexpr std::uint8_t kLength16 = 0x81;
constexpr std::uint8_t kLength32 = 0x82;

std::size_t readLE(std::span<const std::uint8_t> data, std::size_t at, int bytes) {
  std::size_t v = 0;
  for (int k = bytes - 1; k >= 0; --k) v = (v << 8) | data[at + static_cast<std::size_t>(k)];
  return v;
}

void append(std::vector<std::uint8_t>& out, std::initializer_list<std::uint8_t> bytes) {
  out.insert(out.end(), bytes);
}

void append(std::vector<std::uint8_t>& out, std::string_view s) {
  out.insert(out.end(), s.begin(), s.end());
}

void appendLE(std::vector<std::uint8_t>& out, std::size_t v, int bytes) {
  for (int k = 0; k < bytes; ++k) out.push_back(static_cast<std::uint8_t>(v >> (8 * k)));
}

}  // namespace

std::optional<std::string> decodeAttributedBody(std::span<const std::uint8_t> data) {
  if (data.empty()) return std::nullopt;
  // string_view's find (memchr, then a compare) costs a fraction of
  // std::search's byte-by-byte scan; every text kept only in the body
  // comes through here.
  const std::string_view bytes(reinterpret_cast<const char*>(data.data()), data.size());
  const std::size_t name = bytes.find(kClassName);
  if (name == std::string_view::npos) return std::nullopt;
  const std::size_t p = name + kClassName.size();
  if (p == data.size()) return std::nullopt;

  const auto marker = std::find(data.begin() + static_cast<std::ptrdiff_t>(p), data.end(),
                                kInlineString);
  if (marker == data.end()) return std::nullopt;
  const std::size_t i = static_cast<std::size_t>(marker - data.begin());
  if (i + 1 >= data.size()) return std::nullopt;

  std::size_t length = 0, start = 0;
  switch (data[i + 1]) {
    case kLength16:
      if (data.size() < i + 4) return std::nullopt;
      length = readLE(data, i + 2, 2);
      start = i + 4;
      break;
    case kLength32:
      if (data.size() < i + 6) return std::nullopt;
      length = readLE(data, i + 2, 4);
      start = i + 6;
      break;
    default:
      length = data[i + 1];
      start = i + 2;
  }
  if (length == 0) return std::string();
  // A length running past the end is cut to the bytes that are there.
  const std::size_t end = std::min(start + length, data.size());
  if (end <= start) return std::nullopt;
  return repairUTF8(std::string_view(reinterpret_cast<const char*>(data.data()) + start,
                                     end - start));
}

std::vector<std::uint8_t> encodeAttributedBody(std::string_view text) {
  std::vector<std::uint8_t> out;
  out.reserve(text.size() + 96);
  append(out, {0x04, 0x0B});
  append(out, "streamtyped");
  append(out, {0x81, 0xE8, 0x03, 0x84, 0x01, 0x40, 0x84, 0x84, 0x84, 0x12});
  append(out, "NSAttributedString");
  append(out, {0x00, 0x84, 0x84, 0x08});
  append(out, "NSObject");
  append(out, {0x00, 0x85, 0x92, 0x84, 0x84, 0x84, 0x08});
  append(out, kClassName);
  append(out, {0x01, 0x94, 0x84, 0x01, kInlineString});
  const std::size_t n = text.size();
  if (n <= 127) {
    out.push_back(static_cast<std::uint8_t>(n));
  } else if (n < 65536) {
    out.push_back(kLength16);
    appendLE(out, n, 2);
  } else {
    out.push_back(kLength32);
    appendLE(out, n, 4);
  }
  append(out, text);
  append(out, {0x86, 0x84, 0x02, 0x69, 0x49, 0x01, 0x81, 0x00, 0x00, 0x92, 0x84, 0x84, 0x84});
  return out;
}

}  // namespace corvane::TypedStream
