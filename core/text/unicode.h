// UTF-8 text helpers shared by every layer: validation and repair, UTF-16
// lengths, grapheme-safe clipping, trimming and case mapping.
//
// Strings are UTF-8 in std::string. Every function accepts arbitrary bytes;
// invalid sequences count as one U+FFFD each where a length is measured.
// All functions are pure and safe to call from any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace corvane {

// True when `s` is well-formed UTF-8 (no overlongs, surrogates or values
// above U+10FFFF).
bool isValidUTF8(std::string_view s);

// `s` with every maximal ill-formed subsequence replaced by U+FFFD; valid
// input comes back unchanged.
std::string repairUTF8(std::string_view s);

// Number of UTF-16 code units needed to encode `s`.
std::size_t utf16Length(std::string_view s);

// At most `max` UTF-16 units of `s`, taking whole extended grapheme clusters
// from the start, so an emoji sequence, a flag or a letter with its combining
// marks is never split. The result may be shorter than `max`.
std::string clipUTF16(std::string_view s, std::size_t max);

// The first `count` extended grapheme clusters of `s`.
std::string prefixGraphemes(std::string_view s, std::size_t count);

// True for white space and line breaks: Unicode Zs, Zl and Zp, and U+0009 to
// U+000D and U+0085.
bool isWhitespaceOrNewline(char32_t c);

// `s` without leading and trailing white space and line breaks.
std::string_view trimWhitespace(std::string_view s);

// Simple per-code-point lower-casing (no locale, no length-changing rules).
std::string lowercased(std::string_view s);

// True for Unicode decimal digits (category Nd), not only ASCII.
bool isDecimalDigit(char32_t c);

// Appends the UTF-8 encoding of `c` to `out`.
void appendUTF8(std::string& out, char32_t c);

// Decodes the code point at `s[i]`, advancing `i`. Ill-formed input yields
// U+FFFD and advances past the maximal ill-formed subsequence.
char32_t decodeUTF8At(std::string_view s, std::size_t& i);

}  // namespace corvane
