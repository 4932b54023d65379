#include "app/headless/stop_signals.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <thread>

#include "core/sync/sync_logger.h"

namespace corvane {
namespace {

int waitForOne(const sigset_t& set) {
  int received = 0;
  while (sigwait(&set, &received) != 0) {
  }
  return received;
}

// Ends the process the way the signal's default action would, so the parent
// sees which signal it was.
[[noreturn]] void dieOf(int sig) {
  ::signal(sig, SIG_DFL);
  sigset_t only;
  sigemptyset(&only);
  sigaddset(&only, sig);
  pthread_sigmask(SIG_UNBLOCK, &only, nullptr);
  ::raise(sig);
  ::_exit(128 + sig);  // not reached
}

}  // namespace

void watchStopSignals(std::shared_ptr<StopSource> stop) {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);  // inherited by every later thread
  std::thread([set, stop = std::move(stop)] {
    waitForOne(set);
    stop->requestStop();
    ConsoleLogger().info("stopping after the current step (signal again to stop at once)");
    dieOf(waitForOne(set));
  }).detach();
}

}  // namespace corvane
