#include "app/platform/bundle_relocator.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <set>

#include "tests/support/temp_dir.h"
#include "tests/support/text_file.h"

namespace corvane {
namespace {

namespace fs = std::filesystem;
using testing::TempDir;
using testing::readFile;
using testing::writeFile;

// A bundle with an executable, a resource and a framework symlink, marked so
// that copies can be told apart.
void makeBundle(const fs::path& at, const std::string& mark) {
  writeFile(at / "Contents" / "MacOS" / "Corvane", "#!/bin/sh\n");
  fs::permissions(at / "Contents" / "MacOS" / "Corvane", fs::perms::owner_exec,
                  fs::perm_options::add);
  writeFile(at / "Contents" / "Resources" / "mark", mark);
  writeFile(at / "Contents" / "Frameworks" / "Kit.framework" / "Versions" / "A" / "Kit", "kit");
  fs::create_directory_symlink("A", at / "Contents" / "Frameworks" / "Kit.framework" / "Versions" /
                                        "Current");
}

std::string markOf(const fs::path& bundle) { return readFile(bundle / "Contents" / "Resources" / "mark"); }

// The real freedesktop Trash, with paths that refuse to go in on cue.
class SwitchTrash final : public Trash {
 public:
  explicit SwitchTrash(fs::path dir) : real_(std::move(dir)) {}
  bool moveToTrash(const fs::path& path) override {
    asked.push_back(path);
    return !refused.count(path) && real_.moveToTrash(path);
  }
  fs::path files() const { return real_.directory() / "files"; }

  std::set<fs::path> refused;
  std::vector<fs::path> asked;

 private:
  FreedesktopTrash real_;
};

struct Call {
  std::string executable;
  std::vector<std::string> args;
  bool operator==(const Call&) const = default;
};

class BundleRelocatorTest : public ::testing::Test {
 protected:
  std::unique_ptr<BundleRelocator> relocator(std::optional<fs::path> bundle) {
    return std::make_unique<BundleRelocator>(BundleRelocator::Services{
        .bundlePath = std::move(bundle),
        .home = home,
        .trash = trash,
        .terminate = [this] { ++terminated; },
        .systemApplications = apps,
        .runAndWait =
            [this](const std::string& exe, const std::vector<std::string>& args) {
              ran.push_back({exe, args});
              return xattrStarts ? std::optional<std::int64_t>(0) : std::nullopt;
            },
        .startDetached =
            [this](const std::string& exe, const std::vector<std::string>& args) {
              started.push_back({exe, args});
              return shellStarts ? std::optional<std::int64_t>(777) : std::nullopt;
            },
        .processId = 4242,
        .volumeIsReadOnly = [this](const fs::path&) { return readOnly; },
        .isWritableFolder = [this](const fs::path& p) { return !unwritable.count(p); },
    });
  }

  Call relaunchOf(const fs::path& bundle) const {
    return {"/bin/sh", {"-c", BundleRelocator::relaunchScript(4242), bundle.string()}};
  }

  TempDir tmp;
  const fs::path root{tmp.path()};
  const fs::path apps = root / "Applications";
  const fs::path home = root / "home";
  const fs::path downloads = root / "home" / "Downloads";
  const std::shared_ptr<SwitchTrash> trash = std::make_shared<SwitchTrash>(root / "Trash");
  std::vector<Call> ran, started;
  int terminated = 0;
  bool xattrStarts = true;
  bool shellStarts = true;
  std::optional<bool> readOnly = false;
  std::set<fs::path> unwritable;
};

TEST_F(BundleRelocatorTest, InApplicationsMeansUnderEitherFolderWithSymlinksResolved) {
  fs::create_directories(apps);
  fs::create_directories(home / "Applications");
  makeBundle(apps / "Utilities" / "Corvane.app", "");
  makeBundle(downloads / "Corvane.app", "");
  fs::create_directory_symlink(apps / "Utilities" / "Corvane.app", downloads / "Alias.app");
  fs::create_directory_symlink(downloads / "Corvane.app", apps / "Alias.app");
  const struct {
    std::optional<fs::path> bundle;
    bool inApplications;
  } cases[] = {
      {apps / "Corvane.app", true},
      {apps / "Utilities" / "Corvane.app", true},
      {home / "Applications" / "Corvane.app", true},
      {root / "Applications-old" / "Corvane.app", false},
      {apps, false},
      {downloads / "Corvane.app", false},
      {downloads / "Alias.app", true},  // a link into Applications
      {apps / "Alias.app", false},      // a link out of it
      {std::nullopt, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.bundle ? c.bundle->string() : "no bundle");
    EXPECT_EQ(relocator(c.bundle)->isInApplications(), c.inApplications);
  }
}

// Once the copy is whole, a quarantine flag that stays or an old copy the
// Trash refuses is no error; without the relaunch shell the application
// keeps running. An unwritable system folder means the home's, made on
// demand.
TEST_F(BundleRelocatorTest, MoveCopiesIntoApplicationsTrashesTheOldCopyAndRelaunches) {
  const fs::path source = downloads / "Corvane.app";
  const struct {
    const char* name;
    bool xattrStarts, trashTakesIt, shellStarts, systemWritable;
  } cases[] = {
      {"all goes well", true, true, true, true},
      {"quarantine and clean-up fail", false, false, true, true},
      {"no relaunch shell", true, true, false, true},
      {"system folder not writable", true, true, true, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    for (const auto& dir : {apps, home, root / "Trash"}) fs::remove_all(dir);
    fs::create_directories(apps);
    makeBundle(source, "new");
    xattrStarts = c.xattrStarts;
    shellStarts = c.shellStarts;
    trash->refused.clear();
    if (!c.trashTakesIt) trash->refused.insert(source);
    unwritable.clear();
    if (!c.systemWritable) unwritable.insert(apps);
    ran.clear();
    started.clear();
    terminated = 0;
    const fs::path dest = (c.systemWritable ? apps : home / "Applications") / "Corvane.app";

    EXPECT_EQ(relocator(source)->moveToApplications(), std::nullopt);

    EXPECT_EQ(fs::exists(apps / "Corvane.app"), c.systemWritable);
    EXPECT_EQ(markOf(dest), "new");
    EXPECT_EQ(fs::read_symlink(dest / "Contents/Frameworks/Kit.framework/Versions/Current"), "A");
    EXPECT_NE(fs::status(dest / "Contents/MacOS/Corvane").permissions() & fs::perms::owner_exec,
              fs::perms::none);
    EXPECT_EQ(
        ran,
        (std::vector<Call>{{"/usr/bin/xattr", {"-dr", "com.apple.quarantine", dest.string()}}}));
    EXPECT_EQ(fs::exists(source), !c.trashTakesIt);
    EXPECT_EQ(fs::exists(trash->files() / "Corvane.app"), c.trashTakesIt);
    EXPECT_EQ(started, std::vector<Call>{relaunchOf(dest)});
    EXPECT_EQ(terminated, c.shellStarts ? 1 : 0);
  }
}

TEST_F(BundleRelocatorTest, OlderCopyAtTheDestinationIsTrashedOrElseRemoved) {
  for (const bool trashWorks : {true, false}) {
    SCOPED_TRACE(trashWorks ? "trash works" : "trash fails");
    TempDir scratch;
    const fs::path from = fs::path(scratch.path()) / "Corvane.app";
    const fs::path dest = apps / "Corvane.app";
    fs::remove_all(apps);
    fs::remove_all(trash->files());
    makeBundle(dest, "old");
    writeFile(dest / "Contents" / "Resources" / "old", "only in the old copy");
    makeBundle(from, "new");
    trash->refused.clear();
    if (!trashWorks) trash->refused.insert(dest);

    EXPECT_EQ(relocator(from)->moveToApplications(), std::nullopt);

    EXPECT_EQ(markOf(dest), "new");
    EXPECT_FALSE(fs::exists(dest / "Contents" / "Resources" / "old"));
    EXPECT_EQ(fs::exists(trash->files() / "Corvane.app") &&
                  markOf(trash->files() / "Corvane.app") == "old",
              trashWorks);
  }
}

TEST_F(BundleRelocatorTest, OldCopyStaysWhereItCantOrMustNotBeRemoved) {
  const fs::path translocated =
      root / "private/var/folders/zz/T/AppTranslocation/1A2B/d" / "Corvane.app";
  const struct {
    const char* name;
    fs::path source;
    std::optional<bool> readOnly;
    bool folderWritable;
  } cases[] = {
      {"read-only volume (a disk image)", downloads / "Corvane.app", true, true},
      {"volume can't be asked", downloads / "Corvane.app", std::nullopt, true},
      {"translocated", translocated, false, true},
      {"folder not writable", downloads / "Corvane.app", false, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    fs::remove_all(apps);
    fs::create_directories(apps);
    makeBundle(c.source, "new");
    readOnly = c.readOnly;
    unwritable.clear();
    if (!c.folderWritable) unwritable.insert(c.source.parent_path());
    started.clear();

    EXPECT_EQ(relocator(c.source)->moveToApplications(), std::nullopt);

    EXPECT_EQ(markOf(apps / "Corvane.app"), "new");
    EXPECT_EQ(markOf(c.source), "new");
    EXPECT_TRUE(trash->asked.empty());
    EXPECT_EQ(started, std::vector<Call>{relaunchOf(apps / "Corvane.app")});
    fs::remove_all(c.source);
  }
}

TEST_F(BundleRelocatorTest, FailuresBeforeTheCopyIsCompleteAreErrorsAndNothingIsRelaunched) {
  const struct {
    const char* name;
    std::function<std::optional<fs::path>()> arrange;
    std::string errorStart;
  } cases[] = {
      {"home Applications can't be created",
       [&]() -> std::optional<fs::path> {
         unwritable.insert(apps);
         writeFile(home / "Applications", "a file in the way");
         makeBundle(downloads / "Corvane.app", "new");
         return downloads / "Corvane.app";
       },
       "The folder \u201C" + (home / "Applications").string() + "\u201D couldn't be created: "},
      {"bundle can't be copied",
       [&]() -> std::optional<fs::path> {
         fs::create_directories(apps);
         makeBundle(downloads / "Corvane.app", "new");
         // A FIFO is no file that a copy can take along.
         ::mkfifo((downloads / "Corvane.app" / "Contents" / "pipe").c_str(), 0600);
         return downloads / "Corvane.app";
       },
       "Corvane couldn't be copied to \u201C" + apps.string() + "\u201D: "},
      {"already at the destination",
       [&]() -> std::optional<fs::path> {
         makeBundle(apps / "Corvane.app", "new");
         return apps / "Corvane.app";
       },
       "Corvane is already in Applications."},
      {"not a bundle", [] { return std::optional<fs::path>(); },
       "Corvane isn't running from an application bundle."},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    fs::remove_all(apps);
    fs::remove_all(home);
    unwritable.clear();
    const auto source = c.arrange();

    const auto error = relocator(source)->moveToApplications();

    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->rfind(c.errorStart, 0), 0u) << *error;
    EXPECT_EQ(error->back(), '.');
    EXPECT_TRUE(ran.empty());
    EXPECT_TRUE(started.empty());
    EXPECT_EQ(terminated, 0);
    if (source) {
      EXPECT_EQ(markOf(*source), "new");
      // No half-copied bundle is left to look like an installed one.
      if (*source != apps / "Corvane.app") {
        EXPECT_FALSE(fs::exists(apps / "Corvane.app"));
      }
    }
  }
}

}  // namespace
}  // namespace corvane
