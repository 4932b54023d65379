// The first line of the menu: how syncing goes, in a few words. Pure
// functions of the model's published fields; safe from any thread.
#pragma once

#include <cstdint>
#include <string>

#include "app/model/app_model.h"

namespace corvane {

// "Not connected", "Needs permission", "Paused", the sync error's own text,
// or "Syncing 3 people · last sync 5 min ago" and its shorter forms.
std::string statusLine(const AppModel::Published& p);

// How long before `nowMs` `thenMs` was, for people: "just now", "1 min ago",
// "2 hr ago", "3 days ago". A time in the future reads "just now".
std::string relativeTime(std::int64_t thenMs, std::int64_t nowMs);

}  // namespace corvane
