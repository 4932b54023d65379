#include "core/api/api_client.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "core/protocol/wire_json.h"
#include "tests/api/loopback_server.h"

namespace corvane {
namespace {

using testing::LoopbackServer;
using testing::RecordedRequest;

constexpr const char* kToken = "tok-SECRET-0123456789";
constexpr const char* kUserAgent = "corvane-mac/9.8.7";

// A client whose calls wait at most 5 s; `asked`, when given, receives each
// call's own time-out in seconds.
APIClient clientFor(const std::string& server, std::optional<std::string> token = kToken,
                    std::vector<long long>* asked = nullptr) {
  return APIClient(server, std::move(token), kUserAgent, [asked](std::chrono::milliseconds own) {
    if (asked) asked->push_back(std::chrono::duration_cast<std::chrono::seconds>(own).count());
    return std::chrono::milliseconds(5000);
  });
}

// Runs `call`, which must throw APIError of `kind`; the error must never
// reveal the token.
APIError expectAPIError(const std::function<void()>& call, APIError::Kind kind) {
  try {
    call();
  } catch (const APIError& e) {
    EXPECT_EQ(e.kind(), kind) << e.what();
    EXPECT_EQ(std::string(e.what()).find(kToken), std::string::npos) << e.what();
    EXPECT_EQ(e.description(), e.what());
    return e;
  }
  ADD_FAILURE() << "no APIError thrown";
  return APIError::badResponse("none");
}

std::optional<std::string> header(const RecordedRequest& request, const std::string& name) {
  const auto it = request.headers.find(name);
  if (it == request.headers.end()) return std::nullopt;
  return it->second;
}

// Each call of the API: its method, path and answer record.
TEST(APIClientTest, EveryCallUsesItsMethodPathAndAnswerType) {
  const AgentConfig config{1, {}, 1, 2, 3, {false, {}}, "free"};
  const SyncResponse synced{4, 1};
  const OutboxResponse outbox{{{"i1", "+1555", "hello", OutboxItem::Kind::user}}};
  const SelfMessageResponse queued{2};
  const PairResponse paired{"t2", "dev-2", "Kim"};
  const std::map<std::string, std::string> bodies = {
      {"/api/agent/config", encodeJSON(config)}, {"/api/agent/sync", encodeJSON(synced)},
      {"/api/agent/outbox", encodeJSON(outbox)}, {"/api/agent/self", encodeJSON(queued)},
      {"/api/agent/pair", encodeJSON(paired)}};
  LoopbackServer server([&](const httplib::Request& request, httplib::Response& response) {
    const auto body = bodies.find(request.path);
    response.set_content(body == bodies.end() ? R"({"ok":true})" : body->second,
                         "application/json");
  });
  // A trailing slash on the server gives no double slash.
  std::vector<long long> timeouts;
  APIClient client = clientFor(server.url() + "/", kToken, &timeouts);
  AgentAPI& api = client;

  const SyncRequest upload{{}, {{"g", "h", "t", true, "s", "iMessage", {}, {}, {}}}, 77};
  const SelfMessageRequest note{"g9", "remember milk", "2023-11-14T22:13:20.123Z"};
  const AgentStatusRequest report{
      "0.1.0", "Linux 6.1", true, PermissionState::unknown, PermissionState::unknown, true, {}};
  EXPECT_EQ(api.getConfig(), config);
  EXPECT_EQ(api.sync(upload), synced);
  EXPECT_EQ(api.getOutbox(), outbox);
  api.ackOutbox("i1", {SendStatus::failed, "not delivered"});
  EXPECT_EQ(api.postSelf(note), queued);
  EXPECT_EQ(client.pair({"ABCD", "n", "p", "v"}), paired);
  client.postStatus(report);

  struct Expected {
    const char* method;
    const char* target;
    std::string body;
    long long timeoutSec;  // the upload may stall longer than the small calls
  };
  const Expected expected[] = {
      {"GET", "/api/agent/config", "", 30},
      {"POST", "/api/agent/sync", encodeJSON(upload), 120},
      {"GET", "/api/agent/outbox", "", 30},
      {"POST", "/api/agent/outbox/i1", R"({"status":"failed","error":"not delivered"})", 30},
      {"POST", "/api/agent/self", encodeJSON(note), 30},
      {"POST", "/api/agent/pair", encodeJSON(PairRequest{"ABCD", "n", "p", "v"}), 30},
      {"POST", "/api/agent/status", encodeJSON(report), 30},
  };
  const auto requests = server.requests();
  ASSERT_EQ(requests.size(), std::size(expected));
  ASSERT_EQ(timeouts.size(), std::size(expected));
  for (std::size_t i = 0; i < requests.size(); ++i) {
    const auto& r = requests[i];
    EXPECT_EQ(timeouts[i], expected[i].timeoutSec) << i;
    EXPECT_EQ(r.method, expected[i].method) << i;
    EXPECT_EQ(r.target, expected[i].target) << i;
    EXPECT_EQ(r.body, expected[i].body) << i;
    EXPECT_EQ(header(r, "Authorization"), std::string("Bearer ") + kToken) << i;
    EXPECT_EQ(header(r, "Accept"), "application/json") << i;
    EXPECT_EQ(header(r, "User-Agent"), kUserAgent) << i;
    EXPECT_EQ(header(r, "X-Quoddle-Protocol"), "1") << i;
    // Content-Type only with a body; never the "Expect: 100-continue" wait.
    EXPECT_EQ(header(r, "Content-Type").has_value(), !r.body.empty()) << i;
    EXPECT_FALSE(header(r, "Expect")) << i;
  }

  // Pairing goes without a token, so without Authorization.
  EXPECT_EQ(clientFor(server.url(), std::nullopt).pair({"ABCD", "n", "p", "v"}), paired);
  EXPECT_FALSE(header(server.requests().back(), "Authorization"));
}

TEST(APIClientTest, AckPathEscapesEverythingButUnreservedCharacters) {
  struct Case {
    const char* id;
    const char* path;
  };
  const Case cases[] = {
      {"a b/c", "/api/agent/outbox/a%20b%2Fc"},
      {"Az09-_.~", "/api/agent/outbox/Az09-_.~"},
      {"100%?#&=+", "/api/agent/outbox/100%25%3F%23%26%3D%2B"},
      {"é\u0301\u0663", "/api/agent/outbox/é\u0301\u0663"},  // letters, marks, digits of any script
      {"\u00A0\xFF", "/api/agent/outbox/%C2%A0%FF"},
      {"", "/api/agent/outbox/"},
  };
  for (const auto& c : cases) EXPECT_EQ(APIClient::ackPath(c.id), c.path) << c.id;
}

TEST(APIClientTest, UntrustedServerFailsBeforeAnyTraffic) {
  LoopbackServer server;
  const std::string local = server.url();
  const std::string cases[] = {
      "http://example.test", "ftp" + local.substr(4),
      "HTTP" + local.substr(4),  // not its own normal form
      local + "/api", " " + local, local + "//", "",
  };
  for (const auto& url : cases) {
    const APIError e =
        expectAPIError([&] { clientFor(url).getConfig(); }, APIError::Kind::insecureServer);
    EXPECT_EQ(e.description(),
              "Refusing to talk to " + url + ": Corvane needs an https:// server.");
  }
  EXPECT_TRUE(server.requests().empty());
}

// Whether each error is retried follows from its kind and status (see
// APIErrorTest); here, which kind, status and words each answer gives.
TEST(APIClientTest, FailedAnswersBecomeErrorsWithTheBestDetail) {
  using Kind = APIError::Kind;
  const std::string longText(300, 'x');
  // "é" straddles byte 200, so the 200-byte prefix is not valid UTF-8.
  const std::string cutCharacter = std::string(199, 'y') + "é";
  const std::string revoked = "This Mac's device token was revoked or is invalid.";
  const std::string get = "GET /api/agent/config → ";
  const std::string shape = "GET /api/agent/config: unexpected response shape (";
  const std::string json = "application/json", text = "text/plain";
  struct Case {
    int status;
    std::string body, contentType;
    Kind kind;
    std::string expected;
  };
  const Case cases[] = {
      {503, "<html><body>down</body></html>", "text/html", Kind::http,
       get + "503: Service Unavailable"},
      {400, R"({"error":"bad_code","message":"That code has expired"})", json, Kind::http,
       get + "400: That code has expired"},
      {409, R"({"error":"conflict"})", json, Kind::http, get + "409: conflict"},
      {500, R"({"error":5})", json, Kind::http, get + R"(500: {"error":5})"},
      {429, "slow down", text, Kind::http, get + "429: slow down"},
      {502, longText, text, Kind::http, get + "502: " + longText.substr(0, 200)},
      {500, cutCharacter, text, Kind::http, get + "500: Internal Server Error"},
      {504, "\xff\xfe\xfd", "application/octet-stream", Kind::http, get + "504: Gateway Timeout"},
      {599, "", text, Kind::http, get + "599: Server Error"},
      {401, "", text, Kind::unauthorized, revoked},
      {401, R"({"error":"device revoked"})", json, Kind::unauthorized,
       "Unauthorized: device revoked"},
      {401, R"({"error":"x","message":"ignored here"})", json, Kind::unauthorized,
       "Unauthorized: x"},
      {401, R"({"message":"no error key"})", json, Kind::unauthorized, revoked},
      {200,
       R"({"protocolVersion":1,"rosterHandles":[],"backfillDays":1,"directoryDays":2,)"
       R"("pollIntervalSec":3,"selfChannel":{"enabled":false,"handles":[]}})",
       json, Kind::badResponse, shape + R"(key "plan": missing))"},
      {200, R"({"protocolVersion":1,"rosterHa)", json, Kind::badResponse,
       shape + "not valid JSON (syntax error at byte 31))"},
      {200, "", json, Kind::badResponse, shape + "not valid JSON (the text is empty))"},
      {200, R"({"protocolVersion":"1"})", json, Kind::badResponse,
       shape + R"(key "protocolVersion": expected an integer, found a string))"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.expected);
    LoopbackServer server(LoopbackServer::answer(c.status, c.body, c.contentType));
    const APIError e = expectAPIError([&] { clientFor(server.url()).getConfig(); }, c.kind);
    EXPECT_EQ(e.description(), c.expected);
    EXPECT_EQ(e.status(), c.kind == Kind::badResponse ? std::nullopt : std::optional(c.status));
    // The detail is the message without the call, for quoting in a sentence.
    if (c.kind == Kind::http) {
      EXPECT_EQ(get + std::to_string(c.status) + ": " + e.detail(), c.expected);
    }
    if (c.expected.starts_with("Unauthorized: ")) {
      EXPECT_EQ("Unauthorized: " + e.detail(), c.expected);
    }
  }
}

TEST(APIClientTest, RedirectsAreNotFollowed) {
  LoopbackServer elsewhere;
  LoopbackServer server([&](const httplib::Request&, httplib::Response& response) {
    response.set_redirect(elsewhere.url() + "/api/agent/config", 307);
  });
  const APIError e =
      expectAPIError([&] { clientFor(server.url()).getConfig(); }, APIError::Kind::http);
  EXPECT_EQ(e.description(), "GET /api/agent/config → 307: Temporary Redirect");
  EXPECT_TRUE(elsewhere.requests().empty());
}

TEST(APIClientTest, RefusedConnectionIsATransientNetworkError) {
  std::string url;
  {
    LoopbackServer closed;
    url = closed.url();
  }
  const APIError e = expectAPIError([&] { clientFor(url).getConfig(); }, APIError::Kind::network);
  EXPECT_TRUE(e.description().starts_with("Can't reach 127.0.0.1 (")) << e.what();
  EXPECT_TRUE(e.description().ends_with(")")) << e.what();
}

// The time-out is time without progress: an answer that keeps coming for
// longer than it succeeds, one that stops coming fails.
TEST(APIClientTest, TimeOutEndsOnlyACallThatStopsMoving) {
  LoopbackServer* self = nullptr;
  LoopbackServer server([&](const httplib::Request& request, httplib::Response& response) {
    if (request.target == "/api/agent/config") {
      self->waitForRelease();
      return;
    }
    // 2.5 s of blanks before the object, one every 100 ms.
    response.set_chunked_content_provider(
        "application/json", [](std::size_t offset, httplib::DataSink& sink) {
          std::this_thread::sleep_for(std::chrono::milliseconds(100));
          if (offset < 25) return sink.write(" ", 1);
          sink.write("{}", 2);
          sink.done();
          return true;
        });
  });
  self = &server;
  APIClient client(server.url(), kToken, kUserAgent,
                   [](std::chrono::milliseconds) { return std::chrono::seconds(1); });

  EXPECT_NO_THROW(client.ackOutbox("slow", {SendStatus::sent, std::nullopt}));
  const APIError e = expectAPIError([&] { client.getConfig(); }, APIError::Kind::network);
  EXPECT_TRUE(e.description().starts_with("Can't reach 127.0.0.1 (")) << e.what();
  EXPECT_NE(e.description().find("too slow"), std::string::npos) << e.what();
}

TEST(APIClientTest, LineBreaksInTheTokenCannotAddHeaders) {
  LoopbackServer server(LoopbackServer::answer(200, R"({"items":[]})"));
  clientFor(server.url(), "abc\r\nX-Injected: 1").getOutbox();
  ASSERT_EQ(server.requests().size(), 1u);
  EXPECT_FALSE(header(server.requests()[0], "X-Injected"));
  EXPECT_EQ(header(server.requests()[0], "Authorization"), "Bearer abcX-Injected: 1");
}

TEST(APIClientTest, OneClientServesSeveralThreadsAtOnce) {
  LoopbackServer server(LoopbackServer::answer(200, R"({"accepted":1,"dropped":0})"));
  APIClient client = clientFor(server.url());
  std::atomic<int> succeeded{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 6; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 5; ++i) {
        if (client.sync({{}, {}, i}) == SyncResponse{1, 0}) ++succeeded;
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(succeeded.load(), 30);
  EXPECT_EQ(server.requests().size(), 30u);
}

}  // namespace
}  // namespace corvane
