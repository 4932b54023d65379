#include "app/platform/trash.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <regex>

#include "tests/support/temp_dir.h"
#include "tests/support/text_file.h"

namespace corvane {
namespace {

namespace fs = std::filesystem;
using testing::TempDir;
using testing::readFile;
using testing::writeFile;

// 2024-06-15 12:00:00 UTC: the 15th in every time zone.
constexpr std::time_t kMidJune = 1718452800;

TEST(TrashTest, PathIsPercentEncodedByteByByte) {
  const struct {
    std::string path, encoded;
  } cases[] = {
      {"/home/ada/Corvane.app", "/home/ada/Corvane.app"},
      {"/home/ada/My Apps/a%b", "/home/ada/My%20Apps/a%25b"},
      {"/tmp/caf\u00E9", "/tmp/caf%C3%A9"},
      {"/x/[1]#?&=+", "/x/%5B1%5D%23%3F%26%3D%2B"},
      {"/x/-_.~", "/x/-_.~"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(FreedesktopTrash::encodePath(c.path), c.encoded) << c.path;
  }
}

TEST(TrashTest, ItemGoesToFilesWithItsInfoRecord) {
  TempDir tmp;
  const fs::path bundle = fs::path(tmp.path()) / "old apps" / "Corvane.app";
  writeFile(bundle / "Contents" / "Info.plist", "plist");
  fs::create_symlink("Info.plist", bundle / "Contents" / "link");
  FreedesktopTrash trash(fs::path(tmp.path()) / "data" / "Trash", [] { return kMidJune; });

  ASSERT_TRUE(trash.moveToTrash(bundle));

  EXPECT_FALSE(fs::exists(bundle));
  const fs::path kept = trash.directory() / "files" / "Corvane.app";
  EXPECT_EQ(readFile(kept / "Contents" / "Info.plist"), "plist");
  EXPECT_TRUE(fs::is_symlink(kept / "Contents" / "link"));
  const std::string info = readFile(trash.directory() / "info" / "Corvane.app.trashinfo");
  const std::regex form(
      "\\[Trash Info\\]\nPath=(.*)\nDeletionDate=2024-06-15T\\d\\d:\\d\\d:\\d\\d\n");
  std::smatch m;
  ASSERT_TRUE(std::regex_match(info, m, form)) << info;
  EXPECT_EQ(m[1].str(), FreedesktopTrash::encodePath(bundle.string()));
  EXPECT_EQ(fs::status(trash.directory()).permissions() & fs::perms::all, fs::perms::owner_all);
}

TEST(TrashTest, TakenNamesGetANumberAndEachInfoItsOwnPath) {
  TempDir tmp;
  const fs::path root(tmp.path());
  FreedesktopTrash trash(root / "Trash", [] { return kMidJune; });
  // An item left without its info file still holds its name.
  writeFile(root / "Trash" / "files" / "Corvane.2.app", "orphan");
  for (const char* from : {"a", "b", "c"}) {
    writeFile(root / from / "Corvane.app", from);
    ASSERT_TRUE(trash.moveToTrash(root / from / "Corvane.app")) << from;
  }
  const struct {
    const char* name;
    const char* content;
  } expected[] = {{"Corvane.app", "a"}, {"Corvane.3.app", "b"}, {"Corvane.4.app", "c"}};
  for (const auto& e : expected) {
    SCOPED_TRACE(e.name);
    EXPECT_EQ(readFile(root / "Trash" / "files" / e.name), e.content);
    const std::string info = readFile(root / "Trash" / "info" / (std::string(e.name) + ".trashinfo"));
    EXPECT_NE(info.find("Path=" + (root / e.content / "Corvane.app").string() + "\n"),
              std::string::npos)
        << info;
  }
  EXPECT_EQ(readFile(root / "Trash" / "files" / "Corvane.2.app"), "orphan");
  EXPECT_FALSE(fs::exists(root / "Trash" / "info" / "Corvane.2.app.trashinfo"));
}

TEST(TrashTest, WhatCantGoInStaysAndLeavesNoInfo) {
  TempDir tmp;
  const fs::path root(tmp.path());
  {
    FreedesktopTrash trash(root / "Trash");
    EXPECT_FALSE(trash.moveToTrash(root / "missing.app"));
    EXPECT_FALSE(fs::exists(root / "Trash" / "info" / "missing.app.trashinfo"));
  }
  {
    // The Trash's place is taken by a file: nothing can go in.
    writeFile(root / "blocked", "file");
    writeFile(root / "x" / "Corvane.app", "x");
    FreedesktopTrash trash(root / "blocked");
    EXPECT_FALSE(trash.moveToTrash(root / "x" / "Corvane.app"));
    EXPECT_TRUE(fs::exists(root / "x" / "Corvane.app"));
  }
}

}  // namespace
}  // namespace corvane
