// The benchmark databases: generated once with chatdb-gen's library and kept
// in a cache directory, named after everything that shapes them, so a second
// run (or a changed size) never regenerates what is already there.
#pragma once

#include <cstdint>
#include <string>

namespace corvane::bench {

// Dates end here; the benchmark's clock stands at this instant too.
inline constexpr std::int64_t kEndMs = 1735689600000;  // 2025-01-01T00:00:00Z

// The path of the database with `messages` rows in `dir`, generating it
// first when missing (into a temporary name, renamed when complete, so an
// interrupted run leaves no half-written file behind). Progress goes to stderr.
std::string ensureDatabase(const std::string& dir, std::int64_t messages);

}  // namespace corvane::bench
