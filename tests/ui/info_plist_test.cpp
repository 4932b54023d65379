// The Info.plist the macOS bundle gets, as the build configured it: well
// formed, the "corvane" URL scheme, no Dock icon, the usage descriptions
// without which macOS refuses the Automation and Contacts requests, the
// build's version, and "SUFeedURL" exactly when the build names a feed.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <QFile>
#include <QVariant>
#include <QXmlStreamReader>
#include <cstdlib>
#include <fstream>

#include "core/protocol/app_info.h"

namespace corvane {
namespace {

std::string binDir() {
  const char* dir = std::getenv("CORVANE_TEST_BIN_DIR");
  return dir ? dir : ".";
}

// The value at the reader's current start element: a string, a bool, a
// list or a map.
QVariant readValue(QXmlStreamReader& xml) {
  const auto name = xml.name();
  if (name == QLatin1String("true") || name == QLatin1String("false")) {
    const bool value = name == QLatin1String("true");
    xml.skipCurrentElement();
    return value;
  }
  if (name == QLatin1String("string")) return xml.readElementText();
  if (name == QLatin1String("array")) {
    QVariantList list;
    while (xml.readNextStartElement()) list << readValue(xml);
    return list;
  }
  if (name == QLatin1String("dict")) {
    QVariantMap map;
    while (xml.readNextStartElement()) {
      EXPECT_EQ(xml.name(), QLatin1String("key"));
      const QString key = xml.readElementText();
      EXPECT_TRUE(xml.readNextStartElement()) << key.toStdString();
      map.insert(key, readValue(xml));
    }
    return map;
  }
  ADD_FAILURE() << "unexpected element " << name.toString().toStdString();
  xml.skipCurrentElement();
  return {};
}

QVariantMap readPlist(const QString& path) {
  QFile file(path);
  EXPECT_TRUE(file.open(QIODevice::ReadOnly)) << path.toStdString();
  QXmlStreamReader xml(&file);
  EXPECT_TRUE(xml.readNextStartElement());
  EXPECT_EQ(xml.name(), QLatin1String("plist"));
  EXPECT_TRUE(xml.readNextStartElement());
  const QVariantMap plist = readValue(xml).toMap();
  while (!xml.atEnd()) xml.readNext();
  EXPECT_FALSE(xml.hasError()) << xml.errorString().toStdString();
  return plist;
}

std::string cachedFeedURL() {
  std::ifstream cache(binDir() + "/CMakeCache.txt");
  std::string line;
  const std::string prefix = "CORVANE_UPDATE_FEED_URL:STRING=";
  while (std::getline(cache, line)) {
    if (line.starts_with(prefix)) return line.substr(prefix.size());
  }
  return {};
}

TEST(InfoPlistTest, DeclaresTheSchemeTheUsageTextsAndNoDockIcon) {
  const QVariantMap plist = readPlist(QString::fromStdString(binDir() + "/app/Info.plist"));
  EXPECT_THAT(plist.value("CFBundleIdentifier").toString().toStdString(),
              ::testing::MatchesRegex("[a-z0-9-]+\\.[a-z0-9.-]+"));
  EXPECT_EQ(plist.value("CFBundleExecutable").toString(), "Corvane");
  EXPECT_EQ(plist.value("CFBundleShortVersionString").toString().toStdString(), AppInfo::version());
  EXPECT_EQ(plist.value("LSUIElement"), QVariant(true));
  EXPECT_FALSE(plist.value("NSAppleEventsUsageDescription").toString().isEmpty());
  EXPECT_FALSE(plist.value("NSContactsUsageDescription").toString().isEmpty());

  QStringList schemes;
  for (const QVariant& type : plist.value("CFBundleURLTypes").toList()) {
    for (const QVariant& scheme : type.toMap().value("CFBundleURLSchemes").toList()) {
      schemes << scheme.toString();
    }
  }
  EXPECT_EQ(schemes, QStringList{"corvane"});

  const std::string feed = cachedFeedURL();
  EXPECT_EQ(plist.contains("SUFeedURL"), !feed.empty());
  if (!feed.empty()) {
    EXPECT_EQ(plist.value("SUFeedURL").toString().toStdString(), feed);
  }
}

}  // namespace
}  // namespace corvane
