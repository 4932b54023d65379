// "--snapshot-setup DIR" through the real executable: every screen and the
// menu as PNG files, the screens at the window's size.
#include "app/ui/snapshots.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QImage>

#include "tests/ui/corvane_process.h"

namespace corvane {
namespace {

using testing::ExitStatus;
using testing::runCorvane;

TEST(SnapshotSetupTest, WritesEveryScreenAndTheMenuAsPngFiles) {
  testing::TempDir temp;
  const std::string dir = temp.file("docs/screenshots");
  const auto run = runCorvane(temp, {"--snapshot-setup", dir});
  ASSERT_EQ(run.status, ExitStatus::exit(0)) << run.err;
  EXPECT_EQ(run.out, "screenshots to " + dir + "\n");

  const QStringList names = snapshotNames();
  EXPECT_TRUE(names.contains("menu-syncing.png"));
  QStringList expected = names;
  expected.sort();
  EXPECT_EQ(QDir(QString::fromStdString(dir)).entryList(QDir::Files, QDir::Name), expected);

  for (const QString& name : names) {
    SCOPED_TRACE(name.toStdString());
    const std::string path = dir + "/" + name.toStdString();
    QImage image;
    ASSERT_TRUE(image.load(QString::fromStdString(path), "PNG"));
    if (name.startsWith("menu-")) {
      EXPECT_GT(image.width(), 200);
      EXPECT_GT(image.height(), 150);
    } else {
      EXPECT_EQ(image.size(), QSize(600, 580));
    }
  }
}

}  // namespace
}  // namespace corvane
