#include "tests/support/recording.h"

#include <algorithm>

namespace corvane::testing {

bool RecordingLogger::contains(const std::string& part) const {
  const auto all = lines();
  return std::any_of(all.begin(), all.end(),
                     [&](const std::string& l) { return l.find(part) != std::string::npos; });
}

}  // namespace corvane::testing
