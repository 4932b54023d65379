#include "app/model/setup_texts.h"

#include "core/protocol/server_url.h"
#include "core/protocol/url_parts.h"

namespace corvane::SetupTexts {

std::string serverHost(std::string_view server) {
  auto parts = parseURL(server);
  if (!parts || parts->host.empty()) return std::string(server);
  return parts->host;
}

LinkConfirmation linkConfirmation(const ConnectLink& link, const AppModel::Published& published) {
  const std::string& server = link.server ? *link.server : published.server;
  const std::string host = serverHost(server);
  LinkConfirmation result;
  if (published.connected) {
    // Without a known account name the sentence still reads: "This Mac is
    // connected. Switch it …".
    result.question = "This Mac is connected";
    if (published.userName && !published.userName->empty()) {
      result.question += " as " + *published.userName;
    }
    result.question += ". Switch it to the account from this link on " + host;
  } else {
    result.question = "Connect this Mac to the Corvane account at " + host;
  }
  result.untrusted = !ServerURL::isTrusted(server);
  return result;
}

std::string moveFailed(std::string_view error) {
  // The system's descriptions are sentences: their own full stop would
  // double the one that follows.
  if (error.ends_with('.')) error.remove_suffix(1);
  return "Couldn't move Corvane: " + std::string(error) +
         ". Drag it into Applications yourself, then open it from there.";
}

std::vector<std::string> skippedPermissions(const AppModel::Published& published) {
  std::vector<std::string> names;
  if (published.automation != PermissionState::granted) names.emplace_back("Automation");
  // A denied answer was the user's decision, not a skip; without an address
  // book there is nothing to turn on later.
  if (published.contacts == PermissionState::unknown && published.addressBook) {
    names.emplace_back("Contacts");
  }
  return names;
}

std::string skippedPermissionsSentence(const std::vector<std::string>& names) {
  if (names.empty()) return {};
  std::string sentence;
  for (std::size_t i = 0; i < names.size(); ++i) {
    if (i > 0) sentence += " and ";
    sentence += names[i];
  }
  sentence += ". Turn ";
  sentence += names.size() > 1 ? "them" : "it";
  sentence += " on anytime from Setup\u2026 in the menu.";
  return sentence;
}

}  // namespace corvane::SetupTexts
