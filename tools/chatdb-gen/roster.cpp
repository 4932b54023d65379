#include "tools/chatdb-gen/roster.h"

#include <algorithm>
#include <set>

#include "core/chatdb/chat_db.h"
#include "core/contacts/contact_book.h"
#include "core/contacts/phone.h"

namespace corvane::chatdbgen {

RosterSummary readRoster(const std::string& path, std::size_t rosterSize) {
  ChatDB db(path, std::string(Phone::defaultRegion));
  RosterSummary summary;
  summary.maxRowId = db.maxRowId();
  summary.oneToOneChats = static_cast<std::int64_t>(db.oneToOneChats().size());
  // From the start of the epoch: databases that count seconds compare their
  // raw dates with this bound too, and every date is above it.
  summary.ownHandles = db.ownHandles(0, ChatDB::ownHandlesMax);

  auto directory = db.buildDirectory(0, EmptyContactBook(),
                                     {summary.ownHandles.begin(), summary.ownHandles.end()});
  std::stable_sort(directory.begin(), directory.end(), [](const auto& a, const auto& b) {
    return a.messageCount != b.messageCount ? a.messageCount > b.messageCount : a.handle < b.handle;
  });
  for (std::size_t i = 0; i < directory.size() && i < rosterSize; ++i) {
    summary.roster.push_back(directory[i].handle);
  }
  return summary;
}

}  // namespace corvane::chatdbgen
