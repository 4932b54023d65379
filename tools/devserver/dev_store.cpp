#include "tools/devserver/dev_store.h"

#include <stdexcept>
#include <utility>

#include "core/protocol/iso_time.h"

namespace corvane::devserver {
namespace {

constexpr const char* kSchema = R"sql(
CREATE TABLE IF NOT EXISTS devices(
  token TEXT PRIMARY KEY, device_id TEXT NOT NULL, device_name TEXT NOT NULL,
  platform TEXT NOT NULL, agent_version TEXT NOT NULL, cursor INTEGER, paired_at TEXT NOT NULL);
CREATE TABLE IF NOT EXISTS messages(
  guid TEXT PRIMARY KEY, record TEXT NOT NULL, device_id TEXT NOT NULL, received_at TEXT NOT NULL);
CREATE TABLE IF NOT EXISTS directory(
  handle TEXT PRIMARY KEY, record TEXT NOT NULL, device_id TEXT NOT NULL, received_at TEXT NOT NULL);
CREATE TABLE IF NOT EXISTS uploads(
  seq INTEGER PRIMARY KEY, device_id TEXT NOT NULL, cursor INTEGER NOT NULL,
  messages INTEGER NOT NULL, directory INTEGER NOT NULL, accepted INTEGER NOT NULL,
  dropped INTEGER NOT NULL, received_at TEXT NOT NULL);
CREATE TABLE IF NOT EXISTS outbox(
  seq INTEGER PRIMARY KEY AUTOINCREMENT, id TEXT NOT NULL UNIQUE, handle TEXT NOT NULL,
  text TEXT NOT NULL, kind TEXT NOT NULL, created_at TEXT NOT NULL,
  ack_status TEXT, ack_error TEXT, acked_at TEXT);
CREATE TABLE IF NOT EXISTS self_notes(
  guid TEXT PRIMARY KEY, record TEXT NOT NULL, device_id TEXT NOT NULL, received_at TEXT NOT NULL);
CREATE TABLE IF NOT EXISTS status_reports(
  seq INTEGER PRIMARY KEY, record TEXT NOT NULL, device_id TEXT NOT NULL, received_at TEXT NOT NULL);
)sql";

// One prepared statement; values are bound in order, starting at 1.
class Statement {
 public:
  Statement(sqlite3* db, const char* sql) : db_(db) {
    if (sqlite3_prepare_v2(db, sql, -1, &stmt_, nullptr) != SQLITE_OK) fail();
  }
  ~Statement() { sqlite3_finalize(stmt_); }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  Statement& bind(const std::string& text) {
    check(sqlite3_bind_text(stmt_, ++bound_, text.data(), static_cast<int>(text.size()),
                            SQLITE_TRANSIENT));
    return *this;
  }
  Statement& bind(std::int64_t value) {
    check(sqlite3_bind_int64(stmt_, ++bound_, value));
    return *this;
  }
  Statement& bind(const std::optional<std::string>& text) {
    if (text) return bind(*text);
    check(sqlite3_bind_null(stmt_, ++bound_));
    return *this;
  }

  // True while there is a row to read.
  bool step() {
    const int rc = sqlite3_step(stmt_);
    if (rc == SQLITE_ROW) return true;
    if (rc != SQLITE_DONE) fail();
    return false;
  }

  std::optional<std::string> text(int column) const {
    const auto* p = sqlite3_column_text(stmt_, column);
    if (p == nullptr) return std::nullopt;
    return std::string(reinterpret_cast<const char*>(p),
                       static_cast<std::size_t>(sqlite3_column_bytes(stmt_, column)));
  }
  std::string string(int column) const { return text(column).value_or(""); }
  std::int64_t integer(int column) const { return sqlite3_column_int64(stmt_, column); }
  bool isNull(int column) const { return sqlite3_column_type(stmt_, column) == SQLITE_NULL; }

 private:
  void check(int rc) {
    if (rc != SQLITE_OK) fail();
  }
  [[noreturn]] void fail() { throw std::runtime_error(sqlite3_errmsg(db_)); }

  sqlite3* db_;
  sqlite3_stmt* stmt_ = nullptr;
  int bound_ = 0;
};

// The JSON values of a column that holds encoded wire records.
WireJSON records(sqlite3* db, const char* sql) {
  WireJSON out = WireJSON::array();
  Statement query(db, sql);
  while (query.step()) out.push_back(parseWireJSON(query.string(0)));
  return out;
}

}  // namespace

DevStore::DevStore(const std::string& path) {
  if (sqlite3_open(path.c_str(), &db_) != SQLITE_OK) {
    const std::string why = db_ ? sqlite3_errmsg(db_) : "out of memory";
    sqlite3_close(db_);
    throw std::runtime_error("cannot open " + path + ": " + why);
  }
  exec(kSchema);
}

DevStore::~DevStore() { sqlite3_close(db_); }

void DevStore::exec(const char* sql) {
  char* error = nullptr;
  if (sqlite3_exec(db_, sql, nullptr, nullptr, &error) != SQLITE_OK) {
    const std::string why = error ? error : sqlite3_errmsg(db_);
    sqlite3_free(error);
    throw std::runtime_error(why);
  }
}

void DevStore::addDevice(const std::string& token, const Device& device,
                         const PairRequest& pairing) {
  std::lock_guard lock(mutex_);
  Statement(db_,
            "INSERT OR IGNORE INTO devices(token, device_id, device_name, platform, agent_version,"
            " paired_at) VALUES (?, ?, ?, ?, ?, ?)")
      .bind(token)
      .bind(device.deviceId)
      .bind(device.deviceName)
      .bind(pairing.platform)
      .bind(pairing.agentVersion)
      .bind(isoString(nowMs()))
      .step();
}

std::optional<Device> DevStore::deviceForToken(const std::string& token) {
  std::lock_guard lock(mutex_);
  Statement query(db_, "SELECT device_id, device_name FROM devices WHERE token = ?");
  query.bind(token);
  if (!query.step()) return std::nullopt;
  return Device{query.string(0), query.string(1)};
}

SyncResponse DevStore::storeSync(const Device& device, const SyncRequest& request,
                                 const std::set<std::string>& roster) {
  std::lock_guard lock(mutex_);
  const std::string now = isoString(nowMs());
  SyncResponse response;
  exec("BEGIN");
  try {
    for (const auto& message : request.messages) {
      if (!roster.contains(message.handle)) {
        ++response.dropped;
        continue;
      }
      Statement(db_, "INSERT OR REPLACE INTO messages VALUES (?, ?, ?, ?)")
          .bind(message.guid)
          .bind(encodeJSON(message))
          .bind(device.deviceId)
          .bind(now)
          .step();
      ++response.accepted;
    }
    for (const auto& entry : request.directory) {
      Statement(db_, "INSERT OR REPLACE INTO directory VALUES (?, ?, ?, ?)")
          .bind(entry.handle)
          .bind(encodeJSON(entry))
          .bind(device.deviceId)
          .bind(now)
          .step();
    }
    Statement(db_,
              "INSERT INTO uploads(device_id, cursor, messages, directory, accepted, dropped,"
              " received_at) VALUES (?, ?, ?, ?, ?, ?, ?)")
        .bind(device.deviceId)
        .bind(request.cursor)
        .bind(static_cast<std::int64_t>(request.messages.size()))
        .bind(static_cast<std::int64_t>(request.directory.size()))
        .bind(response.accepted)
        .bind(response.dropped)
        .bind(now)
        .step();
    Statement(db_, "UPDATE devices SET cursor = ? WHERE device_id = ?")
        .bind(request.cursor)
        .bind(device.deviceId)
        .step();
    exec("COMMIT");
  } catch (...) {
    exec("ROLLBACK");
    throw;
  }
  return response;
}

OutboxItem DevStore::addOutboxItem(OutboxItem item) {
  std::lock_guard lock(mutex_);
  if (item.id.empty()) {
    Statement next(db_, "SELECT COALESCE(MAX(seq), 0) + 1 FROM outbox");
    next.step();
    item.id = "item-" + std::to_string(next.integer(0));
  }
  Statement(db_, "INSERT INTO outbox(id, handle, text, kind, created_at) VALUES (?, ?, ?, ?, ?)")
      .bind(item.id)
      .bind(item.handle)
      .bind(item.text)
      .bind(std::string(wireName(item.kind)))
      .bind(isoString(nowMs()))
      .step();
  return item;
}

std::vector<OutboxItem> DevStore::pendingOutbox() {
  std::lock_guard lock(mutex_);
  std::vector<OutboxItem> items;
  Statement query(
      db_, "SELECT id, handle, text, kind FROM outbox WHERE ack_status IS NULL ORDER BY seq");
  while (query.step()) {
    items.push_back({query.string(0), query.string(1), query.string(2),
                     WireJSON(query.string(3)).get<OutboxItem::Kind>()});
  }
  return items;
}

bool DevStore::recordAck(const std::string& id, const OutboxAck& ack) {
  std::lock_guard lock(mutex_);
  Statement(db_, "UPDATE outbox SET ack_status = ?, ack_error = ?, acked_at = ? WHERE id = ?")
      .bind(std::string(wireName(ack.status)))
      .bind(ack.error)
      .bind(isoString(nowMs()))
      .bind(id)
      .step();
  return sqlite3_changes(db_) > 0;
}

std::int64_t DevStore::storeSelfNote(const Device& device, const SelfMessageRequest& note) {
  std::lock_guard lock(mutex_);
  Statement(db_, "INSERT OR IGNORE INTO self_notes VALUES (?, ?, ?, ?)")
      .bind(note.guid)
      .bind(encodeJSON(note))
      .bind(device.deviceId)
      .bind(isoString(nowMs()))
      .step();
  return sqlite3_changes(db_);
}

void DevStore::storeStatus(const Device& device, const AgentStatusRequest& report) {
  std::lock_guard lock(mutex_);
  Statement(db_, "INSERT INTO status_reports(record, device_id, received_at) VALUES (?, ?, ?)")
      .bind(encodeJSON(report))
      .bind(device.deviceId)
      .bind(isoString(nowMs()))
      .step();
}

WireJSON DevStore::state() {
  std::lock_guard lock(mutex_);
  WireJSON state = WireJSON::object();

  WireJSON devices = WireJSON::array();
  Statement deviceRows(db_,
                       "SELECT device_id, device_name, platform, agent_version, cursor, paired_at"
                       " FROM devices ORDER BY paired_at, device_id");
  while (deviceRows.step()) {
    devices.push_back(
        {{"deviceId", deviceRows.string(0)},
         {"deviceName", deviceRows.string(1)},
         {"platform", deviceRows.string(2)},
         {"agentVersion", deviceRows.string(3)},
         {"cursor", deviceRows.isNull(4) ? WireJSON() : WireJSON(deviceRows.integer(4))},
         {"pairedAt", deviceRows.string(5)}});
  }
  state["devices"] = std::move(devices);
  state["messages"] = records(db_, "SELECT record FROM messages ORDER BY rowid");
  state["directory"] = records(db_, "SELECT record FROM directory ORDER BY rowid");

  WireJSON uploads = WireJSON::array();
  Statement uploadRows(db_,
                       "SELECT device_id, cursor, messages, directory, accepted, dropped,"
                       " received_at FROM uploads ORDER BY seq");
  while (uploadRows.step()) {
    uploads.push_back({{"deviceId", uploadRows.string(0)},
                       {"cursor", uploadRows.integer(1)},
                       {"messages", uploadRows.integer(2)},
                       {"directory", uploadRows.integer(3)},
                       {"accepted", uploadRows.integer(4)},
                       {"dropped", uploadRows.integer(5)},
                       {"receivedAt", uploadRows.string(6)}});
  }
  state["uploads"] = std::move(uploads);

  WireJSON outbox = WireJSON::array();
  Statement outboxRows(db_,
                       "SELECT id, handle, text, kind, ack_status, ack_error, acked_at"
                       " FROM outbox ORDER BY seq");
  while (outboxRows.step()) {
    WireJSON ack;  // null until acknowledged
    if (!outboxRows.isNull(4)) {
      ack = {{"status", outboxRows.string(4)},
             {"error", outboxRows.isNull(5) ? WireJSON() : WireJSON(outboxRows.string(5))},
             {"at", outboxRows.string(6)}};
    }
    outbox.push_back({{"id", outboxRows.string(0)},
                      {"handle", outboxRows.string(1)},
                      {"text", outboxRows.string(2)},
                      {"kind", outboxRows.string(3)},
                      {"ack", std::move(ack)}});
  }
  state["outbox"] = std::move(outbox);
  state["selfNotes"] = records(db_, "SELECT record FROM self_notes ORDER BY rowid");
  state["statusReports"] = records(db_, "SELECT record FROM status_reports ORDER BY seq");
  return state;
}

}  // namespace corvane::devserver
