#include "app/model/status_line.h"

namespace corvane {
namespace {

std::string count(std::int64_t n, const char* one, const char* many) {
  return std::to_string(n) + " " + (n == 1 ? one : many);
}

}  // namespace

std::string relativeTime(std::int64_t thenMs, std::int64_t nowMs) {
  const std::int64_t sec = (nowMs - thenMs) / 1000;
  if (sec < 60) return "just now";
  if (sec < 3600) return std::to_string(sec / 60) + " min ago";
  if (sec < 86400) return std::to_string(sec / 3600) + " hr ago";
  return count(sec / 86400, "day", "days") + " ago";
}

std::string statusLine(const AppModel::Published& p) {
  if (!p.connected) return "Not connected";
  if (!p.fullDiskAccess) return "Needs permission";
  if (p.paused) return "Paused";
  if (p.phase.kind == SyncPhase::Kind::error) return p.phase.text;
  if (!p.lastSyncAt && p.phase.kind == SyncPhase::Kind::syncing) return "Syncing\u2026";
  std::string line = p.rosterCount && *p.rosterCount >= 1
                         ? "Syncing " + count(*p.rosterCount, "person", "people")
                         : "Connected";
  if (p.lastSyncAt) line += " \u00B7 last sync " + relativeTime(*p.lastSyncAt, p.now);
  return line;
}

}  // namespace corvane
