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
  int transparent = 0, opaque = 0;
};

Coverage coverage(const QImage& image) {
  Coverage c;
  for (int y = 0; y < image.height(); ++y) {
    for (int x = 0; x < image.width(); ++x) {
      const int alpha = qAlpha(image.pixel(x, y));
      if (alpha == 0) ++c.transparent;
      if (alpha == 255) ++c.opaque;
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
  const Case cases[] = {
      {{}, 1024},           {{"--size", "16"}, 16},    {{"--size", "64"}, 64},
      {{"--size", "1"}, 1}, {{"--size", "0512"}, 512}, {{"--size"}, 1024},  // last: not given
  };
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
    EXPECT_TRUE(image.hasAlphaChannel());
    if (c.size >= 16) {
      const Coverage cover = coverage(image);
      EXPECT_GT(cover.transparent, 0) << "the margin is transparent at " << c.size;
      EXPECT_GT(cover.opaque, c.size * c.size / 4) << "the body is opaque at " << c.size;
    }
  }
}

TEST(RenderIconTest, ABadSizeOrAnUnwritableFileFailsWithTheReason) {
  testing::TempDir temp;
  const std::string out = temp.file("icon.png");
  struct Case {
    std::vector<std::string> args;
    std::string reason;  // part of the message
  };
  const std::vector<Case> cases = {
      {{"--size", "12a"}, "\"12a\""}, {{"--size", "0"}, "at least 1"},
      {{"--size", "-3"}, "\"-3\""},   {{"--size", ""}, "\"\""},
      {{"--size", "+5"}, "\"+5\""},   {{"--size", "0x10"}, "\"0x10\""},
      {{"--size", " 5"}, "\" 5\""},   {{"--size", "5.0"}, "\"5.0\""},
      {{"--size", "8193"}, "8192"},   {{"--size", "99999999999999999999"}, "8192"},
  };
  for (const Case& c : cases) {
    std::vector<std::string> args{"--render-icon", out};
    args.insert(args.end(), c.args.begin(), c.args.end());
    const auto run = runCorvane(temp, args);
    EXPECT_EQ(run.status, ExitStatus::exit(1)) << c.args.back();
    EXPECT_THAT(run.err, StartsWith("render failed: ")) << c.args.back();
    EXPECT_THAT(run.err, HasSubstr(c.reason));
    EXPECT_TRUE(run.err.ends_with("\n"));
    EXPECT_FALSE(std::filesystem::exists(out)) << c.args.back();
  }

  const std::string nowhere = temp.file("missing-folder/icon.png");
  const auto run = runCorvane(temp, {"--render-icon", nowhere, "--size", "32"});
  EXPECT_EQ(run.status, ExitStatus::exit(1));
  EXPECT_THAT(run.err, StartsWith("render failed: could not write " + nowhere));
}

TEST(AppIconTest, TheMenuBarImageIsBlackOnTransparentWithTheMarkCutOut) {
  for (const int size : {18, 36, 128}) {
    const QImage image = AppIcon::drawTemplate(size).convertToFormat(QImage::Format_ARGB32);
    ASSERT_EQ(image.size(), QSize(size, size));
    bool onlyBlack = true;
    for (int y = 0; y < size; ++y) {
      for (int x = 0; x < size; ++x) {
        const QRgb p = image.pixel(x, y);
        if (qAlpha(p) > 0 && (qRed(p) | qGreen(p) | qBlue(p)) != 0) onlyBlack = false;
      }
    }
    EXPECT_TRUE(onlyBlack) << size;
    const Coverage cover = coverage(image);
    EXPECT_GT(cover.opaque, size * size / 5) << size;
    // The centre of the bubble is where the mark's ring is cut; some pixel
    // inside the bubble's middle third shows the bar through it.
    int holes = 0;
    for (int y = size / 3; y < 2 * size / 3; ++y) {
      for (int x = size / 3; x < 2 * size / 3; ++x) holes += qAlpha(image.pixel(x, y)) < 128;
    }
    EXPECT_GT(holes, 0) << size;
  }
}

TEST(AppIconTest, SizesOutsideTheRangeDrawNothing) {
  for (const int size : {0, -1, AppIcon::maxRenderSize + 1}) {
    EXPECT_TRUE(AppIcon::draw(size).isNull()) << size;
    EXPECT_TRUE(AppIcon::drawTemplate(size).isNull()) << size;
  }
}

}  // namespace
}  // namespace corvane
