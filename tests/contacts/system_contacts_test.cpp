#include "core/contacts/system_contacts.h"

#include <gtest/gtest.h>

namespace corvane {
namespace {

TEST(SystemContactsTest, MapsPlatformStatusesToPermissions) {
  const struct {
    long status;
    PermissionState expected;
  } cases[] = {
      {0, PermissionState::unknown}, {1, PermissionState::denied},  {2, PermissionState::denied},
      {3, PermissionState::granted}, {4, PermissionState::granted}, {-1, PermissionState::unknown},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(SystemContacts::permissionFromStatus(c.status), c.expected) << c.status;
  }
}

std::vector<IndexedContactBook::Entry> oneCard() {
  return {{ContactName("Alex", std::nullopt, std::nullopt, std::nullopt), {"(415) 555-0100"}, {}}};
}

TEST(SystemContactsTest, WithoutPermissionTheBookIsEmptyAndContactsAreNotRead) {
  for (const auto permission : {PermissionState::denied, PermissionState::unknown}) {
    int reads = 0;
    const auto book = SystemContacts::loadBook(permission, "US", [&] {
      ++reads;
      return std::optional(oneCard());
    });
    EXPECT_EQ(book->count(), 0u);
    EXPECT_EQ(reads, 0);
  }
}

TEST(SystemContactsTest, FailedReadGivesAnEmptyBook) {
  const auto book = SystemContacts::loadBook(PermissionState::granted, "US", [] {
    return std::optional<std::vector<IndexedContactBook::Entry>>();
  });
  EXPECT_EQ(book->count(), 0u);
}

TEST(SystemContactsTest, GrantedReadIsIndexedInTheRegion) {
  const auto book = SystemContacts::loadBook(PermissionState::granted, "US",
                                             [] { return std::optional(oneCard()); });
  EXPECT_EQ(book->count(), 1u);
  ASSERT_TRUE(book->lookup("+14155550100"));
  EXPECT_EQ(book->lookup("+14155550100")->displayName, "Alex");
}

}  // namespace
}  // namespace corvane
