// Permission probes: whether the agent holds the macOS privacy permissions it
// needs — Full Disk Access (to read the Messages database), Automation of
// Messages (to send) and, optionally, Contacts — without ever prompting; the
// one call that deliberately prompts for Automation; the remembered Automation
// answer; and the System Settings panes where the user grants them.
//
// The application model and the headless status report hold a
// PermissionProbes. Every decision is a portable function in `Permissions`;
// the operating system is reached only through PrivacyServices. Probes never
// throw: what can't be known folds into false, `unknown` or no answer. All of
// it may be called from any thread; requestAutomation blocks until the user
// answers the system's prompt, 90 seconds at most.
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "app/platform/user_defaults.h"
#include "core/chatdb/chat_db.h"
#include "core/protocol/wire_types.h"
#include "core/send/osascript.h"

namespace corvane {

struct FullDiskAccess {
  bool fullDiskAccess = false;
  // The Messages database holds at least one message: Messages is set up here.
  bool messagesReady = false;
  bool operator==(const FullDiskAccess&) const = default;
};

// The outcome of asking for Automation of Messages.
struct AutomationRequest {
  PermissionState state = PermissionState::unknown;
  // What went wrong, for an `unknown` outcome only.
  std::optional<std::string> message;
  bool operator==(const AutomationRequest&) const = default;
};

// The System Settings privacy panes.
namespace PrivacyPane {

inline constexpr std::string_view fullDiskAccess = "Privacy_AllFiles";
inline constexpr std::string_view automation = "Privacy_Automation";
inline constexpr std::string_view contacts = "Privacy_Contacts";

inline constexpr std::string_view urlPrefix =
    "x-apple.systempreferences:com.apple.preference.security?";

// `urlPrefix` followed directly by `anchor`; absent when that is no URL,
// i.e. the anchor holds a character a URL can't carry as it is (white space,
// a non-ASCII letter, a quote, a "%" not starting an escape, a second "#").
std::optional<std::string> url(std::string_view anchor);

}  // namespace PrivacyPane

// The operating system's privacy services; one implementation per platform,
// each call a few lines of glue. Outside macOS there is nothing to ask.
class PrivacyServices {
 public:
  PrivacyServices() = default;
  PrivacyServices(const PrivacyServices&) = delete;
  PrivacyServices& operator=(const PrivacyServices&) = delete;
  virtual ~PrivacyServices() = default;

  // The Apple-event status of asking, without ever prompting, whether this
  // process may send any event to the application `bundleId`; absent when
  // the application can't be named as a target (or outside macOS).
  virtual std::optional<int> automationStatus(std::string_view bundleId) = 0;

  // Has the system open `url` (System Settings for the privacy panes).
  virtual void openURL(const std::string& url) = 0;

  static std::unique_ptr<PrivacyServices> makeDefault();
};

class PermissionProbes {
 public:
  PermissionProbes() = default;
  PermissionProbes(const PermissionProbes&) = delete;
  PermissionProbes& operator=(const PermissionProbes&) = delete;
  virtual ~PermissionProbes() = default;

  // Whether the Messages database at `chatDBPath` can be read, and whether it
  // holds any message.
  virtual FullDiskAccess probeFullDiskAccess(const std::string& chatDBPath) = 0;
  // The Automation permission for Messages, never prompting; no answer when
  // the system doesn't say (for example while Messages isn't running).
  virtual std::optional<PermissionState> automationPermission() = 0;
  // Runs the probe script, which makes macOS ask the user once.
  virtual AutomationRequest requestAutomation() = 0;
  // Contacts access, never prompting; and the prompting request, which
  // returns at once and calls `answered` on any thread once the user decides.
  virtual PermissionState contactsAuthorization() = 0;
  virtual void requestContactsAccess(std::function<void(bool granted)> answered) = 0;
  // Opens a pane of `PrivacyPane`; nothing happens when the anchor makes no URL.
  virtual void openPrivacyPane(std::string_view anchor) = 0;

  // SystemPermissionProbes on this system's services, the user's home
  // directory and the real osascript.
  static std::unique_ptr<PermissionProbes> makeDefault();
};

// The probes as the platform answers them.
class SystemPermissionProbes final : public PermissionProbes {
 public:
  // `homeDirectory` is where the privacy database is looked for.
  SystemPermissionProbes(std::unique_ptr<PrivacyServices> services,
                         std::filesystem::path homeDirectory,
                         Osascript::Runner runScript = Osascript::run);

  FullDiskAccess probeFullDiskAccess(const std::string& chatDBPath) override;
  std::optional<PermissionState> automationPermission() override;
  AutomationRequest requestAutomation() override;
  PermissionState contactsAuthorization() override;
  void requestContactsAccess(std::function<void(bool granted)> answered) override;
  void openPrivacyPane(std::string_view anchor) override;

 private:
  std::unique_ptr<PrivacyServices> services_;
  std::filesystem::path homeDirectory_;
  Osascript::Runner runScript_;
};

// The decisions behind the probes, portable and pure apart from the file
// system where noted.
namespace Permissions {

// Messages, the target of the Automation permission.
inline constexpr std::string_view messagesBundleId = "com.apple.MobileSMS";
// Long enough for the user to read and answer the consent prompt.
inline constexpr double automationRequestTimeoutSec = 90;
// The system's privacy database, under the home directory. Only this
// process's Full Disk Access lets it be opened.
inline constexpr std::string_view privacyDatabase =
    "Library/Application Support/com.apple.TCC/TCC.db";

// Full Disk Access from the database's access check. When the database
// can't tell (missing, or another failure), `privacyDatabaseOpens` decides
// Full Disk Access, and Messages counts as not ready.
FullDiskAccess fullDiskAccessFrom(const ChatDB::Access& access,
                                  const std::function<bool()>& privacyDatabaseOpens);

// True when `path` opens for reading with the plain open call.
bool opensForReading(const std::filesystem::path& path);

// The Automation answer of an Apple-event status: 0 granted, -1743 (not
// permitted) denied, -1744 (would need the user's consent) unknown; any other
// status, such as Messages not running, is no answer.
std::optional<PermissionState> automationFromStatus(int status);

// The outcome of running the probe script: success is granted; an error
// output with "-1743", or saying "not authori…" in any case, is denied; any
// other failure (a time-out included) is unknown with Osascript::explain's
// message.
AutomationRequest automationFromProbeRun(const OsascriptResult& run);

// The remembered Automation answer: the "automation" default read as a
// PermissionState's name, `unknown` when absent or any other text.
PermissionState loadAutomationAnswer(UserDefaults& defaults);
// Remembers `state` under "automation"; true when it was kept.
bool saveAutomationAnswer(UserDefaults& defaults, PermissionState state);

// The Automation state a permission refresh arrives at: the probe's answer,
// which is then remembered, or, when the system gives none, the remembered
// answer, so a "granted" stays valid while Messages is closed.
PermissionState refreshAutomation(PermissionProbes& probes, UserDefaults& defaults);

}  // namespace Permissions
}  // namespace corvane
