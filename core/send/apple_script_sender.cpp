#include "core/send/apple_script_sender.h"

#include <chrono>
#include <memory>
#include <thread>

#include "core/chatdb/chat_db.h"
#include "core/send/apple_scripts.h"

namespace corvane {
namespace {

constexpr const char* kIMessage = "iMessage";
constexpr const char* kSMS = "SMS";
constexpr std::string_view kAutomationRefused = "blocked Corvane from controlling Messages";

std::int64_t steadyMs() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

std::int64_t toMs(double seconds) { return static_cast<std::int64_t>(seconds * 1000.0); }

SendResult failure(const std::string& service, std::string reason) {
  return {false, service, false, std::move(reason)};
}

}  // namespace

AppleScriptSender::AppleScriptSender(Options options) : options_(std::move(options)) {
  if (!options_.runner) options_.runner = Osascript::run;
  if (!options_.clockMs) options_.clockMs = steadyMs;
  if (!options_.sleep) {
    options_.sleep = [](double s) { std::this_thread::sleep_for(std::chrono::duration<double>(s)); };
  }
}

void AppleScriptSender::log(const std::string& line) const {
  if (options_.log) options_.log(line);
}

SendResult AppleScriptSender::send(const std::string& handle, const std::string& text) {
  // A database that can't be opened only costs us the confirmation.
  std::unique_ptr<ChatDB> db;
  if (options_.chatDBPath && !options_.chatDBPath->empty()) {
    try {
      db = std::make_unique<ChatDB>(*options_.chatDBPath, std::nullopt);
    } catch (const std::exception&) {
    }
  }

  SendResult viaIMessage = attempt(db.get(), kIMessage, handle, text);
  if (viaIMessage.ok) return viaIMessage;
  const std::string reason = viaIMessage.error.value_or("");
  // SMS can't reach an e-mail address, and Automation refuses both services alike.
  if (handle.find('@') != std::string::npos ||
      reason.find(kAutomationRefused) != std::string::npos) {
    return viaIMessage;
  }
  log("iMessage failed for " + handle + " (" + (reason.empty() ? "?" : reason) + "); trying SMS");

  SendResult viaSMS = attempt(db.get(), kSMS, handle, text);
  if (viaSMS.ok) return viaSMS;
  return {false, std::nullopt, false,
          "iMessage: " + viaIMessage.error.value_or("failed") +
              "; SMS: " + viaSMS.error.value_or("failed")};
}

SendResult AppleScriptSender::attempt(ChatDB* db, const std::string& service,
                                      const std::string& handle, const std::string& text) {
  // Rows written before the script runs can't be this send.
  std::optional<std::int64_t> cursor;
  if (db) {
    try {
      cursor = db->maxRowId();
    } catch (const std::exception&) {
    }
  }
  const auto script = service == kIMessage ? AppleScripts::iMessage : AppleScripts::sms;
  const OsascriptResult result = options_.runner(script, {text, handle}, scriptTimeoutSec);
  if (result.code != 0) return failure(service, Osascript::explain(result.stderrText));
  if (!cursor) return {true, service, false, std::nullopt};
  return verify(*db, *cursor, service, text);
}

SendResult AppleScriptSender::verify(ChatDB& db, std::int64_t cursor, const std::string& service,
                                     const std::string& text) {
  const std::string wanted = normalizeSentText(text);
  const std::int64_t start = options_.clockMs();
  std::optional<std::int64_t> firstSeen;
  while (options_.clockMs() - start <= toMs(options_.verifyTimeoutSec)) {
    std::vector<ChatDB::OutgoingRow> rows;
    try {
      rows = db.outgoingAfter(cursor);
    } catch (const std::exception&) {
      return {true, service, false, std::nullopt};  // unreadable: unconfirmed, not failed
    }
    const auto match = std::find_if(rows.begin(), rows.end(), [&](const ChatDB::OutgoingRow& r) {
      return normalizeSentText(r.text) == wanted;
    });
    if (match != rows.end()) {
      if (match->error != 0) {
        return failure(service, "Messages reported send error " + std::to_string(match->error) +
                                    " (" + service + ")");
      }
      // Messages may write the error code a moment after the row itself.
      const std::int64_t now = options_.clockMs();
      if (!firstSeen) firstSeen = now;
      if (now - *firstSeen >= toMs(options_.settleSec)) return {true, service, true, std::nullopt};
    }
    options_.sleep(options_.pollSec);
  }
  log("sent via " + service + " but couldn't confirm it in chat.db within the timeout");
  return {true, service, false, std::nullopt};
}

}  // namespace corvane
