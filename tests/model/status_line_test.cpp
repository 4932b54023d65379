#include "app/model/status_line.h"

#include <gtest/gtest.h>

namespace corvane {
namespace {

constexpr std::int64_t kNow = 1'700'000'000'000;

AppModel::Published syncingFine() {
  AppModel::Published p;
  p.connected = true;
  p.fullDiskAccess = true;
  p.now = kNow;
  return p;
}

TEST(StatusLineTest, FirstMatchingRowWins) {
  const struct {
    const char* name;
    std::function<void(AppModel::Published&)> set;
    std::string expected;
  } cases[] = {
      {"not connected beats everything",
       [](auto& p) {
         p.connected = false;
         p.fullDiskAccess = false;
         p.paused = true;
       },
       "Not connected"},
      {"no disk access beats paused",
       [](auto& p) {
         p.fullDiskAccess = false;
         p.paused = true;
       },
       "Needs permission"},
      {"paused beats an error",
       [](auto& p) {
         p.paused = true;
         p.phase = SyncPhase::error("Sync problem \u2014 retrying");
       },
       "Paused"},
      {"an error shows its text", [](auto& p) { p.phase = SyncPhase::error("Open Messages and sign in to iMessage"); },
       "Open Messages and sign in to iMessage"},
      {"nothing known yet", [](auto&) {}, "Connected"},
      {"first cycle running", [](auto& p) { p.phase = SyncPhase::syncing(); }, "Syncing\u2026"},
      {"one person",
       [](auto& p) {
         p.rosterCount = 1;
         p.lastSyncAt = kNow - 5'000;
       },
       "Syncing 1 person \u00B7 last sync just now"},
      {"several people, syncing again",
       [](auto& p) {
         p.rosterCount = 3;
         p.lastSyncAt = kNow - 5 * 60'000;
         p.phase = SyncPhase::syncing();
       },
       "Syncing 3 people \u00B7 last sync 5 min ago"},
      {"empty roster", [](auto& p) {
         p.rosterCount = 0;
         p.lastSyncAt = kNow - 2 * 3'600'000;
       },
       "Connected \u00B7 last sync 2 hr ago"},
      {"roster known, no sync yet", [](auto& p) { p.rosterCount = 4; }, "Syncing 4 people"},
  };
  for (const auto& c : cases) {
    AppModel::Published p = syncingFine();
    c.set(p);
    EXPECT_EQ(statusLine(p), c.expected) << c.name;
  }
}

TEST(StatusLineTest, RelativeTimeRoundsDownToTheLargestUnit) {
  const struct {
    std::int64_t agoMs;
    const char* expected;
  } cases[] = {
      {-10'000, "just now"},         {0, "just now"},
      {59'999, "just now"},          {60'000, "1 min ago"},
      {3'599'999, "59 min ago"},     {3'600'000, "1 hr ago"},
      {86'399'999, "23 hr ago"},     {86'400'000, "1 day ago"},
      {3 * 86'400'000, "3 days ago"},
  };
  for (const auto& c : cases) EXPECT_EQ(relativeTime(kNow - c.agoMs, kNow), c.expected) << c.agoMs;
}

}  // namespace
}  // namespace corvane
