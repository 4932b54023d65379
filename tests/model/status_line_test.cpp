#include "app/model/status_line.h"

#include <gtest/gtest.h>

namespace corvane {
namespace {

constexpr std::int64_t kNow = 1'700'000'000'000;

TEST(StatusLineTest, FirstMatchingRowWins) {
  const SyncPhase syncing = SyncPhase::syncing();
  const struct {
    const char* name;
    bool connected = true, fullDiskAccess = true, paused = false;
    SyncPhase phase{};
    std::optional<std::int64_t> rosterCount{}, agoMs{};
    std::string expected;
  } cases[] = {
      {.name = "not connected beats everything", .connected = false, .fullDiskAccess = false,
       .paused = true, .expected = "Not connected"},
      {.name = "no disk access beats paused", .fullDiskAccess = false, .paused = true,
       .expected = "Needs permission"},
      {.name = "paused beats an error", .paused = true,
       .phase = SyncPhase::error("Sync problem \u2014 retrying"), .expected = "Paused"},
      {.name = "an error shows its text",
       .phase = SyncPhase::error("Open Messages and sign in to iMessage"),
       .expected = "Open Messages and sign in to iMessage"},
      {.name = "nothing known yet", .expected = "Connected"},
      {.name = "first cycle running", .phase = syncing, .expected = "Syncing\u2026"},
      {.name = "one person", .rosterCount = 1, .agoMs = 5'000,
       .expected = "Syncing 1 person \u00B7 last sync just now"},
      {.name = "several people, syncing again", .phase = syncing, .rosterCount = 3,
       .agoMs = 5 * 60'000, .expected = "Syncing 3 people \u00B7 last sync 5 min ago"},
      {.name = "empty roster", .rosterCount = 0, .agoMs = 2 * 3'600'000,
       .expected = "Connected \u00B7 last sync 2 hr ago"},
      {.name = "roster known, no sync yet", .rosterCount = 4, .expected = "Syncing 4 people"},
  };
  for (const auto& c : cases) {
    AppModel::Published p;
    p.connected = c.connected;
    p.fullDiskAccess = c.fullDiskAccess;
    p.paused = c.paused;
    p.phase = c.phase;
    p.rosterCount = c.rosterCount;
    p.now = kNow;
    if (c.agoMs) p.lastSyncAt = kNow - *c.agoMs;
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
