#include "core/sync/self_channel.h"

#include <cinttypes>
#include <cstdio>
#include <cstdlib>

#include "core/text/normalization.h"
#include "core/text/unicode.h"

namespace corvane::SelfChannel {
namespace {

// Times come from the database and the state file; a difference that doesn't
// fit in 64 bits means one of them is garbage, and no answer is right.
std::int64_t difference(std::int64_t a, std::int64_t b) {
  std::int64_t result;
  if (__builtin_sub_overflow(a, b, &result)) {
    std::fprintf(stderr, "fatal: time difference %" PRId64 " - %" PRId64 " overflows\n", a, b);
    std::abort();
  }
  return result;
}

bool within(std::int64_t a, std::int64_t b, std::int64_t windowMs) {
  const std::int64_t d = difference(a, b);
  return d <= windowMs && d >= -windowMs;
}

// Messages' smart punctuation may turn a typed quote into its curly form in
// one copy of a text and not in another.
char32_t foldQuote(char32_t c) {
  switch (c) {
    case U'\u2018':
    case U'\u2019':
      return U'\'';
    case U'\u201C':
    case U'\u201D':
      return U'"';
    default:
      return c;
  }
}

// Recorded texts are normalised on the way in, but one recorded as it was
// read must still match; the form is idempotent, so this costs nothing else.
std::vector<SentText> normalized(const std::vector<SentText>& list, std::size_t room = 0) {
  std::vector<SentText> out;
  out.reserve(list.size() + room);
  for (const auto& entry : list) out.push_back({normalizeForMatch(entry.text), entry.at});
  return out;
}

bool matchesAny(const std::string& text, std::int64_t atMs, const std::vector<SentText>& sent,
                std::int64_t windowMs) {
  for (const auto& entry : sent) {
    if (entry.text == text && within(atMs, entry.at, windowMs)) return true;
  }
  return false;
}

}  // namespace

std::string_view toString(SkipReason reason) {
  switch (reason) {
    case SkipReason::echo:
      return "echo";
    case SkipReason::duplicate:
      return "duplicate";
    case SkipReason::tooOld:
      return "too-old";
    case SkipReason::sendError:
      return "send-error";
  }
  return "";
}

std::string normalizeForMatch(std::string_view text) {
  // The placeholder goes before composing: removed after, it could leave a
  // letter beside a combining mark it had kept apart ("a\uFFFC\u0301"), which
  // a second pass would then compose. Decoding also repairs ill-formed UTF-8.
  std::string kept;
  kept.reserve(text.size());
  for (std::size_t i = 0; i < text.size();) {
    const char32_t c = decodeUTF8At(text, i);
    if (c != U'\uFFFC') appendUTF8(kept, foldQuote(c));
  }
  // Trimming last also catches blanks that sat next to a removed placeholder,
  // and makes the form idempotent.
  return std::string(trimWhitespace(toNFC(kept)));
}

std::vector<SentText> prune(const std::vector<SentText>& list, std::int64_t now,
                            std::int64_t maxAgeMs, std::size_t maxLen) {
  std::vector<SentText> kept;
  for (const auto& entry : list) {
    if (difference(now, entry.at) <= maxAgeMs) kept.push_back(entry);
  }
  if (kept.size() > maxLen)
    kept.erase(kept.begin(), kept.end() - static_cast<std::ptrdiff_t>(maxLen));
  return kept;
}

bool isAssistantEcho(std::string_view text, std::int64_t atMs, const std::vector<SentText>& sent,
                     std::int64_t windowMs) {
  return matchesAny(normalizeForMatch(text), atMs, normalized(sent), windowMs);
}

std::vector<Decision> plan(const std::vector<ChatDB::SelfRow>& rows,
                           const std::vector<SentText>& assistantSent,
                           const std::vector<SentText>& selfPosted, std::int64_t now) {
  const std::vector<SentText> replies = normalized(assistantSent);
  // Rows posted by this plan join the posted notes as it goes.
  std::vector<SentText> posted = normalized(selfPosted, rows.size());

  std::vector<Decision> decisions;
  decisions.reserve(rows.size());
  for (const auto& row : rows) {
    const std::string text = normalizeForMatch(row.text);
    if (matchesAny(text, row.sentAtMs, replies, echoWindowMs)) {
      decisions.push_back(Decision::skip(row, SkipReason::echo));
    } else if (matchesAny(text, row.sentAtMs, posted, mirrorWindowMs)) {
      decisions.push_back(Decision::skip(row, SkipReason::duplicate));
    } else if (difference(now, row.sentAtMs) > maxSelfAgeMs) {
      decisions.push_back(Decision::skip(row, SkipReason::tooOld));
    } else {
      decisions.push_back(Decision::post(row));
      posted.push_back({text, row.sentAtMs});
    }
  }
  return decisions;
}

}  // namespace corvane::SelfChannel
