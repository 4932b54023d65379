// "--render-icon OUT.png [--size N]" through the real executable: a PNG of
// exactly N pixels with a transparent margin and an opaque body, or exit 1
// with "render failed: " and no file for anything that is not a positive
// base-10 size or can't be written. Also the menu-bar image's promise:
// black on transparent with the mark cut out.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <QImage>
#include <QImageReader>
#include <filesystem>

#include "app/ui/app_icon.h"
#include "tests/ui/corvane_process.h"

namespace corvane {
namespace {

using testing::ExitStatus;
using testing::runCorvane;
using ::testing::HasSubstr;
using ::testing::StartsWith;

struct Coverage {
  int transparent = 0, faint = 0, opaque = 0, coloured = 0;  // faint: alpha < 128
};

Coverage coverage(const QImage& image) {
  Coverage c;
  for (int y = 0; y < image.height(); ++y) {
    for (int x = 0; x < image.width(); ++x) {
      const QRgb p = image.pixel(x, y);
      c.transparent += qAlpha(p) == 0;
      c.faint += qAlpha(p) < 128;
      c.opaque += qAlpha(p) == 255;
      c.coloured += qAlpha(p) > 0 && (qRed(p) | qGreen(p) | qBlue(p)) != 0;
    }
  }
  return c;
}

TEST(RenderIconTest, WritesAPngOfTheSizeAsked) {
  testing::TempDir temp;
  struct Case {
    std::vector<std::string> sizeArgs;
    int size;
  };
  const Case cases[] = {{{}, 1024}, {{"--size", "16"}, 16}};
  for (const Case& c : cases) {
    const std::string out = temp.file("icon-" + std::to_string(c.size) + ".png");
    std::filesystem::remove(out);
    std::vector<std::string> args{"--render-icon", out};
    args.insert(args.end(), c.sizeArgs.begin(), c.sizeArgs.end());
    const auto run = runCorvane(temp, args);
    ASSERT_EQ(run.status, ExitStatus::exit(0)) << run.err;
    EXPECT_EQ(run.err, "");

    QImageReader reader(QString::fromStdString(out));
    EXPECT_EQ(reader.format(), "png");
    const QImage image = reader.read();
    ASSERT_FALSE(image.isNull()) << out;
    EXPECT_EQ(image.size(), QSize(c.size, c.size));
    const Coverage cover = coverage(image);
    EXPECT_GT(cover.transparent, 0) << "the margin is transparent at " << c.size;
    EXPECT_GT(cover.opaque, c.size * c.size / 4) << "the body is opaque at " << c.size;
  }
}

TEST(RenderIconTest, ABadSizeOrAnUnwritableFileFailsWithTheReason) {
  testing::TempDir temp;
  const std::string out = temp.file("icon.png"), nowhere = temp.file("missing-folder/icon.png");
  const struct {
    std::string file, size, reason;  // reason: part of the message
  } cases[] = {{out, "12a", "\"12a\""}, {nowhere, "32", "could not write " + nowhere}};
  for (const auto& c : cases) {
    const auto run = runCorvane(temp, {"--render-icon", c.file, "--size", c.size});
    EXPECT_EQ(run.status, ExitStatus::exit(1)) << c.size;
    EXPECT_THAT(run.err, StartsWith("render failed: ")) << c.size;
    EXPECT_THAT(run.err, HasSubstr(c.reason));
    EXPECT_FALSE(std::filesystem::exists(c.file)) << c.size;
  }
}

TEST(AppIconTest, TheMenuBarImageIsBlackOnTransparentWithTheMarkCutOut) {
  for (const int size : {18, 36, 128}) {
    const QImage image = AppIcon::drawTemplate(size).convertToFormat(QImage::Format_ARGB32);
    ASSERT_EQ(image.size(), QSize(size, size));
    const Coverage cover = coverage(image);
    EXPECT_EQ(cover.coloured, 0) << size;
    EXPECT_GT(cover.opaque, size * size / 5) << size;
    // The mark's ring is cut out of the bubble: some pixel in the middle
    // third shows the bar through it.
    const int third = size / 3, side = 2 * size / 3 - third;
    EXPECT_GT(coverage(image.copy(third, third, side, side)).faint, 0) << size;
  }
}

// The window icon is drawn when shown, at the size shown: every offered size
// and any other comes out square, pixel for pixel the drawing of that size.
TEST(AppIconTest, TheWindowIconDrawsEachSizeWhenAskedFor) {
  const QIcon icon = AppIcon::windowIcon();
  ASSERT_FALSE(icon.availableSizes().isEmpty());
  for (const QSize asked : {QSize(16, 16), QSize(512, 512), QSize(48, 40), QSize(20, 30)}) {
    const int side = std::min(asked.width(), asked.height());
    const QImage shown = icon.pixmap(asked).toImage().convertToFormat(QImage::Format_ARGB32);
    EXPECT_EQ(shown.size(), QSize(side, side)) << asked.width() << "x" << asked.height();
    EXPECT_EQ(shown, AppIcon::draw(side).convertToFormat(QImage::Format_ARGB32)) << side;
  }
  EXPECT_TRUE(icon.availableSizes().contains(QSize(512, 512)));
}

}  // namespace
}  // namespace corvane
