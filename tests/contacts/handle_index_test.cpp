#include "core/contacts/handle_index.h"

#include <gtest/gtest.h>

#include <string>

namespace corvane {
namespace {

TEST(HandleIndexTest, ExactKeysWinOverLastTenDigitsAndTheFirstValueWins) {
  HandleIndex<std::string> index;
  index.set("+14155550100", "A");
  index.set("4155550100", "B");

  EXPECT_EQ(index.get("4155550100"), "B");
  EXPECT_EQ(index.get("+14155550100"), "A");
  EXPECT_EQ(index.get("(415) 555-0100"), "A");
  EXPECT_EQ(index.get("+1 415 555 0100"), "A");
  EXPECT_EQ(index.count(), 2u);
}

TEST(HandleIndexTest, LaterValuesNeverOverwrite) {
  HandleIndex<int> index;
  index.set("+442079460000", 1);
  index.set("+442079460000", 2);
  index.set("+12079460000", 3);  // same last ten digits, new exact key

  EXPECT_EQ(index.get("+442079460000"), 1);
  EXPECT_EQ(index.get("+12079460000"), 3);
  EXPECT_EQ(index.get("02079460000"), 1);
  EXPECT_EQ(index.count(), 2u);
}

TEST(HandleIndexTest, EmailAddressesMatchOnlyExactly) {
  HandleIndex<int> index;
  index.set("4155550100@example.com", 1);
  index.set("alex@example.org", 2);

  EXPECT_EQ(index.get("4155550100@example.com"), 1);
  EXPECT_EQ(index.get("+14155550100"), std::nullopt);
  EXPECT_EQ(index.get("14155550100@example.com"), std::nullopt);
  EXPECT_EQ(index.get("Alex@example.org"), std::nullopt);

  index.set("+14155550100", 3);
  EXPECT_EQ(index.get("9994155550100@example.com"), std::nullopt);
}

TEST(HandleIndexTest, ShortNumbersMatchOnlyExactly) {
  HandleIndex<int> index;
  index.set("123456", 1);

  EXPECT_EQ(index.get("123456"), 1);
  EXPECT_EQ(index.get("0123456"), std::nullopt);
  EXPECT_EQ(index.get("+123456"), std::nullopt);
}

}  // namespace
}  // namespace corvane
