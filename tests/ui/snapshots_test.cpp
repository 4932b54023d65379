#include "app/ui/snapshots.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QImage>
#include <QProcess>
#include <cstdlib>

#include "tests/support/temp_dir.h"

namespace corvane {
namespace {

struct Outcome {
  int exitCode = -1;
  QString out, err;
};

// The real executable, with a home of its own so nothing of this machine's
// settings is read or written.
Outcome runCorvane(const QStringList& arguments, const testing::TempDir& home) {
  const char* bin = std::getenv("CORVANE_TEST_BIN_DIR");
  EXPECT_NE(bin, nullptr) << "CORVANE_TEST_BIN_DIR is not set";
  QProcess process;
  QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
  env.insert("QT_QPA_PLATFORM", "offscreen");
  env.insert("HOME", QString::fromStdString(home.path()));
  env.insert("XDG_CONFIG_HOME", QString::fromStdString(home.file("config")));
  env.insert("XDG_DATA_HOME", QString::fromStdString(home.file("data")));
  env.insert("XDG_RUNTIME_DIR", QString::fromStdString(home.path()));
  process.setProcessEnvironment(env);
  process.start(QString::fromUtf8(bin ? bin : ".") + "/Corvane", arguments);
  EXPECT_TRUE(process.waitForFinished(120'000)) << "Corvane did not finish";
  return {process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1,
          QString::fromUtf8(process.readAllStandardOutput()),
          QString::fromUtf8(process.readAllStandardError())};
}

TEST(SnapshotSetupTest, WritesEveryScreenAndTheMenuAsPngFiles) {
  testing::TempDir home;
  const QString dir = QString::fromStdString(home.file("docs/screenshots"));
  const Outcome run = runCorvane({"--snapshot-setup", dir}, home);
  ASSERT_EQ(run.exitCode, 0) << run.err.toStdString();
  EXPECT_EQ(run.out, "screenshots to " + dir + "\n");

  const QStringList names = snapshotNames();
  for (const char* required : {"1b-connect-waiting.png", "2-full-disk-access.png",
                               "2b-full-disk-granted.png", "3b-automation-denied.png",
                               "menu-syncing.png", "menu-not-connected.png"}) {
    EXPECT_TRUE(names.contains(QString::fromLatin1(required))) << required;
  }
  QStringList written = QDir(dir).entryList(QDir::Files, QDir::Name);
  QStringList expected = names;
  expected.sort();
  EXPECT_EQ(written, expected);

  for (const QString& name : names) {
    SCOPED_TRACE(name.toStdString());
    QFile file(QDir(dir).filePath(name));
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    EXPECT_TRUE(file.read(8) == QByteArray("\x89PNG\r\n\x1a\n", 8));
    QImage image;
    ASSERT_TRUE(image.load(file.fileName(), "PNG"));
    if (name.startsWith("menu-")) {
      EXPECT_GT(image.width(), 200);
      EXPECT_GT(image.height(), 150);
    } else {
      EXPECT_EQ(image.size(), QSize(600, 580));
    }
  }
}

TEST(SnapshotSetupTest, FolderThatCantBeMadeFails) {
  testing::TempDir home;
  QFile blocker(QString::fromStdString(home.file("file")));
  ASSERT_TRUE(blocker.open(QIODevice::WriteOnly));
  blocker.close();
  const QString dir = blocker.fileName() + "/shots";
  const Outcome run = runCorvane({"--snapshot-setup", dir}, home);
  EXPECT_EQ(run.exitCode, 1);
  EXPECT_TRUE(run.err.contains(dir)) << run.err.toStdString();
  EXPECT_FALSE(run.out.contains("screenshots to"));
}

}  // namespace
}  // namespace corvane
