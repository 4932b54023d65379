// What the development server remembers: paired devices and their tokens,
// uploaded messages and directory entries, the outbox with its acks, notes
// to self and status reports. One SQLite database, a file or in memory.
//
// Safe to call from the server's worker threads: every operation holds the
// store's lock.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "core/protocol/wire_json.h"
#include "core/protocol/wire_types.h"

namespace corvane::devserver {

struct Device {
  std::string deviceId;
  std::string deviceName;
};

class DevStore {
 public:
  // Opens or creates the database at `path` (":memory:" for none); throws
  // std::runtime_error with SQLite's explanation when it cannot.
  explicit DevStore(const std::string& path);
  ~DevStore();
  DevStore(const DevStore&) = delete;
  DevStore& operator=(const DevStore&) = delete;

  // Registers `token` for a device; an existing token keeps its device.
  void addDevice(const std::string& token, const Device& device, const PairRequest& pairing);
  std::optional<Device> deviceForToken(const std::string& token);

  // Stores the upload (messages by guid, directory entries by handle, the
  // device's cursor). Messages of handles outside `roster` are dropped.
  SyncResponse storeSync(const Device& device, const SyncRequest& request,
                         const std::set<std::string>& roster);

  // Adds an item; an empty id gets a fresh one ("item-3"). Throws
  // std::runtime_error when the id is taken.
  OutboxItem addOutboxItem(OutboxItem item);
  // Items not acknowledged yet, oldest first.
  std::vector<OutboxItem> pendingOutbox();
  // Records the outcome; false when no item has this id.
  bool recordAck(const std::string& id, const OutboxAck& ack);

  // Stores a note to self; returns how many notes were new (0 or 1).
  std::int64_t storeSelfNote(const Device& device, const SelfMessageRequest& note);
  void storeStatus(const Device& device, const AgentStatusRequest& report);

  // Everything stored, tokens left out, as one JSON object.
  WireJSON state();

 private:
  void exec(const char* sql);

  std::mutex mutex_;
  sqlite3* db_ = nullptr;
};

}  // namespace corvane::devserver
