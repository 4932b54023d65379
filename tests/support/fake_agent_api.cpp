#include "tests/support/fake_agent_api.h"

namespace corvane::testing {

void FakeAgentAPI::enter(Call call) {
  calls.push_back(call);
  if (failWith) {
    if (auto error = failWith(call)) throw *error;
  }
}

AgentConfig FakeAgentAPI::getConfig() {
  enter(Call::config);
  return config;
}

SyncResponse FakeAgentAPI::sync(const SyncRequest& request) {
  enter(Call::sync);
  syncs.push_back(request);
  return {static_cast<std::int64_t>(request.messages.size()), 0};
}

OutboxResponse FakeAgentAPI::getOutbox() {
  enter(Call::outbox);
  return {outbox};
}

void FakeAgentAPI::ackOutbox(const std::string& id, const OutboxAck& ack) {
  enter(Call::ack);
  acks.emplace_back(id, ack);
}

SelfMessageResponse FakeAgentAPI::postSelf(const SelfMessageRequest& request) {
  enter(Call::self);
  selfPosts.push_back(request);
  return {1};
}

PairResponse FakeAgentAPI::pair(const PairRequest& request) {
  enter(Call::pair);
  pairs.push_back(request);
  return pairResponse;
}

void FakeAgentAPI::postStatus(const AgentStatusRequest& request) {
  enter(Call::status);
  statuses.push_back(request);
}

std::vector<SyncedMessage> FakeAgentAPI::uploadedMessages() const {
  std::vector<SyncedMessage> all;
  for (const auto& s : syncs) all.insert(all.end(), s.messages.begin(), s.messages.end());
  return all;
}

}  // namespace corvane::testing
