// One SQLite value, tagged by its storage class, and one result row.
// Plain values; safe to share between threads once built.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace corvane {

using Bytes = std::vector<std::uint8_t>;

class SQLValue {
 public:
  enum class Kind { integer, real, text, blob, null };  // SQLite's storage classes

  SQLValue() = default;  // null
  SQLValue(std::nullptr_t) {}
  SQLValue(std::int64_t v) : v_(v) {}
  SQLValue(int v) : v_(static_cast<std::int64_t>(v)) {}
  SQLValue(double v) : v_(v) {}
  SQLValue(std::string v) : v_(std::move(v)) {}
  SQLValue(const char* v) : v_(std::string(v)) {}
  SQLValue(std::string_view v) : v_(std::string(v)) {}
  SQLValue(Bytes v) : v_(std::move(v)) {}

  Kind kind() const { return static_cast<Kind>(v_.index()); }
  bool isNull() const { return kind() == Kind::null; }

  // Integer: itself; text parsed as a whole decimal Int64 with an optional sign;
  // everything else (and overflow) none.
  std::optional<std::int64_t> int64() const;
  // Integer in decimal, double in its shortest round-trip form ("3.0"), text as
  // is, blob when it is valid UTF-8; null none.
  std::optional<std::string> string() const;
  // The bytes of a text or blob, viewing this value (valid while it lives).
  std::optional<std::span<const std::uint8_t>> data() const;

  // Replace the value with a text or a blob, reusing this value's buffer when
  // it already holds one of that kind: a result row is read into the same
  // values over and over.
  void assignText(std::string_view v);
  void assignBlob(const std::uint8_t* bytes, std::size_t count);

  // The payload itself, without conversion; nullptr for other kinds.
  const std::string* textIf() const { return std::get_if<std::string>(&v_); }
  const double* realIf() const { return std::get_if<double>(&v_); }

  bool operator==(const SQLValue&) const = default;

  // Parses "+12" → 12, "-7" → -7; "", "+", "12a" and overflow → none.
  static std::optional<std::int64_t> parseInt64(std::string_view s);
  // Shortest text that reads back as the same double, always with a fraction
  // or exponent ("3.0", "0.1", "1e+100").
  static std::string renderDouble(double d);

 private:
  std::variant<std::int64_t, double, std::string, Bytes, std::monostate> v_{std::monostate{}};
};

// One column of a row viewed where SQLite holds it, read as SQLValue would
// hold it (text is valid UTF-8); the views last while the row does.
struct SQLCell {
  SQLValue::Kind kind = SQLValue::Kind::null;
  std::int64_t integer = 0;
  double real = 0;
  std::string_view text;
  std::span<const std::uint8_t> blob;

  // SQLValue::string(), without copying a text or blob; a number is
  // rendered into `scratch`.
  std::optional<std::string_view> string(std::string& scratch) const;
  // SQLValue::data().
  std::optional<std::span<const std::uint8_t>> data() const;
};

// A result row: values in column order with the statement's column names
// shared between all rows of one result.
class SQLRow {
 public:
  SQLRow() = default;
  SQLRow(std::shared_ptr<const std::vector<std::string>> names, std::vector<SQLValue> values)
      : names_(std::move(names)), values_(std::move(values)) {}

  // The value of the named column (the last one when a name repeats), or null
  // when there is no such column.
  const SQLValue& operator[](std::string_view name) const;
  // Index of the named column (the last one when a name repeats).
  std::optional<std::size_t> indexOf(std::string_view name) const;
  bool has(std::string_view name) const { return indexOf(name).has_value(); }

  const SQLValue& at(std::size_t i) const { return values_[i]; }
  std::size_t size() const { return values_.size(); }
  const std::vector<std::string>& names() const { return *names_; }

  std::vector<SQLValue>& mutableValues() { return values_; }

 private:
  std::shared_ptr<const std::vector<std::string>> names_ =
      std::make_shared<const std::vector<std::string>>();
  std::vector<SQLValue> values_;
};

}  // namespace corvane
