#include "core/send/fake_sender.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <nlohmann/json.hpp>

#include "core/protocol/iso_time.h"
#include "core/text/unicode.h"

namespace corvane {
namespace {

constexpr std::size_t kLogPreview = 120;

// Appends `line` with a single write so concurrent writers never interleave
// inside a line. Failures are ignored: the fake sender is a development aid.
void appendLine(const std::string& path, const std::string& line) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0) return;
  std::size_t done = 0;
  while (done < line.size()) {
    const ssize_t n = ::write(fd, line.data() + done, line.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    done += static_cast<std::size_t>(n);
  }
  ::close(fd);
}

}  // namespace

FakeSender::FakeSender(Options options) : options_(std::move(options)) {
  if (!options_.nowMs) options_.nowMs = corvane::nowMs;
}

SendResult FakeSender::send(const std::string& handle, const std::string& text) {
  // Everything below works on the trimmed text that was checked.
  const std::string trimmed(trimWhitespace(text));
  if (trimmed.empty()) return {false, std::nullopt, false, "empty message"};
  if (options_.log) {
    options_.log("[fake-send] \u2192 " + handle + ": " + prefixGraphemes(trimmed, kLogPreview));
  }
  if (options_.logFile) {
    const nlohmann::json record = {
        {"at", isoString(options_.nowMs())}, {"handle", handle}, {"text", trimmed}};
    appendLine(*options_.logFile,
               record.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n");
  }
  return {true, "iMessage", false, std::nullopt};
}

}  // namespace corvane
