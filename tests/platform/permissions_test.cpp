#include "app/platform/permissions.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "core/send/apple_scripts.h"
#include "tools/chatdb-gen/chat_db_builder.h"
#include "tests/support/temp_dir.h"

namespace corvane {
namespace {

namespace fs = std::filesystem;
using chatdbgen::ChatDbBuilder;
using testing::TempDir;

// Answers like the Apple-event and workspace calls would, and records them.
class FakePrivacyServices final : public PrivacyServices {
 public:
  std::optional<int> status;
  std::vector<std::string> askedAbout;
  std::vector<std::string> opened;

  std::optional<int> automationStatus(std::string_view bundleId) override {
    askedAbout.emplace_back(bundleId);
    return status;
  }
  void openURL(const std::string& url) override { opened.push_back(url); }
};

TEST(PrivacyPaneTest, AnchorThatMakesNoURLGivesNone) {
  for (const char* anchor : {"Privacy AllFiles", "Privacy_\u00c4", "Privacy_%zz", "Privacy_%4",
                             "a#b#c", "a\"b", "a<b>", "a\\b", "a\nb"}) {
    SCOPED_TRACE(anchor);
    EXPECT_EQ(PrivacyPane::url(anchor), std::nullopt);
  }
  for (const char* anchor : {"", "Privacy_Automation&x=1", "a%20b", "a#frag", "a/b?c=d:e@f"}) {
    SCOPED_TRACE(anchor);
    EXPECT_EQ(PrivacyPane::url(anchor), std::string(PrivacyPane::urlPrefix) + anchor);
  }
}

TEST(FullDiskAccessTest, DecidesFromTheAccessCheck) {
  using Kind = ChatDB::Access::Kind;
  const struct {
    ChatDB::Access access;
    bool privacyDatabaseOpens;
    FullDiskAccess expected;
  } cases[] = {
      {{Kind::ok, 1, ""}, false, {true, true}},
      {{Kind::ok, 0, ""}, true, {true, false}},
      {{Kind::noFullDiskAccess, 0, ""}, true, {false, false}},
      {{Kind::missing, 0, ""}, true, {true, false}},
      {{Kind::other, 0, "disk I/O error"}, true, {true, false}},
      {{Kind::other, 0, "disk I/O error"}, false, {false, false}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::Message() << static_cast<int>(c.access.kind) << " rows "
                                      << c.access.maxRowId << " tcc " << c.privacyDatabaseOpens);
    int consulted = 0;
    const auto result = Permissions::fullDiskAccessFrom(c.access, [&] {
      ++consulted;
      return c.privacyDatabaseOpens;
    });
    EXPECT_EQ(result, c.expected);
    // Only a database that can't tell sends the probe to the privacy database.
    const bool fallsBack = c.access.kind == Kind::missing || c.access.kind == Kind::other;
    EXPECT_EQ(consulted, fallsBack ? 1 : 0);
  }
}

// Only a run that gives no answer comes with a message.
TEST(AutomationTest, ProbeRunOutcomes) {
  const struct {
    OsascriptResult run;
    PermissionState expected;
  } cases[] = {
      {{0, "Messages", ""}, PermissionState::granted},
      {{1, "", "execution error: Not authorized to send Apple events to Messages. (-1743)"},
       PermissionState::denied},
      {{1, "", "error (-1743)"}, PermissionState::denied},
      {{1, "", "execution error: Messages got an error: Connection is invalid. (-609)"},
       PermissionState::unknown},
      {{9, "", "osascript timed out after 90s"}, PermissionState::unknown},
      {{-1, "", ""}, PermissionState::unknown},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.run.stderrText);
    const auto outcome = Permissions::automationFromProbeRun(c.run);
    EXPECT_EQ(outcome.state, c.expected);
    EXPECT_EQ(outcome.message, c.expected == PermissionState::unknown
                                   ? std::optional(Osascript::explain(c.run.stderrText))
                                   : std::nullopt);
  }
}

TEST(AutomationAnswerTest, StoredTextReadsAsState) {
  TempDir temp;
  JsonFileUserDefaults defaults(temp.file("defaults.json"));
  EXPECT_EQ(Permissions::loadAutomationAnswer(defaults), PermissionState::unknown);
  const struct {
    const char* stored;
    PermissionState expected;
  } cases[] = {
      {"granted", PermissionState::granted}, {"denied", PermissionState::denied},
      {"unknown", PermissionState::unknown}, {"Granted", PermissionState::unknown},
      {"", PermissionState::unknown},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.stored);
    ASSERT_TRUE(defaults.setString(DefaultsKey::automation, c.stored));
    EXPECT_EQ(Permissions::loadAutomationAnswer(defaults), c.expected);
  }
}

// SystemPermissionProbes on real files and a stand-in for osascript.
class SystemPermissionProbesTest : public ::testing::Test {
 protected:
  TempDir home_;
  FakePrivacyServices* services_ = new FakePrivacyServices;  // owned by probes_
  struct ScriptCall {
    std::string script;
    std::vector<std::string> args;
    double timeoutSec;
  };
  std::vector<ScriptCall> calls_;

  SystemPermissionProbes probes_{
      std::unique_ptr<PrivacyServices>(services_), home_.path(),
      [this](std::string_view script, const std::vector<std::string>& args, double timeoutSec) {
        calls_.push_back({std::string(script), args, timeoutSec});
        const std::string path = home_.file("osascript");
        std::ofstream(path) << "#!/bin/sh\ncat >/dev/null; echo Messages\n";
        ::chmod(path.c_str(), 0755);
        // Not the 90 s the probe asks for: a stand-in that hangs fails the test sooner.
        return Osascript::runProgram(path, script, args, 30);
      }};

  void makePrivacyDatabase() {
    const fs::path tcc = fs::path(home_.path()) / Permissions::privacyDatabase;
    fs::create_directories(tcc.parent_path());
    std::ofstream(tcc) << "";
  }
};

// Ready takes a message; a missing database falls back to whether the
// privacy database can be read.
TEST_F(SystemPermissionProbesTest, FullDiskAccessFromTheDatabaseOrThePrivacyDatabase) {
  ChatDbBuilder db(home_.file("chat.db"));
  EXPECT_EQ(probes_.probeFullDiskAccess(db.path()), (FullDiskAccess{true, false}));
  db.message(db.oneToOne("+14155550100"), "hi");
  EXPECT_EQ(probes_.probeFullDiskAccess(db.path()), (FullDiskAccess{true, true}));

  const std::string missing = home_.file("Library/Messages/chat.db");
  EXPECT_EQ(probes_.probeFullDiskAccess(missing), (FullDiskAccess{false, false}));
  makePrivacyDatabase();
  EXPECT_EQ(probes_.probeFullDiskAccess(missing), (FullDiskAccess{true, false}));
}

TEST_F(SystemPermissionProbesTest, AutomationAsksAboutMessagesWithoutPrompting) {
  services_->status = -1743;
  EXPECT_EQ(probes_.automationPermission(), PermissionState::denied);
  services_->status = std::nullopt;
  EXPECT_EQ(probes_.automationPermission(), std::nullopt);
  EXPECT_EQ(services_->askedAbout,
            (std::vector<std::string>{"com.apple.MobileSMS", "com.apple.MobileSMS"}));
  EXPECT_TRUE(calls_.empty());  // only requestAutomation runs a script
}

TEST_F(SystemPermissionProbesTest, RequestRunsTheProbeScriptForUpToNinetySeconds) {
  EXPECT_EQ(probes_.requestAutomation(), (AutomationRequest{PermissionState::granted, {}}));
  ASSERT_EQ(calls_.size(), 1u);
  EXPECT_EQ(calls_[0].script, AppleScripts::probe);
  EXPECT_TRUE(calls_[0].args.empty());
  EXPECT_EQ(calls_[0].timeoutSec, 90);
}

// Statuses other than granted, denied and would-ask are no answer.
TEST_F(SystemPermissionProbesTest, RefreshKeepsTheRememberedAnswerWhenTheSystemGivesNone) {
  JsonFileUserDefaults defaults(home_.file("defaults.json"));
  const struct {
    std::optional<int> status;
    PermissionState expected;
  } steps[] = {
      {0, PermissionState::granted},
      {std::nullopt, PermissionState::granted},  // Messages closed
      {-600, PermissionState::granted},  // procNotFound: Messages isn't running
      {-1743, PermissionState::denied},
      {-1745, PermissionState::denied},
      {1, PermissionState::denied},
      {-1744, PermissionState::unknown},
  };
  for (const auto& step : steps) {
    SCOPED_TRACE(step.status.value_or(999));
    services_->status = step.status;
    EXPECT_EQ(Permissions::refreshAutomation(probes_, defaults), step.expected);
    EXPECT_EQ(Permissions::loadAutomationAnswer(defaults), step.expected);
  }
}

TEST_F(SystemPermissionProbesTest, OpensOnlyPanesThatMakeAURL) {
  probes_.openPrivacyPane(PrivacyPane::automation);
  probes_.openPrivacyPane("not an anchor");
  EXPECT_EQ(services_->opened,
            (std::vector<std::string>{
                "x-apple.systempreferences:com.apple.preference.security?Privacy_Automation"}));
}

}  // namespace
}  // namespace corvane
