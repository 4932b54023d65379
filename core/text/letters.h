// Letter classification and upper-casing, the counterparts of the digit test
// and lower-casing in unicode.h. Pure functions, safe from any thread.
#pragma once

#include <string>
#include <string_view>

namespace corvane {

// True for Unicode letters (general categories Lu, Ll, Lt, Lm and Lo) and
// letter numbers (Nl), not only ASCII.
bool isLetter(char32_t c);

// True for the platform's alphanumeric set (Foundation's
// CharacterSet.alphanumerics): Unicode general categories L*, M* and N*, in
// any script.
bool isAlphanumeric(char32_t c);

// Simple per-code-point upper-casing (no locale, no mappings that change the
// number of code points). Bytes that are not valid UTF-8 are kept as they are.
std::string uppercased(std::string_view s);

}  // namespace corvane
