// What a Messages database offers a roster: the user's own handles and the
// correspondents with the most messages, read through ChatDB exactly as the
// agent reads the file. Works on any Messages-schema database, generated or
// not, so the demo and the benchmarks can draw a roster from a cached file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace corvane::chatdbgen {

struct RosterSummary {
  std::int64_t maxRowId = 0;
  std::int64_t oneToOneChats = 0;       // as ChatDB counts them, notes to self included
  std::vector<std::string> ownHandles;  // normalised
  // Normalised handles of the most active correspondents, most messages first
  // (a person's iMessage and SMS chats counted together), own handles left out.
  std::vector<std::string> roster;
};

// Reads the database at `path`; `rosterSize` caps the roster. Throws
// ChatDB::OpenError or SQLiteError.
RosterSummary readRoster(const std::string& path, std::size_t rosterSize);

}  // namespace corvane::chatdbgen
