// One running application per user. In-process: a second SingleInstance on
// another thread hands its links over the real socket, and a folder others
// can enter is refused. With real processes of Corvane: a killed instance
// is replaced by the next start, and a link given to a second start reaches
// the first, which logs it without its code.
#include "app/ui/single_instance.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <QSignalSpy>
#include <QTest>
#include <atomic>
#include <filesystem>
#include <thread>

#include "app/platform/token_store.h"
#include "app/platform/user_defaults.h"
#include "tests/support/text_file.h"
#include "tests/ui/corvane_process.h"

namespace corvane {
namespace {

using testing::ChildProcess;
using testing::ExitStatus;
using ::testing::HasSubstr;
using ::testing::Not;
namespace fs = std::filesystem;

// Runs a second instance on a thread of its own, as another process would:
// the first one answers from this thread's event loop.
SingleInstance::Role startElsewhere(const QString& folder, const QStringList& urls) {
  SingleInstance::Role role = SingleInstance::Role::failed;
  std::atomic<bool> done{false};
  std::thread other([&] {
    SingleInstance second(folder);
    role = second.start(urls, 20000);
    done = true;
  });
  EXPECT_TRUE(QTest::qWaitFor([&] { return done.load(); }, 30000));
  other.join();
  return role;
}

TEST(SingleInstanceTest, ALaterStartHandsItsLinksOverInOrderThroughAPrivateSocketOrFails) {
  testing::TempDir temp;
  const QString folder = QString::fromStdString(temp.path());
  SingleInstance first(folder);
  ASSERT_EQ(first.start({}), SingleInstance::Role::primary) << first.errorString().toStdString();
  struct stat info {};
  ASSERT_EQ(::stat(first.socketPath().toLocal8Bit().constData(), &info), 0);
  EXPECT_TRUE(S_ISSOCK(info.st_mode));
  EXPECT_EQ(info.st_mode & 077, 0u);
  QSignalSpy urls(&first, &SingleInstance::urlReceived);
  QSignalSpy reopens(&first, &SingleInstance::reopenRequested);

  EXPECT_EQ(
      startElsewhere(folder, {"corvane://connect?code=AAAA1111", "corvane://connect?code=B2"}),
      SingleInstance::Role::handedOver);
  ASSERT_TRUE(QTest::qWaitFor([&] { return urls.count() == 2; }, 10000));
  EXPECT_EQ(urls.at(0).at(0).toString(), "corvane://connect?code=AAAA1111");
  EXPECT_EQ(urls.at(1).at(0).toString(), "corvane://connect?code=B2");
  EXPECT_EQ(reopens.count(), 0);

  // Started again without a link: the user wants the window.
  EXPECT_EQ(startElsewhere(folder, {}), SingleInstance::Role::handedOver);
  EXPECT_TRUE(QTest::qWaitFor([&] { return reopens.count() == 1; }, 10000));
  EXPECT_EQ(urls.count(), 2);

  // A first instance that never answers (this thread is busy) is a failure, not a hand-over.
  SingleInstance second(folder);
  EXPECT_EQ(second.start({"corvane://connect?code=DDDD4444"}, 300), SingleInstance::Role::failed);
  EXPECT_THAT(second.errorString().toStdString(), HasSubstr("already running"));
}

TEST(SingleInstanceTest, AFolderWhereNothingCanBeMadeLeavesTheApplicationOnItsOwn) {
  testing::TempDir temp;
  SingleInstance lonely(QString::fromStdString(temp.file("missing")));
  EXPECT_EQ(lonely.start({}), SingleInstance::Role::unavailable);
  EXPECT_THAT(lonely.errorString().toStdString(), HasSubstr(temp.file("missing")));
}

TEST(SingleInstanceTest, TheFallbackFolderMustBePrivate) {
  testing::TempDir temp;
  const std::string folder = temp.file("corvane-" + std::to_string(::getuid()));
  const char* savedTmp = std::getenv("TMPDIR");
  const std::string restore = savedTmp ? savedTmp : "";
  ::setenv("TMPDIR", temp.path().c_str(), 1);
  const auto getenv = [](const char* name) -> const char* {
    return std::string_view(name) == "XDG_RUNTIME_DIR" ? nullptr : std::getenv(name);
  };

  QString error;
  auto made = SingleInstance::defaultDirectory(getenv, &error);
  ASSERT_TRUE(made) << error.toStdString();
  EXPECT_EQ(made->toStdString(), folder);
  EXPECT_EQ(fs::status(folder).permissions() & fs::perms::all, fs::perms::owner_all);

  ::chmod(folder.c_str(), 0755);
  EXPECT_FALSE(SingleInstance::defaultDirectory(getenv, &error));
  EXPECT_THAT(error.toStdString(), HasSubstr("not a private folder"));

  fs::remove(folder);
  fs::create_directory_symlink(temp.path(), folder);
  EXPECT_FALSE(SingleInstance::defaultDirectory(getenv, &error)) << "a link to elsewhere";
  savedTmp ? ::setenv("TMPDIR", restore.c_str(), 1) : ::unsetenv("TMPDIR");
}

// Real processes of the executable, each in the same temporary home.
TEST(TwoProcessesTest, AfterACrashLinksGivenToTheFirstAndASecondStartReachTheFirstWithoutCodes) {
  // The application starts its model with the stores it finds; only where
  // they follow XDG_CONFIG_HOME does the child get its own.
  if (!TokenStore::defaultFollowsConfigDirectory() ||
      !UserDefaults::defaultFollowsConfigDirectory()) {
    GTEST_SKIP() << "Corvane here keeps its token in the login Keychain and its settings in the "
                    "user's defaults, which a child started by a test would read and change";
  }
  testing::TempDir temp;
  const auto start = [&](std::vector<std::string> args) {
    return testing::startCorvane(temp, std::move(args));
  };
  const char* kRunning = " running; links reach it through ";
  const char* kReceived = "Corvane: received corvane://connect link";
  const std::string socket = temp.file("run/corvane-" + std::to_string(::getuid()) + ".socket");
  auto crashed = start({});
  ASSERT_TRUE(crashed->waitFor(ChildProcess::Stream::err, kRunning)) << crashed->err();
  crashed->signal(SIGKILL);
  crashed->wait();
  ASSERT_TRUE(fs::exists(socket));

  // The next start takes the lock and the socket over.
  auto first = start({"corvane://connect?code=EFGH5678"});
  ASSERT_TRUE(first->waitFor(ChildProcess::Stream::err, kRunning)) << first->err();
  // Received while launching, logged before launch finished.
  EXPECT_LT(first->err().find(kReceived), first->err().find(kRunning));

  auto second = start({"corvane://connect?code=ABCD1234"});
  EXPECT_EQ(second->wait(std::chrono::seconds(30)), ExitStatus::exit(0)) << second->err();
  EXPECT_TRUE(first->waitFor(ChildProcess::Stream::err, kReceived, 2)) << first->err();

  // The desktop entry points links at this executable.
  const std::string text = testing::readFile(temp.file("data/applications/corvane.desktop"));
  EXPECT_THAT(text, HasSubstr("MimeType=x-scheme-handler/corvane;"));
  EXPECT_THAT(text, HasSubstr("/Corvane %u\n"));

  first->signal(SIGTERM);
  EXPECT_EQ(first->wait(std::chrono::seconds(30)), ExitStatus::exit(0)) << first->err();
  for (const std::string& log : {first->err(), second->err(), first->out(), second->out()}) {
    EXPECT_THAT(log, Not(HasSubstr("ABCD1234")));
    EXPECT_THAT(log, Not(HasSubstr("EFGH5678")));
  }
  EXPECT_EQ(ChildProcess::occurrences(first->err(), kReceived), 2u);
  EXPECT_FALSE(fs::exists(socket)) << "a clean quit takes the socket away";
}

}  // namespace
}  // namespace corvane
