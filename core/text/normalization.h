// Unicode normalisation forms. Texts from Messages, the server and the state
// file may spell the same character composed or decomposed; comparing them
// needs one canonical spelling. Pure functions, safe from any thread.
#pragma once

#include <string>
#include <string_view>

namespace corvane {

// `s` in canonical composition (NFC). Ill-formed UTF-8 is repaired (each bad
// sequence becomes U+FFFD) before normalising, so the result is always valid.
std::string toNFC(std::string_view s);

}  // namespace corvane
