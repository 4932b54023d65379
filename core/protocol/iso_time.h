// The agent's two time helpers. Inside the agent times are signed 64-bit
// Unix milliseconds; on the wire and in the state file they are UTC strings
// of the form "2023-11-14T22:13:20.123Z". Both functions are thread-safe.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace corvane {

// The wall clock as whole milliseconds since the Unix epoch (rounded to nearest).
std::int64_t nowMs();

// `ms` as "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ" in UTC; negative times round
// down to the earlier second, so -1 is "1969-12-31T23:59:59.999Z".
std::string isoString(std::int64_t ms);

// The milliseconds of an isoString text ("2024-05-01T12:00:00.250Z"; the
// fraction may be absent); nothing for any other text or an impossible date.
std::optional<std::int64_t> parseIsoString(std::string_view text);

}  // namespace corvane
