#include "core/protocol/app_info.h"

#include <gtest/gtest.h>

namespace corvane {
namespace {

// The bundle's short version wins; without a bundle (as here) the build's.
TEST(AppInfoTest, VersionIsTheBundlesShortVersionElseTheBuilds) {
  EXPECT_EQ(AppInfo::versionFrom("2.3.1"), "2.3.1");
  EXPECT_EQ(AppInfo::versionFrom(std::nullopt), CORVANE_VERSION);
  EXPECT_EQ(AppInfo::versionFrom(""), CORVANE_VERSION);
  EXPECT_EQ(AppInfo::version(), CORVANE_VERSION);
}

}  // namespace
}  // namespace corvane
