#include "core/sync/self_channel.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <vector>

namespace corvane {
namespace {

using SelfChannel::SkipReason;

constexpr std::int64_t kNow = 1'700'000'000'000;

ChatDB::SelfRow row(std::int64_t rowid, std::string text, std::int64_t sentAtMs) {
  return {rowid, "guid-" + std::to_string(rowid), std::move(text), true, sentAtMs, 0};
}

TEST(SelfChannelTest, NormalizeForMatchFoldsWhatMessagesChanges) {
  const std::pair<std::string, std::string> cases[] = {
      {"  hello \n", "hello"},
      {"cafe\u0301", "caf\u00e9"},
      {"it\u2018s", "it's"},
      {"it\u2019s", "it's"},
      {"\u201Cquoted\u201D", "\"quoted\""},
      {"\uFFFC\nHere it is ", "Here it is"},
      {"line one\nline two", "line one\nline two"},
      {"ab\xff", "ab\uFFFD"},
  };
  for (const auto& [input, expected] : cases) {
    const std::string once = SelfChannel::normalizeForMatch(input);
    EXPECT_EQ(once, expected) << input;
    EXPECT_EQ(SelfChannel::normalizeForMatch(once), once) << input;
  }
}

TEST(SelfChannelTest, PruneDropsOldEntriesThenKeepsTheNewestByPosition) {
  const std::vector<SentText> list = {
      {"a", kNow - 101}, {"b", kNow - 100}, {"c", kNow}, {"d", kNow + 50}, {"e", kNow - 1}};
  EXPECT_EQ(SelfChannel::prune(list, kNow, 100, 4),
            (std::vector<SentText>{list[1], list[2], list[3], list[4]}));
  EXPECT_EQ(SelfChannel::prune(list, kNow, 100, 2), (std::vector<SentText>{list[3], list[4]}));
  EXPECT_TRUE(SelfChannel::prune(list, kNow, 100, 0).empty());
}

TEST(SelfChannelTest, PlanBoundaries) {
  const std::int64_t replyAt = kNow - 700'000;
  const std::vector<SentText> assistantSent = {{"reply", replyAt}};
  // Posted notes are recorded as sent; they are compared normalised.
  const std::vector<SentText> selfPosted = {{"note", kNow - 20'000},
                                            {" it\u2019s here\uFFFC", kNow - 2'000}};
  struct Case {
    const char* what;
    ChatDB::SelfRow row;
    std::optional<SkipReason> expected;
  };
  const Case cases[] = {
      {"echo at exactly the window", row(1, "reply", replyAt + 600'000), SkipReason::echo},
      {"echo a millisecond later", row(1, "reply", replyAt + 600'001), std::nullopt},
      {"echo written the window before", row(1, "reply", replyAt - 600'000), SkipReason::echo},
      {"echo a millisecond earlier", row(1, "reply", replyAt - 600'001), std::nullopt},
      {"echo as Messages changed it", row(1, " reply\uFFFC\n", replyAt + 10), SkipReason::echo},
      {"mirror at exactly the window", row(1, "note", kNow - 15'000), SkipReason::duplicate},
      {"mirror a millisecond later", row(1, "note", kNow - 14'999), std::nullopt},
      {"mirror written before the post", row(1, "note", kNow - 25'000), SkipReason::duplicate},
      {"note exactly 12 hours old", row(1, "fresh", kNow - 43'200'000), std::nullopt},
      {"note a millisecond older", row(1, "stale", kNow - 43'200'001), SkipReason::tooOld},
      {"mirror of a note recorded unnormalised", row(1, "it's here", kNow - 1'000),
       SkipReason::duplicate},
  };
  for (const auto& c : cases) {
    const auto decisions = SelfChannel::plan({c.row}, assistantSent, selfPosted, kNow);
    ASSERT_EQ(decisions.size(), 1u) << c.what;
    EXPECT_EQ(decisions[0].reason, c.expected) << c.what;
    EXPECT_EQ(decisions[0].isPost(), !c.expected.has_value()) << c.what;
    EXPECT_EQ(decisions[0].row, c.row) << c.what;
  }
}

TEST(SelfChannelTest, PlanTreatsEarlierPostsOfTheSamePlanAsPosted) {
  const std::int64_t t = kNow - 60'000;
  const auto decisions = SelfChannel::plan(
      {
          row(1, "buy milk", t),
          row(2, "buy milk\uFFFC", t + 5'000),    // the mirrored copy
          row(3, "buy milk", t + 20'000),         // written again later: a new note
          row(4, "old idea", kNow - 43'200'500),  // too old, so never planned...
          row(5, "old idea", kNow - 43'199'000),  // ...and can't make this one a duplicate
          row(6, "reply", t),                     // an echo is not planned either
          row(7, "reply", t + 1'000),
      },
      {{"reply", t - 600'000}}, {}, kNow);
  const std::optional<SkipReason> expected[] = {std::nullopt, SkipReason::duplicate, std::nullopt,
                                                SkipReason::tooOld, std::nullopt, SkipReason::echo,
                                                std::nullopt};
  ASSERT_EQ(decisions.size(), std::size(expected));
  for (std::size_t i = 0; i < decisions.size(); ++i) {
    EXPECT_EQ(decisions[i].reason, expected[i]) << i;
    EXPECT_EQ(decisions[i].row.rowid, static_cast<std::int64_t>(i + 1));
  }
}

TEST(SelfChannelDeathTest, OverflowingTimeDifferenceIsFatal) {
  const std::vector<SentText> list = {{"x", std::numeric_limits<std::int64_t>::min()}};
  EXPECT_DEATH(SelfChannel::prune(list, kNow, 100, 5), "overflows");
  EXPECT_DEATH(SelfChannel::isAssistantEcho("x", kNow, list, 100), "overflows");
}

}  // namespace
}  // namespace corvane
