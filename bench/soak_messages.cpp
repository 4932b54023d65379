#include "bench/soak_messages.h"

#include "core/contacts/phone.h"
#include "core/send/apple_scripts.h"

namespace corvane::bench {
namespace {

constexpr std::int64_t kAppleEpochMs = 978307200000;

}  // namespace

MessagesApp::MessagesApp(const std::string& path, const std::string& region, std::string ownHandle)
    : db_(path, /*readOnly=*/false), region_(region), ownHandle_(std::move(ownHandle)) {
  // Messages keeps its database in write-ahead mode, which is what the
  // agent's read-only connections meet on a Mac.
  db_.exec("PRAGMA journal_mode = WAL");
  db_.exec("PRAGMA cache_size = -64");
  // iMessage chats first, so that a person with an SMS chat too is written
  // to where the generator put most of their messages.
  const auto rows = db_.query(
      "SELECT c.ROWID AS chat, h.ROWID AS handle, h.id AS id FROM chat c"
      " JOIN chat_handle_join j ON j.chat_id = c.ROWID JOIN handle h ON h.ROWID = j.handle_id"
      " WHERE c.style = 45 ORDER BY c.service_name = 'iMessage' DESC, c.ROWID");
  for (const auto& row : rows) {
    const auto handle = Phone::normalize(row["id"].string(), region);
    const std::int64_t chat = row["chat"].int64().value_or(0);
    if (handle && chats_.emplace(*handle, chat).second) {
      handles_[chat] = row["handle"].int64().value_or(0);
    }
  }
}

std::int64_t MessagesApp::chatWith(const std::string& handle, const std::string& service) {
  if (const auto found = chats_.find(handle); found != chats_.end()) return found->second;
  const std::int64_t handleRow = db_.run(
      "INSERT INTO handle (id, service, uncanonicalized_id) VALUES (?, ?, ?)", {handle, service, handle});
  const std::string guid = service + ";-;" + handle;
  const std::int64_t chat = db_.run(
      "INSERT INTO chat (guid, style, chat_identifier, service_name) VALUES (?, 45, ?, ?)",
      {guid, handle, service});
  db_.run("INSERT INTO chat_handle_join (chat_id, handle_id) VALUES (?, ?)", {chat, handleRow});
  chats_[handle] = chat;
  handles_[chat] = handleRow;
  return chat;
}

std::int64_t MessagesApp::write(const std::string& handle, const std::string& text, bool fromMe,
                                std::int64_t atMs, const std::string& service) {
  const std::int64_t chat = chatWith(handle, service);
  const std::int64_t date = (atMs - kAppleEpochMs) * 1'000'000;
  const std::string guid = "SOAK-" + std::to_string(nextGuid_++) + "-" + std::to_string(atMs);
  const std::int64_t rowid = db_.run(
      "INSERT INTO message (guid, text, handle_id, date, is_from_me, service, account,"
      " destination_caller_id) VALUES (?, ?, ?, ?, ?, ?, ?, ?)",
      {guid, text, handles_[chat], date, fromMe ? 1 : 0, service, "p:" + ownHandle_, ownHandle_});
  db_.run("INSERT INTO chat_message_join (chat_id, message_id, message_date) VALUES (?, ?, ?)",
          {chat, rowid, date});
  return rowid;
}

std::vector<std::string> MessagesApp::handles() const {
  std::vector<std::string> out;
  for (const auto& [handle, chat] : chats_) out.push_back(handle);
  return out;
}

void MessagesApp::remove(std::int64_t rowid) {
  db_.run("DELETE FROM chat_message_join WHERE message_id = ?", {rowid});
  db_.run("DELETE FROM message WHERE ROWID = ?", {rowid});
}

Osascript::Runner MessagesApp::sendScriptRunner(std::function<std::int64_t()> nowMs) {
  return [this, nowMs = std::move(nowMs)](std::string_view script,
                                          const std::vector<std::string>& args, double) {
    if (args.size() != 2) return OsascriptResult{1, "", "unexpected script arguments"};
    const auto handle = Phone::normalize(args[1], region_);
    write(handle.value_or(args[1]), args[0], /*fromMe=*/true, nowMs(),
          script == AppleScripts::sms ? "SMS" : "iMessage");
    return OsascriptResult{};
  };
}

}  // namespace corvane::bench
