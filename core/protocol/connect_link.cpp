#include "core/protocol/connect_link.h"

#include <curl/curl.h>

#include <vector>

#include "core/protocol/percent_escape.h"
#include "core/protocol/server_url.h"
#include "core/protocol/url_parts.h"
#include "core/protocol/wire_types.h"
#include "core/text/unicode.h"

namespace corvane {
namespace {

struct QueryItem {
  std::string name;
  std::string value;
};

std::string percentDecoded(std::string_view text) {
  // curl_easy_unescape reads a length of 0 as "up to the NUL", which for an
  // empty value would run on into the next query item.
  if (text.empty()) return {};
  int length = 0;
  char* decoded = curl_easy_unescape(nullptr, text.data(), static_cast<int>(text.size()), &length);
  if (decoded == nullptr) return std::string(text);
  std::string out(decoded, static_cast<std::size_t>(length));
  curl_free(decoded);
  return out;
}

// Items of a raw query, split on "&" and "=" before decoding so that an
// escaped "&" inside a value stays in it. "+" is not a space here.
std::vector<QueryItem> queryItems(std::string_view query) {
  std::vector<QueryItem> items;
  while (!query.empty()) {
    const auto amp = query.find('&');
    const std::string_view item = query.substr(0, amp);
    query = amp == std::string_view::npos ? std::string_view() : query.substr(amp + 1);
    const auto eq = item.find('=');
    const std::string_view name = item.substr(0, eq);
    const std::string_view value =
        eq == std::string_view::npos ? std::string_view() : item.substr(eq + 1);
    items.push_back({percentDecoded(name), percentDecoded(value)});
  }
  return items;
}

const QueryItem* firstNamed(const std::vector<QueryItem>& items, std::string_view name) {
  for (const auto& item : items) {
    if (item.name == name) return &item;
  }
  return nullptr;
}

// libcurl only parses URLs with an authority. "corvane:connect?..." names
// its target as a path; given "//" the same word becomes the host, which
// the target rule treats alike.
std::string withAuthority(std::string_view url) {
  const auto colon = url.find(':');
  if (colon == std::string_view::npos || url.substr(colon + 1).starts_with("/")) {
    return std::string(url);
  }
  return std::string(url.substr(0, colon + 1)) + "//" + std::string(url.substr(colon + 1));
}

std::string trimmedSlashes(std::string_view path) {
  while (!path.empty() && path.front() == '/') path.remove_prefix(1);
  while (!path.empty() && path.back() == '/') path.remove_suffix(1);
  return std::string(path);
}

// The characters a connect link leaves unescaped besides letters and digits.
constexpr std::string_view kLinkKeep = "-_.!~*'()";

}  // namespace

std::optional<ConnectLink> ConnectLink::parse(std::string_view url) {
  const auto parts = parseURL(withAuthority(trimWhitespace(url)));
  if (!parts || lowercased(parts->scheme) != QuoddleProtocol::deepLinkScheme) return std::nullopt;
  const std::string target =
      lowercased(parts->host.empty() ? trimmedSlashes(parts->path) : parts->host);
  if (target != "connect") return std::nullopt;

  const auto items = queryItems(parts->query.value_or(""));
  const QueryItem* code = firstNamed(items, "code");
  if (code == nullptr) return std::nullopt;
  const std::string trimmed(trimWhitespace(code->value));
  // Length in characters as the user sees them: 4 to 16 grapheme clusters.
  if (prefixGraphemes(trimmed, 3) == trimmed || prefixGraphemes(trimmed, 16) != trimmed) {
    return std::nullopt;
  }

  ConnectLink link{trimmed, std::nullopt};
  if (const QueryItem* server = firstNamed(items, "server")) {
    link.server = ServerURL::validate(server->value);
  }
  return link;
}

std::string ConnectLink::make(std::string_view code, std::string_view server) {
  return std::string(QuoddleProtocol::deepLinkScheme) +
         "://connect?code=" + percentEscape(code, kLinkKeep) +
         "&server=" + percentEscape(server, kLinkKeep);
}

}  // namespace corvane
