#include "app/headless/command_line.h"

#include <gtest/gtest.h>

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

}  // namespace
}  // namespace corvane
