// Process entry: --render-icon, --headless, or the menu-bar application.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "app/headless/command_line.h"
#include "app/headless/headless_runner.h"
#include "app/headless/stop_signals.h"
#include "app/ui/app_icon.h"
#include "app/ui/application.h"
#include "core/contacts/phone.h"

namespace {

int runHeadless(const corvane::CommandLine& args) {
  auto stop = std::make_shared<corvane::StopSource>();
  corvane::watchStopSignals(stop);
  auto tokens = corvane::TokenStore::makeDefault();
  auto defaults = corvane::UserDefaults::makeDefault();
  auto probes = corvane::PermissionProbes::makeDefault();
  corvane::HeadlessEnvironment env{.getenv = corvane::Phone::processEnvironment,
                                   .tokens = *tokens,
                                   .defaults = *defaults,
                                   .probes = *probes,
                                   .log = std::make_shared<corvane::ConsoleLogger>(),
                                   .out = stdout,
                                   .stop = stop->token()};
  return corvane::runHeadless(args, env);
}

}  // namespace

int main(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);
  const corvane::CommandLine args(argc, argv);
  if (const auto out = args.value("--render-icon")) {
    if (const auto failure = corvane::AppIcon::renderToFile(*out, args.value("--size"))) {
      std::fprintf(stderr, "render failed: %s\n", failure->c_str());
      return 1;
    }
    return 0;
  }
  if (args.flag("--headless")) return runHeadless(args);
  return corvane::runApplication(argc, argv);
}
