// The desktop entry that routes "corvane://" links: the Exec line must give
// back the executable's path exactly as a launcher reads it (escapes of a
// string value first, then the quoting rules, then the field codes), and
// install() rewrites the file only when its text changes.
#include "app/ui/desktop_entry.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <regex>

#include "tests/support/temp_dir.h"
#include "tests/support/text_file.h"

namespace corvane {
namespace {

using ::testing::HasSubstr;
namespace fs = std::filesystem;

// A launcher's reading of an Exec value: the argument vector, with "%%" as
// "%" and the field code "%u" left in place.
std::vector<std::string> launcherArguments(const std::string& value) {
  std::string s;  // the string value's escapes undone
  for (std::size_t i = 0; i < value.size(); ++i) {
    const bool escaped = value[i] == '\\' && i + 1 < value.size();
    const char c = escaped ? value[++i] : value[i];
    s += !escaped ? c : c == 's' ? ' ' : c == 'n' ? '\n' : c == 't' ? '\t' : c;
  }
  // Launchers expand "%%" (and the field codes) before undoing the quoting.
  s = std::regex_replace(s, std::regex("%%"), "%");
  std::vector<std::string> args;
  std::string current;
  bool inArgument = false;
  for (std::size_t i = 0; i < s.size(); ++i) {
    if (s[i] == ' ') {
      if (inArgument) args.push_back(current);
      current.clear();
      inArgument = false;
      continue;
    }
    inArgument = true;
    if (s[i] != '"') {
      current += s[i];
      continue;
    }
    for (++i; i < s.size() && s[i] != '"'; ++i) current += s[i] == '\\' ? s[++i] : s[i];
  }
  if (inArgument) args.push_back(current);
  return args;
}

std::string execValue(const std::string& entry) {
  std::smatch m;
  return std::regex_search(entry, m, std::regex("\nExec=([^\n]*)")) ? m[1].str() : "";
}

TEST(DesktopEntryTest, TheExecLineGivesBackAnyPathAndTheLinkPlaceholder) {
  const char* paths[] = {"/home/a/it's/Corvane",         "/home/a/\"quoted\"/Corvane",
                         "/home/a/back\\slash/Corvane",  "/home/a/$HOME/`id`/Corvane",
                         "/opt/My Apps/100%/Corvane",    "/home/a/%u/Corvane",
                         "/home/\u00e4/\u65e5\u672c/Corvane"};
  for (const char* path : paths) {
    const auto entry = DesktopEntry::text(path);
    ASSERT_TRUE(entry) << path;
    EXPECT_EQ(launcherArguments(execValue(*entry)), (std::vector<std::string>{path, "%u"}))
        << execValue(*entry);
  }
}

TEST(DesktopEntryTest, DeclaresTheLinkSchemeAndRefusesPathsWithLineBreaks) {
  const auto entry = DesktopEntry::text("/usr/bin/Corvane");
  ASSERT_TRUE(entry);  // its MimeType line is read back by TwoProcessesTest
  EXPECT_TRUE(entry->starts_with("[Desktop Entry]\n"));
  EXPECT_THAT(*entry, HasSubstr("\nType=Application\n"));

  EXPECT_FALSE(DesktopEntry::text("/tmp/two\nlines/Corvane"));
  EXPECT_FALSE(DesktopEntry::text("/tmp/car\rriage/Corvane"));
}

TEST(DesktopEntryTest, ApplicationsFolderFollowsXdgDataHome) {
  const fs::path fallback = "/home/a/.local/share/applications";
  const std::pair<const char*, fs::path> cases[] = {
      {"/data", "/data/applications"}, {"relative/data", fallback}, {nullptr, fallback}};
  for (const auto& [dataHome, expected] : cases) {
    const auto getenv = [&](const char* name) -> const char* {
      const std::string_view n = name;
      return n == "HOME" ? "/home/a" : n == "XDG_DATA_HOME" ? dataHome : nullptr;
    };
    EXPECT_EQ(DesktopEntry::applicationsDirectory(getenv), expected);
  }
}

TEST(DesktopEntryTest, InstallWritesOnlyWhenTheTextChanges) {
  testing::TempDir temp;
  const fs::path folder = fs::path(temp.path()) / "share" / "applications";
  const fs::path file = folder / "corvane.desktop";

  auto result = DesktopEntry::install(folder, "first\n");
  EXPECT_TRUE(result.written);
  EXPECT_FALSE(result.error);
  EXPECT_EQ(testing::readFile(file), "first\n");

  // Marked, so that a rewrite would show.
  ::chmod(file.c_str(), 0600);
  result = DesktopEntry::install(folder, "first\n");
  EXPECT_FALSE(result.written);
  EXPECT_FALSE(result.error);
  EXPECT_EQ(fs::status(file).permissions() & fs::perms::all,
            fs::perms::owner_read | fs::perms::owner_write);

  result = DesktopEntry::install(folder, "second\n");
  EXPECT_TRUE(result.written);
  EXPECT_EQ(testing::readFile(file), "second\n");
  EXPECT_EQ(std::distance(fs::directory_iterator(folder), fs::directory_iterator()), 1)
      << "no temporary file left behind";
}

}  // namespace
}  // namespace corvane
