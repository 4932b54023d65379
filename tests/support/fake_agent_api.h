// An in-process AgentAPI for cycle tests: answers from fields the test sets,
// records every call, and fails any call on cue.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "core/api/agent_api.h"
#include "core/api/api_error.h"

namespace corvane::testing {

class FakeAgentAPI final : public AgentAPI {
 public:
  enum class Call { config, sync, outbox, ack, self, pair, status };

  AgentConfig config{.protocolVersion = 1, .rosterHandles = {}, .backfillDays = 30,
                     .directoryDays = 365, .pollIntervalSec = 60, .selfChannel = {},
                     .plan = "free"};
  std::vector<OutboxItem> outbox;
  PairResponse pairResponse{.token = "tok-new", .deviceId = "dev-1", .userName = "Sam"};

  std::vector<SyncRequest> syncs;
  std::vector<std::pair<std::string, OutboxAck>> acks;
  std::vector<SelfMessageRequest> selfPosts;
  std::vector<PairRequest> pairs;
  std::vector<AgentStatusRequest> statuses;
  std::vector<Call> calls;

  // Consulted before every call (on the calling thread); returning an error
  // makes the call throw it.
  std::function<std::optional<APIError>(Call)> failWith;

  AgentConfig getConfig() override { return enter(Call::config), config; }
  SyncResponse sync(const SyncRequest& request) override {
    enter(Call::sync);
    syncs.push_back(request);
    return {static_cast<std::int64_t>(request.messages.size()), 0};
  }
  OutboxResponse getOutbox() override { return enter(Call::outbox), OutboxResponse{outbox}; }
  void ackOutbox(const std::string& id, const OutboxAck& ack) override {
    enter(Call::ack);
    acks.emplace_back(id, ack);
  }
  SelfMessageResponse postSelf(const SelfMessageRequest& request) override {
    enter(Call::self);
    selfPosts.push_back(request);
    return {1};
  }
  PairResponse pair(const PairRequest& request) override {
    enter(Call::pair);
    pairs.push_back(request);
    return pairResponse;
  }
  void postStatus(const AgentStatusRequest& request) override {
    enter(Call::status);
    statuses.push_back(request);
  }

  // Every message uploaded so far, in order.
  std::vector<SyncedMessage> uploadedMessages() const {
    std::vector<SyncedMessage> all;
    for (const auto& s : syncs) all.insert(all.end(), s.messages.begin(), s.messages.end());
    return all;
  }

 private:
  void enter(Call call) {
    calls.push_back(call);
    if (auto error = failWith ? failWith(call) : std::nullopt) throw *error;
  }
};

}  // namespace corvane::testing
