#include "core/protocol/server_url.h"

#include "core/protocol/url_parts.h"
#include "core/text/unicode.h"

namespace corvane::ServerURL {

// CORVANE_DEFAULT_SERVER, CORVANE_TRUSTED_HOST and CORVANE_PREVIEW_HOST are
// deployment values, CMake cache variables of the same names.

const std::string& defaultURL() {
  static const std::string url = CORVANE_DEFAULT_SERVER;
  return url;
}

const std::set<std::string>& trustedHosts() {
  static const std::set<std::string> hosts = {lowercased(CORVANE_TRUSTED_HOST),
                                              lowercased(CORVANE_PREVIEW_HOST)};
  return hosts;
}

namespace {

// libcurl passes any bytes above 0x7F in a host through (for international
// names), but white space, control characters and broken UTF-8 make no host
// name; and a host ending in white space would lose it when validated again.
bool isPlausibleHost(std::string_view host) {
  if (!isValidUTF8(host)) return false;
  for (std::size_t i = 0; i < host.size();) {
    const char32_t c = decodeUTF8At(host, i);
    if (c < 0x20 || (c >= 0x7F && c < 0xA0) || isWhitespaceOrNewline(c)) return false;
  }
  return true;
}

}  // namespace

std::optional<std::string> validate(std::string_view text) {
  const auto parts = parseURL(trimWhitespace(text));
  if (!parts || parts->scheme.empty() || parts->host.empty()) return std::nullopt;
  if (!isPlausibleHost(parts->host)) return std::nullopt;
  const std::string scheme = lowercased(parts->scheme);
  const bool allowed = scheme == "https" || (scheme == "http" && isLoopback(parts->host));
  if (!allowed) return std::nullopt;
  std::string url = scheme + "://" + parts->host;
  if (parts->port) url += ":" + *parts->port;
  return url;
}

bool isLoopback(std::string_view host) {
  while (!host.empty() && (host.front() == '[' || host.front() == ']')) host.remove_prefix(1);
  while (!host.empty() && (host.back() == '[' || host.back() == ']')) host.remove_suffix(1);
  const std::string h = lowercased(host);
  return h == "localhost" || h.ends_with(".localhost") || h.starts_with("127.") || h == "::1";
}

bool isTrusted(std::string_view url) {
  const auto parts = parseURL(url);
  return parts && lowercased(parts->scheme) == "https" &&
         trustedHosts().contains(lowercased(parts->host));
}

}  // namespace corvane::ServerURL
