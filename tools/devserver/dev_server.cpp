#include "tools/devserver/dev_server.h"

#include <random>
#include <stdexcept>
#include <utility>

#include "core/protocol/iso_time.h"
#include "core/protocol/wire_json.h"

namespace corvane::devserver {

// What a handler answers: a JSON body and a few words for the log line.
struct DevServer::Reply {
  std::string body;
  std::string note;
};

namespace {

// A request the real service would refuse; becomes an ErrorBody answer.
struct Rejection {
  int status;
  std::string error;
  std::string message;
};

std::string randomHex(std::size_t digits) {
  static thread_local std::mt19937_64 generator{std::random_device{}()};
  static constexpr char kHex[] = "0123456789abcdef";
  std::string out;
  for (std::size_t i = 0; i < digits; ++i) out += kHex[generator() % 16];
  return out;
}

std::string errorJSON(const std::string& error, const std::string& message) {
  return encodeJSON(ErrorBody{error, message});
}

template <class T>
T decodeBody(const httplib::Request& request, const char* record) {
  try {
    return decodeJSON<T>(request.body);
  } catch (const DecodingError& e) {
    throw Rejection{400, "bad_request",
                    "The body is not a valid " + std::string(record) + ": " + e.what()};
  }
}

void checkProtocol(const httplib::Request& request) {
  const std::string expected = std::to_string(QuoddleProtocol::version);
  const std::string sent = request.get_header_value("X-Quoddle-Protocol");
  if (sent != expected) {
    throw Rejection{400, "unsupported_protocol",
                    "This server speaks protocol " + expected + "; the request said \"" + sent +
                        "\" in X-Quoddle-Protocol."};
  }
}

std::string plural(std::size_t count, const char* one, const char* many) {
  return std::to_string(count) + " " + (count == 1 ? one : many);
}

}  // namespace

DevServer::DevServer(DevSettings settings, DevStore& store, std::ostream& log)
    : settings_(std::move(settings)),
      roster_(settings_.config.rosterHandles.begin(), settings_.config.rosterHandles.end()),
      store_(store),
      log_(log),
      unusedCodes_(settings_.pairCodes.begin(), settings_.pairCodes.end()) {}

void DevServer::install(httplib::Server& http) {
  route(http, "POST", "/api/agent/pair", &DevServer::pair);
  route(http, "GET", "/api/agent/config", &DevServer::config);
  route(http, "POST", "/api/agent/sync", &DevServer::sync);
  route(http, "GET", "/api/agent/outbox", &DevServer::outbox);
  route(http, "POST", R"(/api/agent/outbox/(.+))", &DevServer::ack);
  route(http, "POST", "/api/agent/self", &DevServer::self);
  route(http, "POST", "/api/agent/status", &DevServer::status);
  route(http, "POST", "/dev/outbox", &DevServer::devAddOutbox);
  route(http, "GET", "/dev/state", &DevServer::devState);

  // Unknown paths and requests httplib refused itself; the routes' own error
  // answers already have a body.
  using HandlerResponse = httplib::Server::HandlerResponse;
  const auto onError = [this](const httplib::Request& request,
                              httplib::Response& response) -> HandlerResponse {
    if (!response.body.empty()) return HandlerResponse::Unhandled;
    const std::string message = response.status == 404
                                    ? "No such endpoint: " + request.method + " " + request.path
                                    : "The request was refused.";
    response.set_content(errorJSON(response.status == 404 ? "not_found" : "bad_request", message),
                         "application/json");
    logLine(request, response.status, message);
    return HandlerResponse::Handled;
  };
  http.set_error_handler(httplib::Server::HandlerWithResponse(onError));
}

void DevServer::route(httplib::Server& http, const char* method, const char* pattern,
                      Handler handler) {
  auto run = [this, handler](const httplib::Request& request, httplib::Response& response) {
    std::string note;
    try {
      Reply reply = (this->*handler)(request, response);
      response.status = 200;
      response.set_content(std::move(reply.body), "application/json");
      note = std::move(reply.note);
    } catch (const Rejection& r) {
      response.status = r.status;
      response.set_content(errorJSON(r.error, r.message), "application/json");
      note = r.message;
    } catch (const std::exception& e) {
      response.status = 500;
      response.set_content(errorJSON("internal", e.what()), "application/json");
      note = e.what();
    }
    logLine(request, response.status, note);
  };
  if (std::string_view(method) == "GET") {
    http.Get(pattern, run);
  } else {
    http.Post(pattern, run);
  }
}

void DevServer::logLine(const httplib::Request& request, int status, const std::string& note) {
  std::string line = "[" + isoString(nowMs()) + "] " + request.method + " " + request.target +
                     " → " + std::to_string(status);
  if (!note.empty()) line += " (" + note + ")";
  std::lock_guard lock(mutex_);
  log_ << line << std::endl;
}

Device DevServer::authorize(const httplib::Request& request) {
  checkProtocol(request);
  const std::string authorization = request.get_header_value("Authorization");
  constexpr std::string_view kBearer = "Bearer ";
  if (authorization.starts_with(kBearer)) {
    if (auto device = store_.deviceForToken(authorization.substr(kBearer.size()))) return *device;
  }
  throw Rejection{401, "unknown device token", "unknown device token"};
}

DevServer::Reply DevServer::pair(const httplib::Request& request, httplib::Response&) {
  checkProtocol(request);
  const auto pairing = decodeBody<PairRequest>(request, "PairRequest");
  {
    std::lock_guard lock(mutex_);
    if (unusedCodes_.erase(pairing.code) == 0) {
      throw Rejection{400, "bad_code", "That code is not valid or was used already."};
    }
  }
  const Device device{"dev-" + randomHex(8), pairing.deviceName};
  const PairResponse answer{randomHex(32), device.deviceId, settings_.userName};
  store_.addDevice(answer.token, device, pairing);
  return {encodeJSON(answer), "paired " + device.deviceId + " \"" + device.deviceName + "\""};
}

DevServer::Reply DevServer::config(const httplib::Request& request, httplib::Response&) {
  const Device device = authorize(request);
  return {encodeJSON(settings_.config), device.deviceId};
}

DevServer::Reply DevServer::sync(const httplib::Request& request, httplib::Response&) {
  const Device device = authorize(request);
  const auto upload = decodeBody<SyncRequest>(request, "SyncRequest");
  const SyncResponse answer = store_.storeSync(device, upload, roster_);
  return {encodeJSON(answer),
          plural(upload.messages.size(), "message", "messages") + ", " +
              plural(upload.directory.size(), "directory entry", "directory entries") +
              ", cursor " + std::to_string(upload.cursor) + ", " + std::to_string(answer.dropped) +
              " dropped"};
}

DevServer::Reply DevServer::outbox(const httplib::Request& request, httplib::Response&) {
  authorize(request);
  const OutboxResponse answer{store_.pendingOutbox()};
  return {encodeJSON(answer), plural(answer.items.size(), "item", "items")};
}

DevServer::Reply DevServer::ack(const httplib::Request& request, httplib::Response&) {
  authorize(request);
  const std::string id = request.matches[1];
  const auto ack = decodeBody<OutboxAck>(request, "OutboxAck");
  if (!store_.recordAck(id, ack)) {
    throw Rejection{404, "not_found", "No outbox item \"" + id + "\"."};
  }
  std::string note = "item " + id + " " + std::string(wireName(ack.status));
  if (ack.error) note += ": " + *ack.error;
  return {R"({"ok":true})", note};
}

DevServer::Reply DevServer::self(const httplib::Request& request, httplib::Response&) {
  const Device device = authorize(request);
  const auto note = decodeBody<SelfMessageRequest>(request, "SelfMessageRequest");
  const SelfMessageResponse answer{store_.storeSelfNote(device, note)};
  return {encodeJSON(answer), answer.queued ? "note " + note.guid : "duplicate " + note.guid};
}

DevServer::Reply DevServer::status(const httplib::Request& request, httplib::Response&) {
  const Device device = authorize(request);
  const auto report = decodeBody<AgentStatusRequest>(request, "AgentStatusRequest");
  store_.storeStatus(device, report);
  return {R"({"ok":true})", report.appVersion + " on " + report.osVersion};
}

DevServer::Reply DevServer::devAddOutbox(const httplib::Request& request, httplib::Response&) {
  // Same shape as an outbox item, with the id and the kind ("user") optional.
  WireJSON body;
  try {
    body = parseWireJSON(request.body);
  } catch (const DecodingError& e) {
    throw Rejection{400, "bad_request", e.what()};
  }
  if (body.is_object()) {
    if (!body.contains("id")) body["id"] = "";
    if (!body.contains("kind")) body["kind"] = "user";
  }
  OutboxItem item;
  try {
    item = body.get<OutboxItem>();
  } catch (const DecodingError& e) {
    throw Rejection{400, "bad_request",
                    "The body is not a valid outbox item: " + std::string(e.what())};
  }
  try {
    item = store_.addOutboxItem(std::move(item));
  } catch (const std::runtime_error&) {
    throw Rejection{409, "conflict", "An outbox item \"" + item.id + "\" exists already."};
  }
  return {encodeJSON(item), "queued " + item.id + " for " + item.handle};
}

DevServer::Reply DevServer::devState(const httplib::Request&, httplib::Response&) {
  return {dumpWireJSON(store_.state()), ""};
}

}  // namespace corvane::devserver
