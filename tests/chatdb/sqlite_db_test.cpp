#include "core/chatdb/sqlite_db.h"

#include <gtest/gtest.h>

#include <functional>
#include <limits>
#include <utility>

#include "tests/support/temp_dir.h"

namespace corvane {
namespace {

using testing::TempDir;

TEST(SQLValueTest, ConversionAccessors) {
  struct Case {
    SQLValue value;
    std::optional<std::int64_t> asInt;
    std::optional<std::string> asString;
    std::optional<std::string> asData;  // bytes as a string for comparison
    bool null;
  };
  const Case cases[] = {
      {SQLValue(42), 42, "42", std::nullopt, false},
      {SQLValue(3.0), std::nullopt, "3.0", std::nullopt, false},
      {SQLValue("+12"), 12, "+12", "+12", false},
      {SQLValue(""), std::nullopt, "", "", false},
      {SQLValue("12a"), std::nullopt, "12a", "12a", false},
      {SQLValue("9223372036854775808"), std::nullopt, "9223372036854775808", "9223372036854775808",
       false},
      {SQLValue("-9223372036854775808"), std::numeric_limits<std::int64_t>::min(),
       "-9223372036854775808", "-9223372036854775808", false},
      {SQLValue(Bytes{'h', 'i'}), std::nullopt, "hi", "hi", false},
      {SQLValue(Bytes{0xff, 0x00}), std::nullopt, std::nullopt, std::string("\xff\0", 2), false},
      {SQLValue(Bytes{}), std::nullopt, "", "", false},
      {SQLValue(), std::nullopt, std::nullopt, std::nullopt, true},
  };
  for (const auto& c : cases) {
    const auto label = c.asString.value_or("<none>");
    EXPECT_EQ(c.value.int64(), c.asInt) << label;
    EXPECT_EQ(c.value.string(), c.asString) << label;
    const auto data = c.value.data();
    EXPECT_EQ(data ? std::optional(std::string(data->begin(), data->end())) : std::nullopt, c.asData)
        << label;
    EXPECT_EQ(c.value.isNull(), c.null) << label;
  }
}

TEST(SQLiteErrorTest, DescriptionAndPermissionRules) {
  const std::tuple<int, const char*, bool> cases[] = {
      {3, "access permission denied", true},
      {23, "authorization denied", true},
      {1038, "disk I/O error", true},  // extended CANTOPEN
      {1, "Authorization denied", true},
      {1, "Operation not permitted", true},
      {10, "Unable to open database at /x", true},
      {5, "database is locked", false},
  };
  for (const auto& [code, message, permission] : cases) {
    const SQLiteError e(code, message);
    EXPECT_EQ(e.isPermission(), permission) << code << " " << message;
  }
}

// The error `call` throws; fails the test when it throws none.
SQLiteError errorOf(const std::function<void()>& call) {
  try {
    call();
  } catch (const SQLiteError& e) {
    return e;
  }
  ADD_FAILURE() << "no error";
  return SQLiteError(0, "");
}

class SQLiteDBTest : public ::testing::Test {
 protected:
  TempDir dir;
  std::string path = dir.file("t.db");
  SQLiteDB db{path, false, true};
};

TEST_F(SQLiteDBTest, RoundTripsEveryStorageClassThroughBoundParameters) {
  db.exec("CREATE TABLE t (a, b, c, d, e, f)");
  const std::vector<SQLValue> values = {SQLValue(std::numeric_limits<std::int64_t>::min()),
                                        SQLValue(2.5), SQLValue("x'); DROP TABLE t; --"),
                                        SQLValue(Bytes{0, 1, 2}), SQLValue(Bytes{}), SQLValue()};
  EXPECT_EQ(db.run("INSERT INTO t VALUES (?, ?, ?, ?, ?, ?)", values), 1);
  EXPECT_EQ(db.run("INSERT INTO t VALUES (?, ?, ?, ?, ?, ?)", values), 2);
  const auto rows = db.query("SELECT a, b, c, d, e, f FROM t WHERE c = ?", {values[2]});
  ASSERT_EQ(rows.size(), 2u);
  for (std::size_t i = 0; i < values.size(); ++i) EXPECT_EQ(rows[0].at(i), values[i]) << i;
  EXPECT_EQ(rows[1]["c"], values[2]);
}

// Rows are keyed by alias, the later duplicate winning; a zero-length blob is
// an empty blob, not null; invalid UTF-8 text is repaired on read.
TEST_F(SQLiteDBTest, ColumnValuesAsRead) {
  const auto rows = db.query(
      "SELECT 1 AS a, 2 AS a, zeroblob(0) AS z, "
      "CAST(X'61FF62' AS TEXT) AS t");
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0]["a"], SQLValue(2));
  EXPECT_EQ(rows[0]["z"], SQLValue(Bytes{}));
  EXPECT_EQ(rows[0]["t"], SQLValue("a\uFFFDb"));
  EXPECT_TRUE(rows[0]["missing"].isNull());
}

// forEach reads every row into the same values, reusing their buffers; a
// shorter or different value must never show what the previous row left.
TEST_F(SQLiteDBTest, ReusedRowShowsEachRowExactly) {
  db.exec("CREATE TABLE t (k INTEGER PRIMARY KEY, v)");
  const std::vector<SQLValue> values = {
      SQLValue("a rather long first text"), SQLValue("short"), SQLValue(""),
      SQLValue(Bytes{1, 2, 3, 4}), SQLValue(Bytes{9}), SQLValue(Bytes{}), SQLValue(),
      SQLValue("after null"), SQLValue(7), SQLValue(2.5), SQLValue("last")};
  for (const auto& v : values) db.run("INSERT INTO t (v) VALUES (?)", {v});
  std::vector<SQLValue> seen;
  db.forEach("SELECT v FROM t ORDER BY k", {},
             [&](const SQLRow& row) { seen.push_back(row.at(0)); });
  EXPECT_EQ(seen, values);
}

TEST_F(SQLiteDBTest, FailuresCarryTheirCodeAndMessage) {
  db.exec("CREATE TABLE t (a UNIQUE)");
  db.run("INSERT INTO t VALUES (1)");
  const std::tuple<std::function<void()>, int, std::string> cases[] = {
      {[&] { db.query("SELEC 1"); }, 1, "syntax error"},
      {[&] { db.query("SELECT ?", {1, 2}); }, 25, "column index out of range"},
      {[&] { db.run("INSERT INTO t VALUES (1)"); }, 19, "UNIQUE constraint failed"},
      {[&] { db.exec("NOT SQL"); }, 1, "syntax error"},
      {[&] { SQLiteDB(path, /*readOnly=*/true).run("INSERT INTO t VALUES (2)"); }, 8, "readonly"},
      {[&] { SQLiteDB(dir.file("absent.db"), /*readOnly=*/true); }, 14, "unable to open"},
  };
  for (const auto& [call, code, messagePart] : cases) {
    const SQLiteError e = errorOf(call);
    EXPECT_EQ(e.code() & 0xFF, code) << e.what();
    EXPECT_NE(e.message().find(messagePart), std::string::npos) << e.what();
  }
  EXPECT_TRUE(errorOf([&] { SQLiteDB(dir.file("absent.db"), true); }).isPermission());
  // Read-write without create does not make the file either.
  EXPECT_THROW(SQLiteDB(dir.file("absent.db"), false, false), SQLiteError);
  // The second row overflows abs() at step time, after one row was read.
  EXPECT_THROW(db.query("SELECT abs(x) FROM (SELECT 1 AS x UNION ALL SELECT -9223372036854775808)"),
               SQLiteError);
}

// Queries fail at prepare with "closed"; exec says what sqlite3_exec says.
TEST_F(SQLiteDBTest, CloseTwiceIsHarmlessAndLaterCallsFail) {
  db.close();
  db.close();
  EXPECT_FALSE(db.isOpen());
  EXPECT_EQ(errorOf([&] { db.query("SELECT 1"); }).message(), "closed");
  EXPECT_EQ(errorOf([&] { db.exec("SELECT 1"); }).message(), "exec failed");
}

}  // namespace
}  // namespace corvane
