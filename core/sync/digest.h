// SHA-1 and base64url, for the directory's change fingerprints (not for
// security). Pure functions, safe from any thread.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

namespace corvane {

std::array<std::uint8_t, 20> sha1(std::string_view data);

// Base64 with "-" and "_" in place of "+" and "/", and no "=" padding.
std::string base64url(const std::uint8_t* data, std::size_t size);

}  // namespace corvane
