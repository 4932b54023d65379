// Percent-encoding of URL components with an explicit set of characters that
// stay as they are. Pure; safe to call from any thread.
#pragma once

#include <string>
#include <string_view>

namespace corvane {

// `text` with every character percent-encoded as its UTF-8 bytes ("%2F",
// upper-case hex) except the platform's alphanumeric set (letters, marks and
// numbers of any script, see isAlphanumeric) and the ASCII characters in
// `alsoKeep`: "é" stays "é", "a b" becomes "a%20b". Ill-formed UTF-8 bytes
// are encoded one by one.
std::string percentEscape(std::string_view text, std::string_view alsoKeep);

// Unreserved characters kept in a path segment ("a b/c" -> "a%20b%2Fc").
inline constexpr std::string_view kPathSegmentKeep = "-_.~";

}  // namespace corvane
