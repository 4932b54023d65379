// SetupTexts: the setup window's sentences that are put together from the
// model's published state (the confirmation of a connect link, the failed
// move, the permissions left off on the last screen). The fixed texts of the
// screens live with the window; these are kept here so they are tested
// without a display.
//
// Pure functions; safe to call from any thread.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "app/model/app_model.h"
#include "core/protocol/connect_link.h"

namespace corvane::SetupTexts {

// The host of a server address for display ("https://corvane.app:8443" gives
// "corvane.app"); the address itself when it does not parse.
std::string serverHost(std::string_view server);

// What the Connect screen asks before using a connect link that waits for
// confirmation.
struct LinkConfirmation {
  std::string question;  // "Connect this Mac to the Corvane account at …"
  // The link's server is not one of the usual Corvane websites: the warning
  // is shown too.
  bool untrusted = false;
  bool operator==(const LinkConfirmation&) const = default;
};
inline constexpr std::string_view untrustedServerWarning =
    "This isn't the usual Corvane website. Only continue if you trust it \u2014 your roster's "
    "messages would go there.";

// The link's server is its own, or `published.server` when it names none.
LinkConfirmation linkConfirmation(const ConnectLink& link, const AppModel::Published& published);

// "Couldn't move Corvane: " + error + ". Drag it into Applications yourself,
// then open it from there."
std::string moveFailed(std::string_view error);

// The permissions the user went past without turning them on, in the
// wizard's order: Automation when it is not granted, Contacts when it was
// never decided and there is an address book. Only meaningful once the
// wizard reached its last step.
std::vector<std::string> skippedPermissions(const AppModel::Published& published);

// "Automation and Contacts. Turn them on anytime from Setup… in the menu.";
// empty when nothing was skipped.
std::string skippedPermissionsSentence(const std::vector<std::string>& names);

}  // namespace corvane::SetupTexts
