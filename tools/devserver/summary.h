// A short, readable account of what the development server received, for
// demos: uploads, messages per handle, directory, notes and outbox outcomes.
#pragma once

#include <string>

#include "core/protocol/wire_json.h"

namespace corvane::devserver {

// `state` is DevStore::state().
std::string summarize(const WireJSON& state);

}  // namespace corvane::devserver
