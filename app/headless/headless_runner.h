// The headless mode: the sync daemon (or one cycle), pairing with --pair and
// the status report with --status, driven by the command line. Returns the
// process exit code: 0 ok, 1 failed, 2 not connected or revoked, 64 a bad
// --server. Runs on the caller's thread; `stop` ends the daemon between cycles.
#pragma once

#include <cstdio>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "app/headless/command_line.h"
#include "app/platform/permissions.h"
#include "app/platform/token_store.h"
#include "app/platform/user_defaults.h"
#include "core/sync/stop_source.h"
#include "core/sync/sync_logger.h"

namespace corvane {

struct HeadlessEnvironment {
  std::function<std::optional<std::string>(std::string_view name)> getenv;
  TokenStore& tokens;
  UserDefaults& defaults;
  PermissionProbes& probes;
  std::shared_ptr<SyncLogger> log;
  std::FILE* out = stdout;  // command results
  StopToken stop;
};

int runHeadless(const CommandLine& args, HeadlessEnvironment& env);

}  // namespace corvane
