#include "app/platform/user_directories.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "tests/platform/fake_env.h"

namespace corvane {
namespace {

namespace fs = std::filesystem;
using testing::fakeEnv;

TEST(UserDirectoriesTest, ConfigDirectoryFollowsXdgRules) {
  const struct {
    std::map<std::string, std::string> env;
    fs::path expected;
  } cases[] = {
      {{{"HOME", "/home/ada"}}, "/home/ada/.config/Corvane"},
      {{{"HOME", "/home/ada"}, {"XDG_CONFIG_HOME", "/etc/ada"}}, "/etc/ada/Corvane"},
      // Empty and relative values are ignored.
      {{{"HOME", "/home/ada"}, {"XDG_CONFIG_HOME", ""}}, "/home/ada/.config/Corvane"},
      {{{"HOME", "/home/ada"}, {"XDG_CONFIG_HOME", "cfg"}}, "/home/ada/.config/Corvane"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.expected);
    EXPECT_EQ(UserDirectories::configDirectory(fakeEnv(c.env)), c.expected);
  }
}

TEST(UserDirectoriesTest, HomeWithoutHomeVariableComesFromTheUserDatabase) {
  for (const auto& env :
       {std::map<std::string, std::string>{}, std::map<std::string, std::string>{{"HOME", ""}}}) {
    const fs::path home = UserDirectories::home(fakeEnv(env));
    EXPECT_TRUE(home.is_absolute()) << home;
    EXPECT_FALSE(home.empty());
  }
  EXPECT_EQ(UserDirectories::home(fakeEnv({{"HOME", "/home/ada"}})), fs::path("/home/ada"));
}

}  // namespace
}  // namespace corvane
