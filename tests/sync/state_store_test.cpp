#include "core/sync/state_store.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <system_error>
#include <thread>
#include <tuple>
#include <vector>

#include "tests/support/temp_dir.h"
#include "tests/support/text_file.h"

namespace corvane {
namespace {

namespace fs = std::filesystem;
using testing::readFile;
using testing::TempDir;
using testing::writeFile;

AgentState fullState() {
  AgentState s;
  s.cursor = 9'007'199'254'740'993;  // beyond a double's exact range
  s.selfCursor = 17;
  s.backfilled = {"+14155550100", "alex@example.org"};
  s.directorySent = {{"+14155550100", "3f1a"}, {"alex@example.org", "99bc"}};
  s.directoryFullAt = 1'700'000'000'000;
  s.assistantSent = {{"it's done", 1'700'000'000'001}};
  s.selfPosted = {{"buy milk \u00e9", -5}, {"", 0}};
  s.outboxDone = {{"o1", SendStatus::sent, std::nullopt, 1'700'000'000'002, true},
                  {"o2", SendStatus::failed, "interrupted before send completed", 3, false}};
  s.lastSyncAt = "2023-11-14T22:13:20.123Z";
  s.lastError = "Server said \"no\"";
  s.rosterCount = 4;
  return s;
}

mode_t modeOf(const fs::path& path) {
  struct stat st {};
  EXPECT_EQ(::stat(path.c_str(), &st), 0) << path;
  return st.st_mode & 07777;
}

std::set<std::string> entriesOf(const fs::path& dir) {
  std::set<std::string> names;
  for (const auto& e : fs::directory_iterator(dir)) names.insert(e.path().filename().string());
  return names;
}

class FileStateStoreTest : public ::testing::Test {
 protected:
  TempDir tmp;
  FileStateStore store{tmp.path()};
};

TEST_F(FileStateStoreTest, SaveThenLoadGivesTheSameState) {
  const AgentState state = fullState();
  store.save(state);
  EXPECT_EQ(FileStateStore(tmp.path()).load(), state);
  EXPECT_EQ(store.path(), fs::path(tmp.path()) / "state.json");
}

// The store keeps what it read or wrote last, but another writer's file,
// renamed into place at the very same size, is what the next load gives.
TEST_F(FileStateStoreTest, AFileReplacedByAnotherWriterIsReadAgain) {
  store.save(AgentState{.cursor = 1111});
  EXPECT_EQ(store.load().cursor, 1111);
  std::string text = readFile(store.path());
  text.replace(text.find("1111"), 4, "2222");
  const fs::path other = fs::path(tmp.path()) / "other.json";
  writeFile(other, text);
  fs::rename(other, store.path());
  EXPECT_EQ(store.load().cursor, 2222);
  EXPECT_EQ(store.load().cursor, 2222);

  // Saving what the store last wrote writes it again over another's file.
  store.save(AgentState{.cursor = 1111});
  writeFile(other, text);
  fs::rename(other, store.path());
  store.save(AgentState{.cursor = 1111});
  EXPECT_EQ(FileStateStore(tmp.path()).load().cursor, 1111);
}

TEST_F(FileStateStoreTest, FileLeavesOutAbsentOptionalsButAlwaysHasCollections) {
  store.save(AgentState{.outboxDone = {{"o1", SendStatus::sent, std::nullopt, 5, false}}});

  const auto j = nlohmann::json::parse(readFile(store.path()));
  std::set<std::string> keys;
  for (const auto& [key, value] : j.items()) keys.insert(key);
  EXPECT_EQ(keys, (std::set<std::string>{"assistantSent", "backfilled", "directorySent",
                                         "outboxDone", "selfPosted"}));
  EXPECT_EQ(j["outboxDone"][0],
            nlohmann::json::parse(R"({"acked":false,"at":5,"id":"o1","status":"sent"})"));
}

TEST_F(FileStateStoreTest, UnusableFilesLoadAsTheDefaultState) {
  const std::string valid = R"({"cursor": 5, "backfilled": [], "directorySent": {},
      "assistantSent": [], "selfPosted": [], "outboxDone": []})";
  const std::pair<const char*, std::string> cases[] = {
      {"empty file", ""},
      {"not an object", "[1, 2]"},
      {"cursor beyond 64 bits", R"({"cursor": 9223372036854775808})"},
      {"collection of the wrong type", R"({"backfilled": "alex"})"},
      {"unknown send status",
       R"({"outboxDone": [{"id": "a", "status": "queued", "at": 1, "acked": false}]})"},
      {"outbox record without acked",
       R"({"outboxDone": [{"id": "a", "status": "sent", "at": 1}]})"},
      {"truncated valid file", valid.substr(0, valid.size() / 2)},
  };
  for (const auto& [what, text] : cases) {
    writeFile(store.path(), text);
    EXPECT_EQ(store.load(), AgentState{}) << what;
  }
  // No file, no directory, or a directory where the file should be.
  fs::remove(store.path());
  EXPECT_EQ(store.load(), AgentState{});
  EXPECT_EQ(FileStateStore(fs::path(tmp.path()) / "no" / "such").load(), AgentState{});
  fs::create_directory(store.path());
  EXPECT_EQ(store.load(), AgentState{});
}

TEST_F(FileStateStoreTest, ToleratesMissingCollectionsAndNullOptionals) {
  writeFile(store.path(),
            R"({"cursor": 12, "selfCursor": null, "lastError": null, "future": {"x": 1},
                "outboxDone": [{"id": "a", "status": "failed", "error": null, "at": 2,
                                "acked": true}]})");
  EXPECT_EQ(store.load(), (AgentState{.cursor = 12, .outboxDone = {{"a", SendStatus::failed,
                                                                     std::nullopt, 2, true}}}));
}

TEST_F(FileStateStoreTest, StateDirectoryAndFileArePrivate) {
  ::chmod(tmp.path().c_str(), 0755);
  const fs::path home = fs::path(tmp.path()) / "a" / "b" / "Corvane";
  // Even with a permissive umask the state stays the user's own.
  const mode_t previousUmask = ::umask(0);
  FileStateStore deep(home);
  deep.save(fullState());
  ::umask(previousUmask);

  EXPECT_EQ(modeOf(home), 0700u);
  EXPECT_EQ(modeOf(home.parent_path()), 0700u);
  EXPECT_EQ(modeOf(home.parent_path().parent_path()), 0700u);
  EXPECT_EQ(modeOf(deep.path()), 0600u);
  EXPECT_EQ(modeOf(tmp.path()), 0755u) << "an existing parent keeps its mode";

  // The directory that holds the state is private however it came to exist.
  ::chmod(home.c_str(), 0755);
  deep.save(fullState());
  EXPECT_EQ(modeOf(home), 0700u);
}

TEST_F(FileStateStoreTest, LeftoverTemporaryFileFromACrashIsHarmless) {
  const AgentState old{.cursor = 1};
  store.save(old);
  // A crash between writing the temporary file and the rename leaves it behind.
  const fs::path temp =
      fs::path(tmp.path()) / ("state.json." + std::to_string(::getpid()) + ".tmp");
  writeFile(temp, "{\"cursor\": 2, \"trunc");
  ::chmod(temp.c_str(), 0644);
  EXPECT_EQ(store.load(), old);

  store.save(fullState());
  EXPECT_EQ(modeOf(store.path()), 0600u);
  EXPECT_EQ(entriesOf(tmp.path()), std::set<std::string>{"state.json"});
}

TEST_F(FileStateStoreTest, FailedRenameThrowsAndRemovesTheTemporaryFile) {
  // rename can't replace a non-empty directory.
  fs::create_directories(store.path() / "occupied");
  try {
    store.save(fullState());
    FAIL() << "save should have thrown";
  } catch (const std::system_error& e) {
    EXPECT_NE(std::string(e.what()).find(store.path().string()), std::string::npos) << e.what();
    EXPECT_NE(e.code().value(), 0);
  }
  EXPECT_EQ(entriesOf(tmp.path()), std::set<std::string>{"state.json"});
  EXPECT_TRUE(fs::is_directory(store.path() / "occupied"));
}

TEST_F(FileStateStoreTest, UncreatableDirectoryThrows) {
  writeFile(store.path(), "x");
  FileStateStore blocked(store.path() / "Corvane");
  EXPECT_THROW(blocked.save(AgentState{}), std::system_error);
}

TEST_F(FileStateStoreTest, DefaultDirectoryFollowsThePlatformLayout) {
  using Layout = FileStateStore::DataLayout;
  const std::string mac = "/Users/alex/Library/Application Support/Corvane";
  const std::string xdg = "/home/alex/.local/share/Corvane";
  const std::tuple<Layout, std::map<std::string, std::string>, std::string> cases[] = {
      {Layout::macOS, {{"HOME", "/Users/alex"}}, mac},
      {Layout::macOS, {{"HOME", "/Users/alex"}, {"XDG_DATA_HOME", "/data"}}, mac},
      {Layout::xdg, {{"HOME", "/home/alex"}}, xdg},
      {Layout::xdg, {{"HOME", "/home/alex"}, {"XDG_DATA_HOME", "/data"}}, "/data/Corvane"},
      {Layout::xdg, {{"HOME", "/home/alex"}, {"XDG_DATA_HOME", "relative/data"}}, xdg},
  };
  for (const auto& [layout, env, expected] : cases) {
    const auto getenv = [&env = env](const char* name) -> const char* {
      const auto it = env.find(name);
      return it == env.end() ? nullptr : it->second.c_str();
    };
    EXPECT_EQ(FileStateStore::defaultDirectory(layout, getenv), fs::path(expected)) << expected;
  }
}

TEST(MemoryStateStoreTest, ReadersOnOtherThreadsSeeWholeStates) {
  // Two states that differ in every field: a torn read would mix them.
  const AgentState a = fullState();
  const AgentState b{.cursor = 1, .backfilled = std::vector<std::string>(100, "x"),
                     .lastError = std::string(1000, 'e')};
  MemoryStateStore store(a);

  std::vector<std::thread> threads;
  std::atomic<int> torn{0};
  for (int t = 0; t < 2; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 2000; ++i) store.save(i % 2 ? a : b);
    });
    threads.emplace_back([&] {
      for (int i = 0; i < 2000; ++i) {
        const AgentState seen = store.load();
        if (seen != a && seen != b) ++torn;
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(torn.load(), 0);
}

}  // namespace
}  // namespace corvane
