// Whether the application can open a display, decided from the command line
// and the environment before Qt would abort on a missing one.
#include "app/ui/qt_platform.h"

#include <gtest/gtest.h>

#include <map>

namespace corvane {
namespace {

TEST(QtPlatformTest, ADisplayIsMissingOnlyWhenNoCandidateCanDraw) {
  const std::string none = "DISPLAY and WAYLAND_DISPLAY are not set";
  const struct {
    std::vector<std::string> args;
    std::map<std::string, std::string> env;
    std::string defaults;
    std::optional<std::string> missing;  // part of the line, or nothing
  } cases[] = {
      {{}, {}, "xcb;wayland", none},
      {{}, {{"DISPLAY", ":0"}}, "xcb;wayland", std::nullopt},
      {{}, {{"WAYLAND_DISPLAY", "wayland-0"}}, "xcb;wayland", std::nullopt},
      {{}, {{"DISPLAY", ""}}, "xcb;wayland", none},  // empty is unset
      {{}, {}, "cocoa", std::nullopt},
      {{}, {{"QT_QPA_PLATFORM", "offscreen"}}, "xcb;wayland", std::nullopt},
      {{}, {{"QT_QPA_PLATFORM", "minimal:enable_fonts"}}, "xcb;wayland", std::nullopt},
      {{}, {{"QT_QPA_PLATFORM", ""}}, "xcb;wayland", none},
      {{}, {{"QT_QPA_PLATFORM", "xcb"}, {"WAYLAND_DISPLAY", "w"}}, "xcb;wayland",
       "(DISPLAY is not set)"},
      {{}, {{"QT_QPA_PLATFORM", "wayland-egl;xcb"}, {"DISPLAY", ":1"}}, "xcb", std::nullopt},
      {{"-platform", "offscreen"}, {{"QT_QPA_PLATFORM", "xcb"}}, "xcb", std::nullopt},
      {{"-platform", "xcb"}, {{"QT_QPA_PLATFORM", "offscreen"}}, "xcb", "(DISPLAY is not set)"},
  };
  for (const auto& c : cases) {
    const auto getenv = [&c](const char* name) -> const char* {
      const auto it = c.env.find(name);
      return it == c.env.end() ? nullptr : it->second.c_str();
    };
    const auto line = QtPlatform::missingDisplay(CommandLine(c.args), getenv, c.defaults);
    SCOPED_TRACE(::testing::PrintToString(c.args) + " " + ::testing::PrintToString(c.env));
    ASSERT_EQ(line.has_value(), c.missing.has_value()) << line.value_or("");
    if (!line) continue;
    EXPECT_NE(line->find(*c.missing), std::string::npos) << *line;
    EXPECT_NE(line->find("--headless"), std::string::npos) << *line;
    EXPECT_EQ(line->find('\n'), std::string::npos) << *line;
  }
}

}  // namespace
}  // namespace corvane
