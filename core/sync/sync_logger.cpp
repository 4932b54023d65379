#include "core/sync/sync_logger.h"

#include "core/protocol/iso_time.h"

namespace corvane {

ConsoleLogger::ConsoleLogger(std::FILE* out, std::function<std::int64_t()> clockMs)
    : out_(out), clockMs_(clockMs ? std::move(clockMs) : std::function<std::int64_t()>(nowMs)) {}

void ConsoleLogger::write(const char* prefix, const std::string& message) {
  // One fwrite per line: stdio locks the stream per call, so lines from
  // different threads never interleave.
  const std::string line = "[" + isoString(clockMs_()) + "] " + prefix + message + "\n";
  std::fwrite(line.data(), 1, line.size(), out_);
  std::fflush(out_);
}

}  // namespace corvane
