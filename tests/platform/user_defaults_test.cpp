#include "app/platform/user_defaults.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "app/platform/private_file.h"
#include "app/platform/token_store.h"
#include "tests/platform/fake_env.h"
#include "tests/support/temp_dir.h"

namespace corvane {
namespace {

namespace fs = std::filesystem;
using testing::TempDir;

class JsonFileUserDefaultsTest : public ::testing::Test {
 protected:
  TempDir temp_;
  fs::path path_ = fs::path(temp_.path()) / "Corvane" / "defaults.json";
  JsonFileUserDefaults defaults_{path_};

  void writeRaw(const std::string& text) {
    fs::create_directories(path_.parent_path());
    std::ofstream(path_, std::ios::binary) << text;
  }
};

// Nothing set without a file; values persist for the next instance; a set
// replaces, a remove forgets only that key.
TEST_F(JsonFileUserDefaultsTest, ValuesPersistReplaceAndGo) {
  EXPECT_EQ(defaults_.getString(DefaultsKey::server), std::nullopt);
  EXPECT_FALSE(defaults_.getBool(DefaultsKey::setupCompleted));
  EXPECT_FALSE(fs::exists(path_));

  ASSERT_TRUE(defaults_.setString(DefaultsKey::deviceId, "d1"));
  ASSERT_TRUE(defaults_.setString(DefaultsKey::deviceId, "d2"));
  ASSERT_TRUE(defaults_.setString(DefaultsKey::userName, "Zo\u00eb \U0001F600"));
  ASSERT_TRUE(defaults_.setBool(DefaultsKey::skippedMove, true));
  ASSERT_TRUE(defaults_.setBool(DefaultsKey::skippedContacts, false));
  JsonFileUserDefaults again(path_);
  EXPECT_EQ(again.getString(DefaultsKey::deviceId), "d2");
  EXPECT_EQ(again.getString(DefaultsKey::userName), "Zo\u00eb \U0001F600");
  EXPECT_TRUE(again.getBool(DefaultsKey::skippedMove));
  EXPECT_FALSE(again.getBool(DefaultsKey::skippedContacts));

  ASSERT_TRUE(again.remove(DefaultsKey::deviceId));
  ASSERT_TRUE(again.remove("never-set"));
  EXPECT_EQ(defaults_.getString(DefaultsKey::deviceId), std::nullopt);
  EXPECT_EQ(defaults_.getString(DefaultsKey::userName), "Zo\u00eb \U0001F600");
}

TEST_F(JsonFileUserDefaultsTest, ValueOfAnotherTypeReadsAsUnset) {
  writeRaw(R"({"server": 42, "setupCompleted": "yes", "skippedMove": 1, "chatDBPath": null})");
  EXPECT_EQ(defaults_.getString(DefaultsKey::server), std::nullopt);
  EXPECT_EQ(defaults_.getString(DefaultsKey::chatDBPath), std::nullopt);
  EXPECT_FALSE(defaults_.getBool(DefaultsKey::setupCompleted));
  EXPECT_FALSE(defaults_.getBool(DefaultsKey::skippedMove));
}

TEST_F(JsonFileUserDefaultsTest, UnreadableContentIsReplacedByTheNextChange) {
  for (const std::string bad : {"{not json", "[1,2]", "\"text\"", ""}) {
    SCOPED_TRACE(bad);
    writeRaw(bad);
    EXPECT_EQ(defaults_.getString(DefaultsKey::server), std::nullopt);
    ASSERT_TRUE(defaults_.setString(DefaultsKey::server, "https://example.org"));
    EXPECT_EQ(defaults_.getString(DefaultsKey::server), "https://example.org");
  }
}

TEST_F(JsonFileUserDefaultsTest, SeesChangesMadeByAnotherProcess) {
  ASSERT_TRUE(defaults_.setString(DefaultsKey::userName, "Ada"));
  writeRaw(R"({"userName": "Grace", "automation": "granted"})");
  EXPECT_EQ(defaults_.getString(DefaultsKey::userName), "Grace");
  ASSERT_TRUE(defaults_.setBool(DefaultsKey::setupCompleted, true));
  EXPECT_EQ(defaults_.getString(DefaultsKey::automation), "granted");
}

TEST_F(JsonFileUserDefaultsTest, FileIsPrivateAndHoldsAJsonObject) {
  const mode_t oldMask = ::umask(022);
  const bool saved = defaults_.setString(DefaultsKey::server, "https://example.org");
  ::umask(oldMask);
  ASSERT_TRUE(saved);
  EXPECT_EQ(fs::status(path_).permissions(), fs::perms::owner_read | fs::perms::owner_write);
  EXPECT_EQ(fs::status(path_.parent_path()).permissions(), fs::perms::owner_all);
  EXPECT_EQ(nlohmann::json::parse(*PrivateFile::read(path_)),
            (nlohmann::json{{"server", "https://example.org"}}));
}

TEST_F(JsonFileUserDefaultsTest, ConcurrentChangesFromOneProcessAreAllKept) {
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([this, t] {
      for (int i = 0; i < 10; ++i) {
        defaults_.setString("k" + std::to_string(t) + "-" + std::to_string(i), "v");
      }
    });
  }
  for (auto& thread : threads) thread.join();
  const auto object = nlohmann::json::parse(*PrivateFile::read(path_));
  EXPECT_EQ(object.size(), 40u);
}

TEST_F(JsonFileUserDefaultsTest, FailedWriteReportsFalseAndChangesNothing) {
  ASSERT_TRUE(defaults_.setString(DefaultsKey::server, "https://example.org"));
  // Its directory would have to be where a file already is.
  JsonFileUserDefaults blocked(fs::path(temp_.path()) / "Corvane" / "defaults.json" / "x");
  EXPECT_FALSE(blocked.setString(DefaultsKey::server, "https://other.example"));
  EXPECT_EQ(defaults_.getString(DefaultsKey::server), "https://example.org");
}

TEST(JsonFileUserDefaultsPath, SitsBesideTheToken) {
  for (const auto& env : {testing::fakeEnv({{"HOME", "/home/ada"}}),
                          testing::fakeEnv({{"HOME", "/home/ada"}, {"XDG_CONFIG_HOME", "/x"}})}) {
    const fs::path path = JsonFileUserDefaults::defaultPath(env);
    EXPECT_EQ(path.filename(), "defaults.json");
    EXPECT_EQ(path.parent_path(), FileTokenStore::defaultDirectory(env));
  }
}

}  // namespace
}  // namespace corvane
