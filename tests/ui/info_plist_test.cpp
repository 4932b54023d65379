// The Info.plist the macOS bundle gets, as the build configured it: well
// formed, the "corvane" URL scheme, no Dock icon, the usage descriptions
// without which macOS refuses the Automation and Contacts requests, the
// build's version, and the values the build was configured with: the oldest
// macOS, and the feed with its signing key exactly when the build names one.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <QXmlStreamReader>
#include <regex>

#include "core/protocol/app_info.h"
#include "tests/support/text_file.h"
#include "tests/ui/corvane_process.h"

namespace corvane {
namespace {

using testing::binDir;

// The value element that follows <key>key</key>: "<true/>", a string's
// text, or a whole array; empty when the key is missing.
std::string valueOf(const std::string& plist, const std::string& key) {
  const std::regex value("<key>" + key +
                         "</key>\\s*(?:(<true/>|<false/>)|<string>([^<]*)</string>|" +
                         "(<array>[\\s\\S]*?</array>))");
  std::smatch m;
  if (!std::regex_search(plist, m, value)) return {};
  return m[1].matched ? m[1].str() : m[2].matched ? m[2].str() : m[3].str();
}

// A STRING variable of the build's cache; empty when it isn't there.
std::string cached(const std::string& variable) {
  const std::string prefix = "\n" + variable + ":STRING=";
  const std::string cache = testing::readFile(binDir() + "/CMakeCache.txt");
  const auto at = cache.find(prefix);
  if (at == std::string::npos) return {};
  const auto start = at + prefix.size();
  return cache.substr(start, cache.find('\n', start) - start);
}

TEST(InfoPlistTest, DeclaresTheSchemeTheUsageTextsAndNoDockIcon) {
  const std::string plist = testing::readFile(binDir() + "/app/Info.plist");
  QXmlStreamReader xml(QByteArray::fromStdString(plist));
  while (!xml.atEnd()) xml.readNext();
  EXPECT_FALSE(xml.hasError()) << xml.errorString().toStdString();

  EXPECT_THAT(valueOf(plist, "CFBundleIdentifier"),
              ::testing::MatchesRegex("[a-z0-9-]+\\.[a-z0-9.-]+"));
  EXPECT_EQ(valueOf(plist, "CFBundleExecutable"), "Corvane");
  EXPECT_EQ(valueOf(plist, "CFBundleShortVersionString"), AppInfo::version());
  EXPECT_EQ(valueOf(plist, "LSUIElement"), "<true/>");
  EXPECT_NE(valueOf(plist, "NSAppleEventsUsageDescription"), "");
  EXPECT_NE(valueOf(plist, "NSContactsUsageDescription"), "");
  const std::string schemes = valueOf(plist, "CFBundleURLSchemes");
  EXPECT_TRUE(
      std::regex_match(schemes, std::regex("<array>\\s*<string>corvane</string>\\s*</array>")))
      << schemes;
}

TEST(InfoPlistTest, CarriesTheConfiguredValuesAndOnlyThose) {
  const std::string plist = testing::readFile(binDir() + "/app/Info.plist");
  // Plist key, and the cache variable it comes from; an empty variable
  // leaves the key out.
  const struct {
    const char* key;
    const char* variable;
  } rows[] = {
      {"LSMinimumSystemVersion", "CMAKE_OSX_DEPLOYMENT_TARGET"},
      {"SUFeedURL", "CORVANE_UPDATE_FEED_URL"},
      {"SUPublicEDKey", "CORVANE_UPDATE_PUBLIC_ED_KEY"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.key);
    const std::string configured = cached(row.variable);
    EXPECT_EQ(plist.find("<key>" + std::string(row.key) + "</key>") != std::string::npos,
              !configured.empty());
    EXPECT_EQ(valueOf(plist, row.key), configured);
  }
  EXPECT_NE(cached("CMAKE_OSX_DEPLOYMENT_TARGET"), "");
}

}  // namespace
}  // namespace corvane
