#include "tools/devserver/summary.h"

#include <map>
#include <sstream>

namespace corvane::devserver {
namespace {

std::string text(const WireJSON& v) { return v.is_string() ? v.get<std::string>() : v.dump(); }

std::string preview(const std::string& s) {
  constexpr std::size_t kMax = 60;
  return s.size() <= kMax ? s : s.substr(0, kMax) + "\u2026";
}

}  // namespace

std::string summarize(const WireJSON& state) {
  std::ostringstream out;
  const auto& uploads = state.at("uploads");
  const auto& messages = state.at("messages");
  out << "uploads:   " << uploads.size() << " request(s)";
  if (!uploads.empty()) out << ", cursor " << uploads.back().at("cursor").get<std::int64_t>();
  out << "\nmessages:  " << messages.size() << "\n";

  std::map<std::string, int> perHandle, reactions, attachments;
  for (const auto& m : messages) {
    const std::string handle = text(m.at("handle"));
    ++perHandle[handle];
    if (!m.at("reaction").is_null()) ++reactions[handle];
    if (!m.at("attachments").empty()) ++attachments[handle];
  }
  for (const auto& [handle, count] : perHandle) {
    out << "  " << handle << ": " << count << " (" << reactions[handle] << " tap-backs, "
        << attachments[handle] << " with attachments)\n";
  }
  if (!messages.empty()) {
    const auto& last = messages.back();
    out << "  latest: " << text(last.at("sentAt")) << " " << text(last.at("handle")) << ": \""
        << preview(text(last.at("text"))) << "\"\n";
  }

  const auto& directory = state.at("directory");
  out << "directory: " << directory.size() << " entries\n";
  for (std::size_t i = 0; i < directory.size() && i < 5; ++i) {
    const auto& e = directory[i];
    out << "  " << text(e.at("handle")) << " via " << text(e.at("service")) << ", "
        << e.at("messageCount").get<std::int64_t>() << " messages, last "
        << text(e.at("lastMessageAt")) << "\n";
  }
  if (directory.size() > 5) out << "  \u2026\n";

  const auto& notes = state.at("selfNotes");
  out << "notes:     " << notes.size() << " note(s) to self\n";
  for (const auto& n : notes) out << "  \"" << preview(text(n.at("text"))) << "\"\n";

  const auto& outbox = state.at("outbox");
  out << "outbox:    " << outbox.size() << " item(s)\n";
  for (const auto& item : outbox) {
    const auto& ack = item.at("ack");
    out << "  " << text(item.at("id")) << " \u2192 " << text(item.at("handle")) << " \""
        << preview(text(item.at("text"))) << "\": "
        << (ack.is_null() ? std::string("not acknowledged")
                          : "acknowledged " + text(ack.at("status")) +
                                (ack.at("error").is_null() ? "" : " (" + text(ack.at("error")) + ")"))
        << "\n";
  }
  return out.str();
}

}  // namespace corvane::devserver
