#include "app/model/setup_texts.h"

#include <gtest/gtest.h>

#include "core/protocol/server_url.h"

namespace corvane {
namespace {

// The done step's sentence, as the window composes it.
TEST(SetupTextsTest, SkippedPermissionsAreTheOnesLeftOffAndUndecidedWithThePronoun) {
  using S = PermissionState;
  const std::string turnOn = " anytime from Setup\u2026 in the menu.";
  const struct {
    S automation, contacts;
    std::string sentence;
    bool addressBook = true;
  } cases[] = {
      {S::granted, S::granted, ""},
      {S::granted, S::denied, ""},  // the user answered: not a skip
      {S::granted, S::unknown, "Contacts. Turn it on" + turnOn},
      {S::denied, S::granted, "Automation. Turn it on" + turnOn},
      {S::unknown, S::unknown, "Automation and Contacts. Turn them on" + turnOn},
      {S::unknown, S::unknown, "Automation. Turn it on" + turnOn, false},  // nothing to turn on
  };
  for (const auto& c : cases) {
    AppModel::Published p;
    p.automation = c.automation;
    p.contacts = c.contacts;
    p.addressBook = c.addressBook;
    EXPECT_EQ(SetupTexts::skippedPermissionsSentence(SetupTexts::skippedPermissions(p)), c.sentence)
        << static_cast<int>(c.automation) << "/" << static_cast<int>(c.contacts);
  }
}

TEST(SetupTextsTest, LinkConfirmationNamesTheAccountAndWarnsOfAnUnusualServer) {
  const std::string trustedHost = *ServerURL::trustedHosts().begin();
  const std::string trusted = "https://" + trustedHost;
  struct Case {
    std::string current;
    std::optional<std::string> linkServer;
    std::optional<std::string> connectedAs;  // "": connected, no name known
    std::string question;
    bool untrusted;
  };
  const Case cases[] = {
      {"http://127.0.0.1:8787", trusted, std::nullopt,
       "Connect this Mac to the Corvane account at " + trustedHost, false},
      // Without a server the link is for the current one.
      {"http://127.0.0.1:8787", std::nullopt, std::nullopt,
       "Connect this Mac to the Corvane account at 127.0.0.1", true},
      {trusted, "https://other.example", "Sam Lee",
       "This Mac is connected as Sam Lee. Switch it to the account from this link on "
       "other.example",
       true},
      {trusted, "https://other.example", "",
       "This Mac is connected. Switch it to the account from this link on other.example", true},
  };
  for (const auto& c : cases) {
    AppModel::Published published;
    published.server = c.current;
    published.connected = c.connectedAs.has_value();
    if (c.connectedAs && !c.connectedAs->empty()) published.userName = c.connectedAs;
    const auto confirmation = SetupTexts::linkConfirmation({"ABCD1234", c.linkServer}, published);
    EXPECT_EQ(confirmation.question, c.question);
    EXPECT_EQ(confirmation.untrusted, c.untrusted) << c.question;
  }
}

}  // namespace
}  // namespace corvane
