// The calls of the agent API: those the sync engine needs, pairing and the
// status report. APIClient talks to
// the real server; tests and offline runs hand in another implementation.
// Every operation returns the decoded answer or throws APIError. Whether an
// implementation may be called from several threads is its own promise
// (APIClient may).
#pragma once

#include <string>

#include "core/protocol/wire_types.h"

namespace corvane {

class AgentAPI {
 public:
  AgentAPI() = default;
  AgentAPI(const AgentAPI&) = delete;
  AgentAPI& operator=(const AgentAPI&) = delete;
  virtual ~AgentAPI() = default;

  // The roster, look-back windows, poll interval and self-channel settings.
  virtual AgentConfig getConfig() = 0;

  // Uploads one batch of messages and directory entries.
  virtual SyncResponse sync(const SyncRequest& request) = 0;

  // The texts approved for sending and not yet acknowledged.
  virtual OutboxResponse getOutbox() = 0;

  // Reports the outcome of sending the outbox item `id`.
  virtual void ackOutbox(const std::string& id, const OutboxAck& ack) = 0;

  // Forwards one note the user texted to themselves.
  virtual SelfMessageResponse postSelf(const SelfMessageRequest& request) = 0;

  // Exchanges a pairing code for a device token (needs no token itself).
  virtual PairResponse pair(const PairRequest& request) = 0;

  // Tells the server which permissions this Mac holds.
  virtual void postStatus(const AgentStatusRequest& request) = 0;
};

}  // namespace corvane
