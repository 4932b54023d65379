#include "app/platform/xdg_autostart_login_item.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "app/platform/trash.h"
#include "tests/platform/fake_env.h"
#include "tests/support/temp_dir.h"
#include "tests/support/text_file.h"

namespace corvane {
namespace {

namespace fs = std::filesystem;
using testing::fakeEnv;
using testing::readFile;
using testing::TempDir;

// The autostart folder and the Trash: an absolute XDG variable or the
// default under HOME.
TEST(XdgAutostartLoginItemTest, DefaultFoldersFollowXdgRules) {
  const auto autostart = &XdgAutostartLoginItem::defaultDirectory;
  const auto trash = &FreedesktopTrash::defaultDirectory;
  const struct {
    fs::path (*folder)(const UserDirectories::GetEnv&);
    std::map<std::string, std::string> env;
    fs::path expected;
  } cases[] = {
      {autostart, {{"HOME", "/home/ada"}}, "/home/ada/.config/autostart"},
      {autostart, {{"HOME", "/home/ada"}, {"XDG_CONFIG_HOME", "/cfg"}}, "/cfg/autostart"},
      {autostart,
       {{"HOME", "/home/ada"}, {"XDG_CONFIG_HOME", "cfg"}},
       "/home/ada/.config/autostart"},
      {trash, {{"HOME", "/home/ada"}}, "/home/ada/.local/share/Trash"},
      {trash, {{"HOME", "/home/ada"}, {"XDG_DATA_HOME", "/data/ada"}}, "/data/ada/Trash"},
      {trash, {{"HOME", "/home/ada"}, {"XDG_DATA_HOME", "rel"}}, "/home/ada/.local/share/Trash"},
  };
  for (const auto& c : cases) EXPECT_EQ(c.folder(fakeEnv(c.env)), c.expected);
}

TEST(XdgAutostartLoginItemTest, OnAndOffRoundTrip) {
  TempDir tmp;
  const fs::path dir = fs::path(tmp.path()) / "config" / "autostart";
  XdgAutostartLoginItem item(dir, "/opt/corvane/bin/Corvane");
  EXPECT_FALSE(item.isEnabled());

  EXPECT_EQ(item.registerItem(), std::nullopt);
  EXPECT_TRUE(item.isEnabled());
  EXPECT_EQ(readFile(dir / "corvane.desktop"),
            "[Desktop Entry]\n"
            "Type=Application\n"
            "Name=Corvane\n"
            "Exec=\"/opt/corvane/bin/Corvane\"\n"
            "X-GNOME-Autostart-enabled=true\n");
  EXPECT_EQ(fs::directory_iterator(dir)->path(), dir / "corvane.desktop");  // no leftovers

  EXPECT_EQ(item.unregisterItem(), std::nullopt);
  EXPECT_FALSE(item.isEnabled());
  EXPECT_FALSE(fs::exists(dir / "corvane.desktop"));
  EXPECT_EQ(item.unregisterItem(), std::nullopt);  // already off
}

TEST(XdgAutostartLoginItemTest, ExecQuotesThePathByTheDesktopEntryRules) {
  const struct {
    const char* path;
    const char* exec;
  } cases[] = {
      {"/home/ada/My Apps/Corvane", "\"/home/ada/My Apps/Corvane\""},
      {"/x/100%/a$b`c\"d", "\"/x/100%%/a\\\\$b\\\\`c\\\\\"d\""},
      {"/x/back\\slash", "\"/x/back\\\\\\\\slash\""},
  };
  for (const auto& c : cases) {
    const std::string text = XdgAutostartLoginItem::entryText(c.path);
    EXPECT_NE(text.find(std::string("\nExec=") + c.exec + "\n"), std::string::npos)
        << c.path << "\n"
        << text;
  }
}

TEST(XdgAutostartLoginItemTest, AnEntryTheDesktopTurnedOffIsNotEnabled) {
  const struct {
    const char* text;
    bool enabled;
  } cases[] = {
      {"[Desktop Entry]\nType=Application\nExec=x\n", true},
      {"[Desktop Entry]\nExec=x\nHidden=true\n", false},
      {"[Desktop Entry]\nExec=x\nHidden = true\n", false},
      {"[Desktop Entry]\nExec=x\nHidden=false\n", true},
      {"[Desktop Entry]\nExec=x\nX-GNOME-Autostart-enabled=false\n", false},
      // Keys of other groups don't count.
      {"[Desktop Entry]\nExec=x\n[Desktop Action off]\nHidden=true\n", true},
  };
  TempDir tmp;
  XdgAutostartLoginItem item(tmp.path(), "/usr/bin/corvane");
  for (const auto& c : cases) {
    std::ofstream(item.entryPath()) << c.text;
    EXPECT_EQ(item.isEnabled(), c.enabled) << c.text;
  }
}

TEST(XdgAutostartLoginItemTest, FailuresAreSentencesAndLeaveNothingBehind) {
  TempDir tmp;
  const fs::path blocked = fs::path(tmp.path()) / "config";
  std::ofstream(blocked) << "a file where the folder should be";
  const struct {
    fs::path dir, executable;
    std::string errorStart;
  } cases[] = {
      {blocked / "autostart", "/usr/bin/corvane",
       "The folder \u201C" + (blocked / "autostart").string() + "\u201D couldn't be created: "},
      {fs::path(tmp.path()) / "autostart", "",
       "Corvane couldn't find its own program file to start at login."},
  };
  for (const auto& c : cases) {
    XdgAutostartLoginItem item(c.dir, c.executable);
    const auto error = item.registerItem();
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->rfind(c.errorStart, 0), 0u) << *error;
    EXPECT_EQ(error->back(), '.');
    EXPECT_FALSE(item.isEnabled());
  }
}

}  // namespace
}  // namespace corvane
