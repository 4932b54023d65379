// Percent-encoding of URL components with an explicit set of characters that
// stay as they are. Pure; safe to call from any thread.
#pragma once

#include <string>
#include <string_view>

namespace corvane {

// `text` with every byte percent-encoded ("%2F", upper-case hex) except ASCII
// letters, digits and the characters in `alsoKeep`. Non-ASCII letters are
// encoded too (as their UTF-8 bytes), so the result is always plain ASCII.
std::string percentEscape(std::string_view text, std::string_view alsoKeep);

// Unreserved characters kept in a path segment ("a b/c" -> "a%20b%2Fc").
inline constexpr std::string_view kPathSegmentKeep = "-_.~";

}  // namespace corvane
