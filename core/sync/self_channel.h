// SelfChannel: the decisions that keep the notes-to-self loop from feeding
// on itself. The user texts notes to themselves; the agent posts them to the
// service and sends the service's replies back into the same chat. Here the
// agent's own replies are recognised when they reappear (echoes), mirrored
// copies of a note already posted are dropped, and stale notes are ignored.
//
// Pure functions over values: the memory is AgentState.assistantSent and
// AgentState.selfPosted. Safe from any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/chatdb/chat_db.h"
#include "core/sync/agent_state.h"

namespace corvane::SelfChannel {

// A text and its mirrored copy in the database land this close together.
inline constexpr std::int64_t mirrorWindowMs = 5'000;
// A self-chat text equal to a reply sent within this time is that reply.
inline constexpr std::int64_t echoWindowMs = 600'000;
// Notes older than this are not posted.
inline constexpr std::int64_t maxSelfAgeMs = 43'200'000;

enum class SkipReason {
  echo,
  duplicate,
  tooOld,
  // Not given by plan: for the caller, when a note could not be handled
  // because sending it failed.
  sendError,
};

// "echo", "duplicate", "too-old" or "send-error".
std::string_view toString(SkipReason reason);

// What to do with one note-to-self row: post it, or skip it for a reason.
struct Decision {
  ChatDB::SelfRow row;
  std::optional<SkipReason> reason;  // absent for a post

  static Decision post(ChatDB::SelfRow row) { return {std::move(row), std::nullopt}; }
  static Decision skip(ChatDB::SelfRow row, SkipReason why) { return {std::move(row), why}; }
  bool isPost() const { return !reason.has_value(); }
  bool operator==(const Decision&) const = default;
};

// The comparison form of a text: NFC, without U+FFFC (the placeholder
// Messages leaves for an attachment), typographic single and double quotes
// folded to ASCII, and trimmed of white space at both ends. Idempotent.
// Replies are recorded in this form.
std::string normalizeForMatch(std::string_view text);

// The entries of `list` at most `maxAgeMs` old at `now`, in order, and of
// those only the last `maxLen`. Aborts the process if now - at overflows.
std::vector<SentText> prune(const std::vector<SentText>& list, std::int64_t now,
                            std::int64_t maxAgeMs, std::size_t maxLen);

// True when `sent` holds `text` at most `windowMs` away from `atMs`, in
// either direction, comparing normalised forms. Aborts the process if the distance overflows.
bool isAssistantEcho(std::string_view text, std::int64_t atMs, const std::vector<SentText>& sent,
                     std::int64_t windowMs);

// One decision per row, in row order. For each row, checked in this order:
// an echo of a reply in `assistantSent` within echoWindowMs; a duplicate of a
// note in `selfPosted`, or of an earlier row posted by this plan, within
// mirrorWindowMs; older than maxSelfAgeMs at `now`; otherwise posted.
std::vector<Decision> plan(const std::vector<ChatDB::SelfRow>& rows,
                           const std::vector<SentText>& assistantSent,
                           const std::vector<SentText>& selfPosted, std::int64_t now);

}  // namespace corvane::SelfChannel
