// Inputs the server-URL fuzz target found in connect links, each pinned to
// the invariant it broke.
#include <gtest/gtest.h>

#include <optional>

#include "core/protocol/connect_link.h"

namespace corvane {
namespace {

// An empty value was read on into the rest of the query, so
// "code=&server=" gave the code "&server=".
TEST(ConnectLinkFuzzRegression, EmptyValueStaysEmpty) {
  EXPECT_EQ(ConnectLink::parse(ConnectLink::make("", "")), std::nullopt);
  EXPECT_EQ(ConnectLink::parse("corvane://connect?code=&server="), std::nullopt);
  EXPECT_EQ(ConnectLink::parse("corvane://connect?code=&x=ABCDEF"), std::nullopt);
  EXPECT_EQ(ConnectLink::parse("corvane://connect?code=&code=WXYZ"), std::nullopt);
}

}  // namespace
}  // namespace corvane
