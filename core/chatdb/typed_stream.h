// The attributed-body blob of a message: a legacy "typedstream" archive of an
// attributed string. Current systems often keep a message's text only there.
//
// The decoder is deliberately minimal: it finds the first "NSString" class
// name and reads the inline string after the next '+' marker, never reading
// past the end of the data. Pure functions, safe from any thread, never throw.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace corvane::TypedStream {

// The plain text of an attributed body, absent when there is none. Invalid
// UTF-8 comes back with U+FFFD in its place.
std::optional<std::string> decodeAttributedBody(std::span<const std::uint8_t> data);

// A minimal archive of the same shape holding `text`.
std::vector<std::uint8_t> encodeAttributedBody(std::string_view text);

}  // namespace corvane::TypedStream
