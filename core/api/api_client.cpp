#include "core/api/api_client.h"

#include <curl/curl.h>

#include <algorithm>
#include <memory>
#include <mutex>
#include <utility>

#include "core/api/http_status.h"
#include "core/protocol/percent_escape.h"
#include "core/protocol/server_url.h"
#include "core/protocol/url_parts.h"
#include "core/protocol/wire_json.h"
#include "core/text/unicode.h"

namespace corvane {
namespace {

// No answer of the agent API comes near this; a server streaming more is
// broken or hostile, and holding it all in memory would hurt the agent.
constexpr std::size_t kMaxAnswerBytes = 16 * 1024 * 1024;

// How much of an unexplained error body goes into the message.
constexpr std::size_t kDetailBytes = 200;

struct EasyDeleter {
  void operator()(CURL* curl) const { curl_easy_cleanup(curl); }
};
struct SlistDeleter {
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};

void initCurlOnce() {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

struct Answer {
  std::string body;
  bool tooLarge = false;
  bool headersEnded = false;  // the blank line after the last response's headers came
};

size_t collect(char* data, size_t size, size_t count, void* user) {
  auto* answer = static_cast<Answer*>(user);
  const size_t bytes = size * count;
  if (answer->body.size() + bytes > kMaxAnswerBytes) {
    answer->tooLarge = true;
    return 0;  // makes curl abort the transfer
  }
  answer->body.append(data, bytes);
  return bytes;
}

// libcurl takes a connection closed inside the header block for a complete
// answer with an empty body; the blank line that ends the headers tells a
// whole answer from a cut one. Every response, an interim 1xx one too, starts
// with its status line.
size_t noteHeader(char* data, size_t size, size_t count, void* user) {
  auto* answer = static_cast<Answer*>(user);
  const size_t bytes = size * count;
  const std::string_view line(data, bytes);
  if (line.starts_with("HTTP/")) {
    answer->headersEnded = false;
  } else if (line == "\r\n" || line == "\n") {
    answer->headersEnded = true;
  }
  return bytes;
}

// A header value with a line break would smuggle extra headers into the
// request; a corrupted token must not do that.
std::string headerLine(std::string_view name, std::string_view value) {
  std::string line(name);
  line += ": ";
  for (const char c : value) {
    if (c != '\r' && c != '\n' && c != '\0') line += c;
  }
  return line;
}

// The request headers in their order; Authorization only with a token,
// Content-Type only with a body.
std::unique_ptr<curl_slist, SlistDeleter> requestHeaders(const std::string& userAgent,
                                                         const std::optional<std::string>& token,
                                                         bool hasBody) {
  curl_slist* list = nullptr;
  const auto add = [&list](const std::string& line) {
    if (curl_slist* longer = curl_slist_append(list, line.c_str())) list = longer;
  };
  add("Accept: application/json");
  add(headerLine("User-Agent", userAgent));
  add(headerLine("X-Quoddle-Protocol", std::to_string(QuoddleProtocol::version)));
  if (token) add(headerLine("Authorization", "Bearer " + *token));
  if (hasBody) add("Content-Type: application/json");
  // libcurl would otherwise ask large uploads to wait for "100 Continue".
  add("Expect:");
  return std::unique_ptr<curl_slist, SlistDeleter>(list);
}

std::optional<ErrorBody> errorBodyOf(const std::string& body) {
  try {
    return decodeJSON<ErrorBody>(body);
  } catch (const DecodingError&) {
    return std::nullopt;
  }
}

// The explanation of a failed answer, from the best source available.
std::string errorDetail(int status, const std::string& body) {
  if (const auto error = errorBodyOf(body)) {
    if (error->message) return *error->message;
    if (error->error) return *error->error;
  }
  const std::string_view head = std::string_view(body).substr(0, kDetailBytes);
  // An HTML error page says nothing a user can act on; a prefix cut inside a
  // character fails the UTF-8 check and falls back too.
  if (!head.empty() && head.front() != '<' && isValidUTF8(head)) return std::string(head);
  return httpStatusText(status);
}

}  // namespace

APIClient::APIClient(std::string server, std::optional<std::string> token, std::string userAgent,
                     Timeouts timeouts)
    : server_(std::move(server)),
      token_(std::move(token)),
      userAgent_(std::move(userAgent)),
      timeouts_(std::move(timeouts)) {}

std::string APIClient::ackPath(std::string_view id) {
  return "/api/agent/outbox/" + percentEscape(id, kPathSegmentKeep);
}

std::string APIClient::perform(const char* method, const std::string& path,
                               const std::optional<std::string>& body,
                               std::chrono::milliseconds timeout) const {
  // 1. Trust. A lone trailing slash names the same server, so it is allowed.
  const auto normal = ServerURL::validate(server_);
  if (!normal || (*normal != server_ && *normal + "/" != server_)) {
    throw APIError::insecureServer("Refusing to talk to " + server_ +
                                   ": Corvane needs an https:// server.");
  }

  // 2. URL, without a double slash between server and path.
  std::string url = server_;
  if (url.ends_with('/')) url.pop_back();
  url += path;
  const auto parts = parseURL(url);
  if (!parts) throw APIError::badResponse("bad URL " + url);
  const std::string& host = parts->host.empty() ? url : parts->host;

  // 3. Request. libcurl keeps no cache, so every request reaches the server.
  initCurlOnce();
  const std::unique_ptr<CURL, EasyDeleter> curl(curl_easy_init());
  if (!curl) throw APIError::network("Can't reach " + host + " (out of memory)");
  CURL* const h = curl.get();

  const auto headers = requestHeaders(userAgent_, token_, body.has_value());

  Answer answer;
  char errorText[CURL_ERROR_SIZE] = {};
  const long timeoutMs = static_cast<long>(timeout.count());
  curl_easy_setopt(h, CURLOPT_URL, url.c_str());
  curl_easy_setopt(h, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(h, CURLOPT_HTTPHEADER, headers.get());
  curl_easy_setopt(h, CURLOPT_SSL_VERIFYPEER, 1L);
  curl_easy_setopt(h, CURLOPT_SSL_VERIFYHOST, 2L);
  // A redirect could lead the bearer token to another host or to plain http.
  curl_easy_setopt(h, CURLOPT_FOLLOWLOCATION, 0L);
  // The call's time-out is an idle time-out, as the platform's request
  // time-out is: a large upload on a slow link fails only when it stops
  // moving, never merely for taking long (a hard limit would fail it and
  // retry it from the start forever). libcurl counts that time in whole
  // seconds. Reaching the server has a time-out of its own.
  const long idleSec = std::max(1L, (timeoutMs + 999) / 1000);
  curl_easy_setopt(h, CURLOPT_LOW_SPEED_LIMIT, 1L);  // bytes per second, either way
  curl_easy_setopt(h, CURLOPT_LOW_SPEED_TIME, idleSec);
  curl_easy_setopt(h, CURLOPT_CONNECTTIMEOUT_MS,
                   std::min(timeoutMs, static_cast<long>(kConnectTimeout.count()) * 1000));
  curl_easy_setopt(h, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(h, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(kMaxAnswerBytes));
  curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, collect);
  curl_easy_setopt(h, CURLOPT_WRITEDATA, &answer);
  curl_easy_setopt(h, CURLOPT_HEADERFUNCTION, noteHeader);
  curl_easy_setopt(h, CURLOPT_HEADERDATA, &answer);
  curl_easy_setopt(h, CURLOPT_ERRORBUFFER, errorText);
  // A development server on this machine is never behind the user's proxy.
  if (ServerURL::isLoopback(parts->host)) curl_easy_setopt(h, CURLOPT_NOPROXY, "*");
  if (body) {
    curl_easy_setopt(h, CURLOPT_POST, 1L);
    curl_easy_setopt(h, CURLOPT_POSTFIELDS, body->data());
    curl_easy_setopt(h, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body->size()));
  } else {
    curl_easy_setopt(h, CURLOPT_HTTPGET, 1L);
  }

  // 4. Transport.
  const CURLcode rc = curl_easy_perform(h);
  const std::string call = std::string(method) + " " + path;
  if (answer.tooLarge || rc == CURLE_FILESIZE_EXCEEDED) {
    throw APIError::badResponse(call + ": unexpected response shape (the answer is larger than " +
                                std::to_string(kMaxAnswerBytes / (1024 * 1024)) + " MiB)");
  }
  if (rc != CURLE_OK) {
    const std::string reason = errorText[0] != '\0' ? errorText : curl_easy_strerror(rc);
    throw APIError::network("Can't reach " + host + " (" + reason + ")");
  }

  // 5. An answer that is not HTTP.
  long status = 0;
  curl_easy_getinfo(h, CURLINFO_RESPONSE_CODE, &status);
  if (status == 0) throw APIError::network("No HTTP response");
  if (!answer.headersEnded) {
    throw APIError::network("Can't reach " + host +
                            " (the connection closed in the middle of the answer's headers)");
  }

  // 6. Revoked or unknown token.
  if (status == 401) {
    const auto error = errorBodyOf(answer.body);
    if (error && error->error) {
      throw APIError::unauthorized("Unauthorized: " + *error->error, *error->error);
    }
    throw APIError::unauthorized("This Mac's device token was revoked or is invalid.");
  }

  // 7. Any other failure.
  const int code = static_cast<int>(status);
  if (code < 200 || code > 299) {
    std::string detail = errorDetail(code, answer.body);
    std::string message = call + " → " + std::to_string(code) + ": " + detail;
    throw APIError::http(code, std::move(message), std::move(detail));
  }
  return std::move(answer.body);
}

template <class Answer>
Answer APIClient::call(const char* method, const std::string& path,
                       const std::optional<std::string>& body,
                       std::chrono::milliseconds timeout) const {
  const std::string text = perform(method, path, body, timeouts_ ? timeouts_(timeout) : timeout);
  // 8. The answer record.
  try {
    return decodeJSON<Answer>(text);
  } catch (const DecodingError& e) {
    throw APIError::badResponse(std::string(method) + " " + path + ": unexpected response shape (" +
                                e.what() + ")");
  }
}

AgentConfig APIClient::getConfig() {
  return call<AgentConfig>("GET", "/api/agent/config", std::nullopt, kDefaultTimeout);
}

SyncResponse APIClient::sync(const SyncRequest& request) {
  return call<SyncResponse>("POST", "/api/agent/sync", encodeJSON(request), kSyncTimeout);
}

OutboxResponse APIClient::getOutbox() {
  return call<OutboxResponse>("GET", "/api/agent/outbox", std::nullopt, kDefaultTimeout);
}

void APIClient::ackOutbox(const std::string& id, const OutboxAck& ack) {
  call<IgnoredBody>("POST", ackPath(id), encodeJSON(ack), kDefaultTimeout);
}

SelfMessageResponse APIClient::postSelf(const SelfMessageRequest& request) {
  return call<SelfMessageResponse>("POST", "/api/agent/self", encodeJSON(request), kDefaultTimeout);
}

PairResponse APIClient::pair(const PairRequest& request) {
  return call<PairResponse>("POST", "/api/agent/pair", encodeJSON(request), kDefaultTimeout);
}

void APIClient::postStatus(const AgentStatusRequest& request) {
  call<IgnoredBody>("POST", "/api/agent/status", encodeJSON(request), kDefaultTimeout);
}

}  // namespace corvane
