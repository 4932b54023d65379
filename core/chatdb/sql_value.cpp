#include "core/chatdb/sql_value.h"

#include <charconv>
#include <cmath>
#include <limits>

#include "core/text/unicode.h"

namespace corvane {

std::optional<std::int64_t> SQLValue::parseInt64(std::string_view s) {
  bool negative = false;
  if (!s.empty() && (s.front() == '+' || s.front() == '-')) {
    negative = s.front() == '-';
    s.remove_prefix(1);
  }
  if (s.empty()) return std::nullopt;
  // Accumulate negatively so that INT64_MIN parses without overflow.
  std::int64_t value = 0;
  constexpr auto kMin = std::numeric_limits<std::int64_t>::min();
  for (char c : s) {
    if (c < '0' || c > '9') return std::nullopt;
    const int digit = c - '0';
    if (value < (kMin + digit) / 10) return std::nullopt;
    value = value * 10 - digit;
  }
  if (negative) return value;
  if (value == kMin) return std::nullopt;
  return -value;
}

std::string SQLValue::renderDouble(double d) {
  if (std::isnan(d)) return "nan";
  if (std::isinf(d)) return d > 0 ? "inf" : "-inf";
  // Plain notation between 1e-4 and 1e16, exponents outside, and always a
  // fraction or an exponent so a double never reads like an integer.
  const double magnitude = std::fabs(d);
  const bool exponent = magnitude != 0 && (magnitude < 1e-4 || magnitude >= 1e16);
  char buf[400];
  auto [end, ec] = std::to_chars(buf, buf + sizeof buf, d,
                                 exponent ? std::chars_format::scientific
                                          : std::chars_format::fixed);
  std::string out(buf, end);
  if (!exponent && out.find('.') == std::string::npos) out += ".0";
  return out;
}

std::optional<std::int64_t> SQLValue::int64() const {
  switch (kind()) {
    case Kind::integer:
      return std::get<std::int64_t>(v_);
    case Kind::text:
      return parseInt64(std::get<std::string>(v_));
    default:
      return std::nullopt;
  }
}

void SQLValue::assignText(std::string_view v) {
  if (auto* s = std::get_if<std::string>(&v_)) {
    s->assign(v);
  } else {
    v_.emplace<std::string>(v);
  }
}

void SQLValue::assignBlob(const std::uint8_t* bytes, std::size_t count) {
  if (auto* b = std::get_if<Bytes>(&v_)) {
    b->assign(bytes, bytes + count);
  } else {
    v_.emplace<Bytes>(bytes, bytes + count);
  }
}

std::optional<std::string> SQLValue::string() const {
  switch (kind()) {
    case Kind::integer:
      return std::to_string(std::get<std::int64_t>(v_));
    case Kind::real:
      return renderDouble(std::get<double>(v_));
    case Kind::text:
      return std::get<std::string>(v_);
    case Kind::blob: {
      const auto& b = std::get<Bytes>(v_);
      std::string s(b.begin(), b.end());
      if (!isValidUTF8(s)) return std::nullopt;
      return s;
    }
    case Kind::null:
      break;
  }
  return std::nullopt;
}

std::optional<std::span<const std::uint8_t>> SQLValue::data() const {
  if (const auto* s = std::get_if<std::string>(&v_)) {
    return std::span<const std::uint8_t>(reinterpret_cast<const std::uint8_t*>(s->data()),
                                         s->size());
  }
  if (const auto* b = std::get_if<Bytes>(&v_)) return std::span<const std::uint8_t>(*b);
  return std::nullopt;
}

std::optional<std::string_view> SQLCell::string(std::string& scratch) const {
  switch (kind) {
    case SQLValue::Kind::integer:
      scratch = std::to_string(integer);
      return scratch;
    case SQLValue::Kind::real:
      scratch = SQLValue::renderDouble(real);
      return scratch;
    case SQLValue::Kind::text:
      return text;
    case SQLValue::Kind::blob: {
      const std::string_view s(reinterpret_cast<const char*>(blob.data()), blob.size());
      if (!isValidUTF8(s)) return std::nullopt;
      return s;
    }
    case SQLValue::Kind::null:
      break;
  }
  return std::nullopt;
}

std::optional<std::span<const std::uint8_t>> SQLCell::data() const {
  if (kind == SQLValue::Kind::text) {
    return std::span<const std::uint8_t>(reinterpret_cast<const std::uint8_t*>(text.data()),
                                         text.size());
  }
  if (kind == SQLValue::Kind::blob) return blob;
  return std::nullopt;
}

std::optional<std::size_t> SQLRow::indexOf(std::string_view name) const {
  const auto& names = *names_;
  for (std::size_t i = names.size(); i-- > 0;) {
    if (names[i] == name) return i;
  }
  return std::nullopt;
}

const SQLValue& SQLRow::operator[](std::string_view name) const {
  static const SQLValue kNull;
  const auto i = indexOf(name);
  return i && *i < values_.size() ? values_[*i] : kNull;
}

}  // namespace corvane
