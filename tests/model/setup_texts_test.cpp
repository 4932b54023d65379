#include "app/model/setup_texts.h"

#include <gtest/gtest.h>

#include "core/protocol/server_url.h"

namespace corvane {
namespace {

TEST(SetupTextsTest, SkippedSentenceJoinsNamesAndPicksThePronoun) {
  struct Case {
    std::vector<std::string> names;
    std::string sentence;
  };
  const Case cases[] = {
      {{}, ""},
      {{"Automation"}, "Automation. Turn it on anytime from Setup\u2026 in the menu."},
      {{"Contacts"}, "Contacts. Turn it on anytime from Setup\u2026 in the menu."},
      {{"Automation", "Contacts"},
       "Automation and Contacts. Turn them on anytime from Setup\u2026 in the menu."},
      {{"A", "B", "C"}, "A and B and C. Turn them on anytime from Setup\u2026 in the menu."},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(SetupTexts::skippedPermissionsSentence(c.names), c.sentence) << c.names.size();
  }
}

TEST(SetupTextsTest, SkippedPermissionsAreTheOnesLeftOffAndUndecided) {
  using S = PermissionState;
  struct Case {
    S automation, contacts;
    std::vector<std::string> names;
  };
  const Case cases[] = {
      {S::granted, S::granted, {}},
      {S::granted, S::denied, {}},  // the user answered: not a skip
      {S::granted, S::unknown, {"Contacts"}},
      {S::denied, S::granted, {"Automation"}},
      {S::unknown, S::denied, {"Automation"}},
      {S::denied, S::unknown, {"Automation", "Contacts"}},
      {S::unknown, S::unknown, {"Automation", "Contacts"}},
  };
  for (const auto& c : cases) {
    AppModel::Published p;
    p.automation = c.automation;
    p.contacts = c.contacts;
    EXPECT_EQ(SetupTexts::skippedPermissions(p), c.names)
        << static_cast<int>(c.automation) << "/" << static_cast<int>(c.contacts);
  }
}

TEST(SetupTextsTest, ServerHostDropsSchemeAndPort) {
  EXPECT_EQ(SetupTexts::serverHost("https://example.test"), "example.test");
  EXPECT_EQ(SetupTexts::serverHost("http://127.0.0.1:8787"), "127.0.0.1");
  EXPECT_EQ(SetupTexts::serverHost("not a url"), "not a url");
}

class LinkConfirmationTest : public ::testing::Test {
 protected:
  std::string trustedServer = "https://" + *ServerURL::trustedHosts().begin();
  AppModel::Published published;
};

TEST_F(LinkConfirmationTest, TrustedLinkServerAsksWithoutWarning) {
  published.server = "http://127.0.0.1:8787";
  auto c = SetupTexts::linkConfirmation({"ABCD1234", trustedServer}, published);
  EXPECT_EQ(c.question, "Connect this Mac to the Corvane account at " +
                            *ServerURL::trustedHosts().begin());
  EXPECT_FALSE(c.untrusted);
}

TEST_F(LinkConfirmationTest, LinkWithoutServerUsesTheCurrentOneAndWarnsWhenUntrusted) {
  published.server = "http://127.0.0.1:8787";
  auto c = SetupTexts::linkConfirmation({"ABCD1234", std::nullopt}, published);
  EXPECT_EQ(c.question, "Connect this Mac to the Corvane account at 127.0.0.1");
  EXPECT_TRUE(c.untrusted);

  published.server = trustedServer;
  EXPECT_FALSE(SetupTexts::linkConfirmation({"ABCD1234", std::nullopt}, published).untrusted);
}

TEST_F(LinkConfirmationTest, ConnectedMacIsAskedToSwitchAccounts) {
  published.server = trustedServer;
  published.connected = true;
  published.userName = "Sam Lee";
  auto c = SetupTexts::linkConfirmation({"ABCD1234", "https://other.example"}, published);
  EXPECT_EQ(c.question,
            "This Mac is connected as Sam Lee. Switch it to the account from this link on "
            "other.example");
  EXPECT_TRUE(c.untrusted);

  published.userName.reset();
  EXPECT_EQ(SetupTexts::linkConfirmation({"ABCD1234", "https://other.example"}, published).question,
            "This Mac is connected. Switch it to the account from this link on other.example");
}

TEST(SetupTextsTest, MoveFailureWrapsTheErrorWithOneFullStop) {
  for (const char* error : {"The disk is full", "The disk is full."}) {
    EXPECT_EQ(SetupTexts::moveFailed(error),
              "Couldn't move Corvane: The disk is full. Drag it into Applications yourself, then "
              "open it from there.")
        << error;
  }
}

}  // namespace
}  // namespace corvane
