// The agent's only way to the server: JSON over HTTPS under "/api/agent/",
// one libcurl transfer per call, never retried here (callers decide with
// APIError::isTransient).
//
// An APIClient is immutable after construction and may be used from several
// threads at once; every call has its own curl handle.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>

#include "core/api/agent_api.h"
#include "core/api/api_error.h"
#include "core/protocol/wire_types.h"

namespace corvane {

class APIClient final : public AgentAPI {
 public:
  // A call's time-out is the time it may go without progress (no byte sent
  // or received), not a limit on the whole exchange: an upload that keeps
  // moving on a slow link is never cut off.
  static constexpr std::chrono::seconds kDefaultTimeout{30};
  static constexpr std::chrono::seconds kSyncTimeout{120};
  // Reaching the server (name lookup, connection, TLS handshake), at most the
  // call's time-out.
  static constexpr std::chrono::seconds kConnectTimeout{30};

  // `server` must be its own ServerURL::validate form (a trailing "/" is
  // tolerated), else every call fails with insecureServer before any
  // traffic. `token` is absent only for pairing. `userAgent` is sent as is.
  // `timeouts`, when given, is asked for each call with the call's own
  // time-out and returns the one to use (rounded up to whole seconds): tests
  // see which time-out every call gets and need not wait 30 seconds.
  using Timeouts = std::function<std::chrono::milliseconds(std::chrono::milliseconds)>;
  APIClient(std::string server, std::optional<std::string> token, std::string userAgent,
            Timeouts timeouts = {});

  const std::string& server() const { return server_; }
  bool hasToken() const { return token_.has_value(); }
  const std::string& userAgent() const { return userAgent_; }

  // GET "/api/agent/config", 30 s.
  AgentConfig getConfig() override;
  // POST "/api/agent/sync", 120 s.
  SyncResponse sync(const SyncRequest& request) override;
  // GET "/api/agent/outbox", 30 s.
  OutboxResponse getOutbox() override;
  // POST "/api/agent/outbox/" + the escaped id, 30 s; the answer is ignored.
  void ackOutbox(const std::string& id, const OutboxAck& ack) override;
  // POST "/api/agent/self", 30 s.
  SelfMessageResponse postSelf(const SelfMessageRequest& request) override;
  // POST "/api/agent/pair", 30 s. Use the returned token in a new client.
  PairResponse pair(const PairRequest& request) override;
  // POST "/api/agent/status", 30 s; the answer is ignored.
  void postStatus(const AgentStatusRequest& request) override;

  // The path of the ack call: only letters, digits and "-_.~" of `id` stay
  // as they are ("a b/c" gives "/api/agent/outbox/a%20b%2Fc").
  static std::string ackPath(std::string_view id);

 private:
  template <class Answer>
  Answer call(const char* method, const std::string& path, const std::optional<std::string>& body,
              std::chrono::milliseconds timeout) const;

  // Performs one request and returns the body of a 2xx answer; throws
  // APIError for everything else.
  std::string perform(const char* method, const std::string& path,
                      const std::optional<std::string>& body,
                      std::chrono::milliseconds timeout) const;

  std::string server_;
  std::optional<std::string> token_;
  std::string userAgent_;
  Timeouts timeouts_;
};

}  // namespace corvane
