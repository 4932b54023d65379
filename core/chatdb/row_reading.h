// Small helpers shared by the ChatDB readers (internal to core/chatdb).
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "core/chatdb/sql_value.h"

namespace corvane::rows {

// "?,?,?" for `count` parameters.
inline std::string placeholders(std::size_t count) {
  std::string out;
  out.reserve(count * 2);
  for (std::size_t i = 0; i < count; ++i) out += i ? ",?" : "?";
  return out;
}

// The value when it is stored as an integer (text that looks like one is not).
inline std::optional<std::int64_t> integer(const SQLValue& v) {
  if (v.kind() != SQLValue::Kind::integer) return std::nullopt;
  return v.int64();
}

inline bool isNonZeroInteger(const SQLValue& v) { return integer(v).value_or(0) != 0; }

}  // namespace corvane::rows
