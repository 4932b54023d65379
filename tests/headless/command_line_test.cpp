#include "app/headless/command_line.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "tests/e2e/child_process.h"

namespace corvane {
namespace {

TEST(CommandLineTest, FlagsAndOptionValues) {
  const CommandLine args({"--headless", "--server", "https://a.test", "--once", "--server",
                          "https://b.test", "--home", "--token"});
  struct Case {
    const char* name;
    bool flag;
    std::optional<std::string> value;
  };
  const Case cases[] = {
      {"--headless", true, "--server"},      // a value is never checked for looking like an option
      {"--server", true, "https://a.test"},  // the first occurrence decides
      {"--once", true, "--server"},
      {"--home", true, "--token"},
      {"--token", true, std::nullopt},       // standing last: not given
      {"--dry-run", false, std::nullopt},
      {"--serve", false, std::nullopt},      // whole arguments only
  };
  for (const auto& c : cases) {
    EXPECT_EQ(args.flag(c.name), c.flag) << c.name;
    EXPECT_EQ(args.value(c.name), c.value) << c.name;
  }
}

TEST(CommandLineTest, EntryIsChosenBeforeAnyModeStarts) {
  using E = Entry;
  const struct {
    std::vector<std::string> args;
    EntryChoice choice;
  } cases[] = {
      {{}, {E::application}},
      {{"corvane://connect?code=AB12"}, {E::application}},
      {{"--snapshot-setup", "out", "--qa-expect-link"}, {E::application}},
      {{"-platform", "offscreen", "-psn_0_1234"}, {E::application}},  // Qt's and the system's
      {{"--help"}, {E::help}},
      {{"-h", "--bogus"}, {E::help}},
      {{"--version", "--headless", "--help"}, {E::headless}},  // the headless --help wins there
      {{"--headless", "--version"}, {E::version}},
      {{"--version"}, {E::version}},
      {{"--render-icon", "x.png", "--help"}, {E::renderIcon}},
      {{"--render-icon"}, {E::application}},  // standing last: not given
      {{"--bogus"}, {E::usageError, "--bogus"}},
      {{"--headless", "--once", "--onse"}, {E::usageError, "--onse"}},
      {{"--headless", "--token", "--bogus", "--server", "--x"}, {E::headless}},  // values
      {{"--home", "a", "--home", "--bogus"}, {E::usageError, "--bogus"}},  // only the first takes one
      {{"--headless", "--once", "--"}, {E::usageError, "--"}},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(chooseEntry(CommandLine(c.args)), c.choice) << ::testing::PrintToString(c.args);
  }
}

TEST(CommandLineTest, FullUsageHasALineForEveryOptionAndThePlatformsPlaces) {
  const std::string xdg = fullUsageText(UsagePlaces::xdg());
  const std::string mac = fullUsageText(UsagePlaces::macOS());
  for (const char* option :
       {"--headless", "--once", "--chat-db", "--home", "--server", "--token", "--fake-send",
        "--dry-run", "--contacts", "--region", "--pair", "--status", "--render-icon", "--size",
        "--snapshot-setup", "--qa-expect-link", "--help", "--version", "corvane://"}) {
    EXPECT_THAT(xdg, ::testing::ContainsRegex("\n *(-h, )?" + std::string(option)))
        << option << " has no line of its own";
  }
  for (const std::string& line : testing::linesOf(xdg + "\n" + mac)) {
    EXPECT_LE(line.size(), 100u) << line;
  }
  EXPECT_THAT(mac, ::testing::HasSubstr("(default ~/Library/Application Support/Corvane)"));
  EXPECT_THAT(mac, ::testing::HasSubstr("in the Keychain)"));
  EXPECT_THAT(xdg, ::testing::HasSubstr("(default ~/.local/share/Corvane, or $XDG_DATA_HOME/"));
  EXPECT_THAT(xdg, ::testing::Not(::testing::HasSubstr("Application Support")));
  EXPECT_THAT(xdg, ::testing::Not(::testing::HasSubstr("Keychain")));
}

// The README's "Command line" section is what `Corvane --help` prints on
// Linux, so the two can't drift apart.
TEST(CommandLineTest, ReadmeShowsTheHelpText) {
  const auto readme =
      std::filesystem::path(__FILE__).parent_path().parent_path().parent_path() / "README.md";
  std::ifstream in(readme);
  ASSERT_TRUE(in) << readme;
  std::stringstream text;
  text << in.rdbuf();
  const std::string block = "```\n$ build/Corvane --help\n" + fullUsageText(UsagePlaces::xdg()) +
                            "\n```\n";
  EXPECT_THAT(text.str(), ::testing::HasSubstr(block))
      << "README.md's Command line section should read:\n" << block;
}

}  // namespace
}  // namespace corvane
