#include "core/contacts/system_contacts.h"

#include <gtest/gtest.h>

#include <tuple>

namespace corvane {
namespace {

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
