// A URL split into its parts by libcurl's URL parser, so that no caller
// slices URL text by hand. Pure; safe to call from any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace corvane {

struct URLParts {
  std::string scheme;  // as libcurl reports it (lower case)
  std::string host;    // as written; IPv6 literals keep their brackets
  std::optional<std::string> port;
  std::string path;                  // "/" when the URL has none
  std::optional<std::string> query;  // raw, still percent-encoded
  bool operator==(const URLParts&) const = default;
};

// The parts of an absolute URL with a scheme and an authority, or nothing
// when libcurl does not accept `text` as one. Any scheme is allowed.
std::optional<URLParts> parseURL(std::string_view text);

}  // namespace corvane
