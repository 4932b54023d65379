#include "core/contacts/contact_book.h"

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <utility>

#include "core/contacts/handle_index.h"
#include "core/contacts/system_contacts.h"

namespace corvane {
namespace {

using Opt = std::optional<std::string>;

TEST(ContactNameTest, TrimsPartsAndChoosesTheDisplayName) {
  const struct {
    Opt first, last, nickname, organization;
    Opt displayName;
  } cases[] = {
      {" Alex ", std::nullopt, std::nullopt, "Acme", "Alex"},
      {std::nullopt, std::nullopt, std::nullopt, "Acme", "Acme"},
      {std::nullopt, std::nullopt, "Al", "Acme", "Al"},
      {"Alex", "Kim", "Al", "Acme", "Alex Kim"},
      {std::nullopt, "Kim", "Al", std::nullopt, "Kim"},
      {"", "  ", "\n", " Acme Corp ", "Acme Corp"},
      {"", "  ", std::nullopt, std::nullopt, std::nullopt},
  };
  for (const auto& c : cases) {
    const ContactName name(c.first, c.last, c.nickname, c.organization);
    EXPECT_EQ(name.displayName, c.displayName)
        << c.first.value_or("-") << "/" << c.last.value_or("-");
  }
}

TEST(ContactNameTest, StoresTrimmedPartsAndBlankOnesAsAbsent) {
  EXPECT_EQ(ContactName("", "  ", "\u2028", "\u00A0"), ContactName());
  const ContactName alex(" Alex ", std::nullopt, " Al\n", std::nullopt);
  EXPECT_EQ(alex.firstName, "Alex");
  EXPECT_EQ(alex.nickname, "Al");
}

IndexedContactBook::Entry card(const char* first, std::vector<std::string> phones,
                               std::vector<std::string> emails = {}) {
  return {ContactName(first, std::nullopt, std::nullopt, std::nullopt), std::move(phones),
          std::move(emails)};
}

std::optional<std::string> displayNameFor(const ContactBook& book, std::string_view handle) {
  const auto name = book.lookup(handle);
  return name ? name->displayName : std::nullopt;
}

TEST(IndexedContactBookTest, FindsHandlesStoredInOtherForms) {
  const struct {
    IndexedContactBook book;
    std::string handle;
    Opt expected;
  } cases[] = {
      // A number on two cards names the first.
      {{{card("Alex", {"(415) 555-0100"}), card("Sam", {"+1 415 555 0100", "020 7946 0000"})},
        "US"}, "+14155550100", "Alex"},
      {{{card("Sam", {"020 7946 0000"})}, "US"}, "20794600", std::nullopt},
      // Read as a British number it becomes +444155550100; it still meets on its last ten digits.
      {{{card("Alex", {"415-555-0100"})}, "GB"}, "+14155550100", "Alex"},
      {{{card("Camille", {"06 12 34 56 78"})}, "FR"}, "+33612345678", "Camille"},
      // E-mail addresses are indexed by their normalised form only.
      {{{card("Alex", {}, {" Alex@Example.ORG"})}, "US"}, "alex@example.org", "Alex"},
      {{{card("Alex", {}, {"mailto:alex@work.io"})}, "US"}, "alex@work.io", "Alex"},
      {{{card("Alex", {}, {" Alex@Example.ORG"})}, "US"}, "Alex@Example.ORG", std::nullopt},
  };
  for (const auto& c : cases) EXPECT_EQ(displayNameFor(c.book, c.handle), c.expected) << c.handle;
}

TEST(IndexedContactBookTest, CountsDistinctHandlesAndSkipsUnusableValues) {
  const IndexedContactBook book({card("Alex", {"(415) 555-0100", "415.555.0100", "12", ""},
                                      {"alex@example.org", "ALEX@example.org", "a@", "urn:x:1"}),
                                 card("Nobody", {}, {}), card("Sam", {"+1 415 555 0100"})},
                                "US");
  EXPECT_EQ(book.count(), 2u);
  EXPECT_EQ(displayNameFor(book, "12"), std::nullopt);
}

TEST(HandleIndexTest, ExactKeysWinOverLastTenDigitsAndTheFirstValueWins) {
  HandleIndex<std::string> index;
  index.set("+14155550100", "A");
  index.set("4155550100", "B");
  index.set("+14155550100", "C");
  index.set("+444155550100", "D");  // same last ten digits, new exact key

  EXPECT_EQ(index.get("4155550100"), "B");
  EXPECT_EQ(index.get("+14155550100"), "A");
  EXPECT_EQ(index.get("+444155550100"), "D");
  EXPECT_EQ(index.get("(415) 555-0100"), "A");
  EXPECT_EQ(index.count(), 3u);
}

TEST(HandleIndexTest, EmailAddressesAndShortNumbersMatchOnlyExactly) {
  HandleIndex<int> index;
  index.set("4155550100@example.com", 1);
  index.set("alex@example.org", 2);
  index.set("123456", 3);

  EXPECT_EQ(index.get("4155550100@example.com"), 1);
  EXPECT_EQ(index.get("+14155550100"), std::nullopt);
  EXPECT_EQ(index.get("14155550100@example.com"), std::nullopt);
  EXPECT_EQ(index.get("Alex@example.org"), std::nullopt);
  EXPECT_EQ(index.get("123456"), 3);
  EXPECT_EQ(index.get("0123456"), std::nullopt);
  EXPECT_EQ(index.get("+123456"), std::nullopt);

  index.set("+14155550100", 4);
  EXPECT_EQ(index.get("9994155550100@example.com"), std::nullopt);
}

TEST(SystemContactsTest, MapsPlatformStatusesToPermissions) {
  const std::pair<long, PermissionState> cases[] = {
      {0, PermissionState::unknown}, {1, PermissionState::denied},  {2, PermissionState::denied},
      {3, PermissionState::granted}, {4, PermissionState::granted}, {-1, PermissionState::unknown},
  };
  for (const auto& [status, expected] : cases) {
    EXPECT_EQ(SystemContacts::permissionFromStatus(status), expected) << status;
  }
}

std::vector<IndexedContactBook::Entry> oneCard() {
  return {{ContactName("Alex", std::nullopt, std::nullopt, std::nullopt), {"(415) 555-0100"}, {}}};
}

// Contacts are read only with permission; a failed read is an empty book.
TEST(SystemContactsTest, LoadsTheBookOnlyWithPermissionAndAWorkingRead) {
  const std::tuple<PermissionState, bool, std::size_t, int> cases[] = {
      {PermissionState::denied, true, 0, 0},
      {PermissionState::unknown, true, 0, 0},
      {PermissionState::granted, false, 0, 1},
      {PermissionState::granted, true, 1, 1},
  };
  for (const auto& [permission, readWorks, count, expectedReads] : cases) {
    int reads = 0;
    const auto book = SystemContacts::loadBook(permission, "US", [&, readWorks = readWorks] {
      ++reads;
      return readWorks ? std::optional(oneCard()) : std::nullopt;
    });
    EXPECT_EQ(book->count(), count);
    EXPECT_EQ(reads, expectedReads);
    if (count > 0) {
      const auto name = book->lookup("+14155550100");
      EXPECT_EQ(name ? name->displayName : std::nullopt, "Alex") << "indexed in the region";
    }
  }
}

}  // namespace
}  // namespace corvane
