// HandleIndex: a map keyed by canonical handle that also finds phone numbers
// by their last ten digits, so "+14155550100" and "4155550100" meet. The first
// value stored for a key wins; later ones never overwrite it.
//
// A value type: not synchronised, but a const index may be read from any
// number of threads.
#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "core/contacts/phone.h"

namespace corvane {

template <typename Value>
class HandleIndex {
 public:
  // Stores `value` under `key` exactly as given (callers pass normalised
  // handles) and, for a phone number with a last-ten key, under that key too;
  // each only if nothing is stored there yet.
  void set(std::string key, const Value& value) {
    std::optional<std::string> tail;
    if (!Phone::isEmail(key)) tail = Phone::last10(key);
    exact_.try_emplace(std::move(key), value);
    if (tail) byLast10_.try_emplace(std::move(*tail), value);
  }

  // The value stored under exactly `key`; otherwise, for a phone number, the
  // first value stored under its last ten digits; otherwise absent.
  std::optional<Value> get(std::string_view key) const {
    if (const auto it = exact_.find(key); it != exact_.end()) return it->second;
    if (Phone::isEmail(key)) return std::nullopt;
    const auto tail = Phone::last10(key);
    if (!tail) return std::nullopt;
    if (const auto it = byLast10_.find(*tail); it != byLast10_.end()) return it->second;
    return std::nullopt;
  }

  // The number of distinct keys stored exactly.
  std::size_t count() const { return exact_.size(); }

  bool operator==(const HandleIndex&) const = default;

 private:
  struct Hash {
    using is_transparent = void;
    std::size_t operator()(std::string_view s) const { return std::hash<std::string_view>{}(s); }
  };
  using Map = std::unordered_map<std::string, Value, Hash, std::equal_to<>>;

  Map exact_;
  Map byLast10_;
};

}  // namespace corvane
