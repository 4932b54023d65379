// The chatdb-gen command line: parsing, the run in-process, and the real
// executable once end to end.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <sstream>

#include "core/chatdb/chat_db.h"
#include "tests/e2e/child_process.h"
#include "tests/support/temp_dir.h"
#include "tools/chatdb-gen/cli.h"

namespace corvane::chatdbgen {
namespace {

using testing::TempDir;
using testing::linesOf;

struct Outcome {
  int status;
  std::string out, err;
};

Outcome run(const std::vector<std::string>& args) {
  std::ostringstream out, err;
  const int status = runCommandLine(args, out, err);
  return {status, out.str(), err.str()};
}

// A database small enough to write in a blink, then `more`.
std::vector<std::string> small(std::vector<std::string> more) {
  more.insert(more.begin(), {"--messages", "300", "--chats", "15", "--groups", "3"});
  return more;
}

TEST(ParseWhenTest, UnixMillisecondsAndUtcDates) {
  const std::vector<std::pair<std::string, std::optional<std::int64_t>>> cases = {
      {"1735689600000", 1735689600000},
      {"2025-01-01", 1735689600000},
      {"2025-01-01T08:30:15Z", 1735689600000 + (8 * 60 + 30) * 60000 + 15000},
      {"2025-13-01", std::nullopt},
      {"2025-01-01T08:30", std::nullopt},
  };
  for (const auto& [text, expected] : cases) EXPECT_EQ(parseWhen(text), expected) << text;
}

TEST(ParseCommandLineTest, RefusesWhatItCantRun) {
  const std::vector<std::vector<std::string>> cases = {
      {"--chats", "12x", "a.db"},
      {"--self-notes", "20", "--messages", "10", "a.db"},
  };
  for (const auto& args : cases) {
    std::string joined;
    for (const auto& a : args) joined += a + " ";
    EXPECT_THROW(parseCommandLine(args), UsageError) << joined;
    EXPECT_EQ(run(args).status, 64) << joined;
  }
}

TEST(RunCommandLineTest, NeverOverwritesWithoutForce) {
  TempDir dir;
  const std::string path = dir.file("chat.db");
  { std::ofstream(path) << "precious"; }
  const Outcome refused = run(small({path}));
  EXPECT_EQ(refused.status, 1);
  EXPECT_NE(refused.err.find("--force"), std::string::npos) << refused.err;
  std::ifstream in(path);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), "precious");

  const Outcome forced = run(small({"--force", path}));
  EXPECT_EQ(forced.status, 0) << forced.err;
  ChatDB db(path, "US");
  EXPECT_EQ(db.maxRowId(), 300);
  EXPECT_FALSE(std::filesystem::exists(path + ".partial"));
}

TEST(RunCommandLineTest, RosterLinesAndRosterOnlyJsonAgree) {
  TempDir dir;
  const std::string path = dir.file("chat.db");
  const Outcome generated = run(small({"--print-roster", "4", path}));
  ASSERT_EQ(generated.status, 0) << generated.err;
  const auto roster = linesOf(generated.out);
  EXPECT_EQ(roster.size(), 4u);

  const Outcome json = run({"--roster-only", "--json", "--print-roster", "4", path});
  ASSERT_EQ(json.status, 0) << json.err;
  const auto j = nlohmann::json::parse(json.out);
  EXPECT_EQ(j["roster"].get<std::vector<std::string>>(), roster);
  EXPECT_EQ(j["messages"], 300);
  EXPECT_EQ(j["oneToOneChats"], 16);

  EXPECT_EQ(run({"--roster-only", "--print-roster", "4", dir.file("missing.db")}).status, 1);
}

// The built executable, as make demo and the benchmarks call it.
TEST(ChatDbGenExecutableTest, HelpWriteAndRefuse) {
  const char* bin = std::getenv("CORVANE_TEST_BIN_DIR");
  if (bin == nullptr) GTEST_SKIP() << "run through ctest";
  TempDir dir;
  const auto exec = [&](std::vector<std::string> args) {
    corvane::testing::ChildProcess child(std::string(bin) + "/chatdb-gen", std::move(args), {});
    const auto status = child.wait();
    return Outcome{status && status->exited ? status->code : -1, child.out(), child.err()};
  };

  const std::string path = dir.file("chat.db");
  const Outcome written =
      exec({"--messages", "200", "--chats", "10", "--groups", "2", "--print-roster", "3", path});
  EXPECT_EQ(written.status, 0) << written.err;
  EXPECT_EQ(linesOf(written.out).size(), 3u);
  EXPECT_EQ(ChatDB::checkAccess(path).maxRowId, 200);

  EXPECT_EQ(exec({"--no-such-option", path}).status, 64);
}

}  // namespace
}  // namespace corvane::chatdbgen
