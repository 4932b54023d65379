#include "app/platform/permissions.h"

#include <fcntl.h>
#include <unistd.h>

#include <memory>
#include <utility>

#include "core/contacts/system_contacts.h"
#include "core/protocol/wire_json.h"
#include "core/send/apple_scripts.h"
#include "core/text/unicode.h"

namespace corvane {

namespace PrivacyPane {
namespace {

bool isHexDigit(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

// RFC 3986's characters of a query or fragment, apart from "%" escapes.
bool isURLCharacter(char c) {
  if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')) return true;
  return std::string_view("-._~!$&'()*+,;=:@/?").find(c) != std::string_view::npos;
}

}  // namespace

std::optional<std::string> url(std::string_view anchor) {
  bool inFragment = false;
  for (std::size_t i = 0; i < anchor.size(); ++i) {
    const char c = anchor[i];
    if (c == '%') {
      if (i + 2 >= anchor.size() || !isHexDigit(anchor[i + 1]) || !isHexDigit(anchor[i + 2]))
        return std::nullopt;
      i += 2;
    } else if (c == '#' && !inFragment) {
      inFragment = true;
    } else if (!isURLCharacter(c)) {
      return std::nullopt;
    }
  }
  return std::string(urlPrefix) + std::string(anchor);
}

}  // namespace PrivacyPane

namespace Permissions {

FullDiskAccess fullDiskAccessFrom(const ChatDB::Access& access,
                                  const std::function<bool()>& privacyDatabaseOpens) {
  switch (access.kind) {
    case ChatDB::Access::Kind::ok:
      return {true, access.maxRowId >= 1};
    case ChatDB::Access::Kind::noFullDiskAccess:
      return {false, false};
    case ChatDB::Access::Kind::missing:
    case ChatDB::Access::Kind::other:
      break;
  }
  return {privacyDatabaseOpens(), false};
}

bool opensForReading(const std::filesystem::path& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  ::close(fd);
  return true;
}

std::optional<PermissionState> automationFromStatus(int status) {
  switch (status) {
    case 0:  // noErr
      return PermissionState::granted;
    case -1743:  // errAEEventNotPermitted
      return PermissionState::denied;
    case -1744:  // errAEEventWouldRequireUserConsent
      return PermissionState::unknown;
    default:
      return std::nullopt;
  }
}

AutomationRequest automationFromProbeRun(const OsascriptResult& run) {
  if (run.code == 0) return {PermissionState::granted, std::nullopt};
  if (run.stderrText.find("-1743") != std::string::npos ||
      lowercased(run.stderrText).find("not authori") != std::string::npos) {
    return {PermissionState::denied, std::nullopt};
  }
  return {PermissionState::unknown, Osascript::explain(run.stderrText)};
}

PermissionState loadAutomationAnswer(UserDefaults& defaults) {
  const auto stored = defaults.getString(DefaultsKey::automation);
  for (const auto state : {PermissionState::granted, PermissionState::denied}) {
    if (stored && *stored == wireName(state)) return state;
  }
  return PermissionState::unknown;
}

bool saveAutomationAnswer(UserDefaults& defaults, PermissionState state) {
  return defaults.setString(DefaultsKey::automation, wireName(state));
}

PermissionState refreshAutomation(PermissionProbes& probes, UserDefaults& defaults) {
  if (const auto answer = probes.automationPermission()) {
    saveAutomationAnswer(defaults, *answer);
    return *answer;
  }
  return loadAutomationAnswer(defaults);
}

}  // namespace Permissions

SystemPermissionProbes::SystemPermissionProbes(std::unique_ptr<PrivacyServices> services,
                                               std::filesystem::path homeDirectory,
                                               Osascript::Runner runScript)
    : services_(std::move(services)),
      homeDirectory_(std::move(homeDirectory)),
      runScript_(std::move(runScript)) {}

FullDiskAccess SystemPermissionProbes::probeFullDiskAccess(const std::string& chatDBPath) {
  return Permissions::fullDiskAccessFrom(ChatDB::checkAccess(chatDBPath), [this] {
    return Permissions::opensForReading(homeDirectory_ / Permissions::privacyDatabase);
  });
}

std::optional<PermissionState> SystemPermissionProbes::automationPermission() {
  const auto status = services_->automationStatus(Permissions::messagesBundleId);
  if (!status) return std::nullopt;
  return Permissions::automationFromStatus(*status);
}

AutomationRequest SystemPermissionProbes::requestAutomation() {
  return Permissions::automationFromProbeRun(
      runScript_(AppleScripts::probe, {}, Permissions::automationRequestTimeoutSec));
}

PermissionState SystemPermissionProbes::contactsAuthorization() {
  return SystemContacts::authorization();
}

void SystemPermissionProbes::requestContactsAccess(std::function<void(bool granted)> answered) {
  SystemContacts::requestAccess(std::move(answered));
}

void SystemPermissionProbes::openPrivacyPane(std::string_view anchor) {
  if (const auto url = PrivacyPane::url(anchor)) services_->openURL(*url);
}

std::unique_ptr<PermissionProbes> PermissionProbes::makeDefault() {
  return std::make_unique<SystemPermissionProbes>(
      PrivacyServices::makeDefault(), UserDirectories::home(UserDirectories::processEnvironment));
}

}  // namespace corvane
