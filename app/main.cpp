// Process entry: --render-icon, --headless, or the menu-bar application; and
// help, the version and usage errors, which need none of them.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "app/headless/command_line.h"
#include "app/headless/headless_runner.h"
#include "app/headless/stop_signals.h"
#include "app/ui/app_icon.h"
#include "app/ui/application.h"
#include "app/ui/qt_platform.h"
#include "core/contacts/phone.h"
#include "core/protocol/app_info.h"
#include "core/sync/heap.h"

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
  corvane::Heap::configureForResident();
  std::signal(SIGPIPE, SIG_IGN);
  const corvane::CommandLine args(argc, argv);
  const corvane::EntryChoice choice = corvane::chooseEntry(args);
  switch (choice.entry) {
    case corvane::Entry::renderIcon:
      if (const auto failure =
              corvane::AppIcon::renderToFile(*args.value("--render-icon"), args.value("--size"))) {
        std::fprintf(stderr, "render failed: %s\n", failure->c_str());
        return 1;
      }
      return 0;
    case corvane::Entry::headless:
      return runHeadless(args);
    case corvane::Entry::help:
      std::printf("%s\n", corvane::fullUsageText(corvane::UsagePlaces::thisPlatform()).c_str());
      return 0;
    case corvane::Entry::version:
      std::printf("Corvane %s\n", corvane::AppInfo::version().c_str());
      return 0;
    case corvane::Entry::usageError:
      std::fprintf(stderr, "Corvane: unknown option %s\n\n%s\n", choice.unknownOption.c_str(),
                   corvane::fullUsageText(corvane::UsagePlaces::thisPlatform()).c_str());
      return corvane::kUsageExitCode;
    case corvane::Entry::application:
      break;
  }
  // Qt would abort the process on a missing display, with advice that
  // doesn't help.
  if (const auto missing = corvane::QtPlatform::missingDisplay(
          args, corvane::UserDirectories::processEnvironment, corvane::QtPlatform::defaultNames())) {
    std::fprintf(stderr, "%s\n", missing->c_str());
    return corvane::QtPlatform::kNoDisplayExitCode;
  }
  return corvane::runApplication(argc, argv);
}
