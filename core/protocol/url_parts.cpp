#include "core/protocol/url_parts.h"

#include <curl/curl.h>

#include <memory>

namespace corvane {
namespace {

struct CURLUDeleter {
  void operator()(CURLU* u) const { curl_url_cleanup(u); }
};

std::optional<std::string> part(CURLU* u, CURLUPart which) {
  char* value = nullptr;
  if (curl_url_get(u, which, &value, 0) != CURLUE_OK || value == nullptr) return std::nullopt;
  std::string out(value);
  curl_free(value);
  return out;
}

}  // namespace

std::optional<URLParts> parseURL(std::string_view text) {
  const std::unique_ptr<CURLU, CURLUDeleter> u(curl_url());
  if (!u) return std::nullopt;
  // curl_url_set wants a C string; an embedded NUL must not cut the text short.
  const std::string owned(text);
  if (owned.find('\0') != std::string::npos) return std::nullopt;
  if (curl_url_set(u.get(), CURLUPART_URL, owned.c_str(), CURLU_NON_SUPPORT_SCHEME) != CURLUE_OK) {
    return std::nullopt;
  }
  URLParts parts;
  parts.scheme = part(u.get(), CURLUPART_SCHEME).value_or("");
  parts.host = part(u.get(), CURLUPART_HOST).value_or("");
  parts.port = part(u.get(), CURLUPART_PORT);
  parts.path = part(u.get(), CURLUPART_PATH).value_or("/");
  parts.query = part(u.get(), CURLUPART_QUERY);
  return parts;
}

}  // namespace corvane
