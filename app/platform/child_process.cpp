#include "app/platform/child_process.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

extern char** environ;

namespace corvane::ChildProcess {
namespace {

// posix_spawn's setup, released on every path.
class SpawnSetup {
 public:
  explicit SpawnSetup(bool newSession) {
    posix_spawn_file_actions_init(&actions_);
    // The child must not wait on our input: the relaunch shell outlives us.
    posix_spawn_file_actions_addopen(&actions_, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawnattr_init(&attr_);
    // Whatever this process blocks or ignores (SIGPIPE is ignored at start)
    // would otherwise be inherited through exec.
    sigset_t none;
    sigset_t all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_setsigmask(&attr_, &none);
    posix_spawnattr_setsigdefault(&attr_, &all);
    short flags = POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF;
#ifdef POSIX_SPAWN_CLOEXEC_DEFAULT
    flags |= POSIX_SPAWN_CLOEXEC_DEFAULT;
#endif
#ifdef POSIX_SPAWN_SETSID
    // A signal to our process group (Ctrl-C in a terminal) must not take a
    // shell that is meant to outlive us along with it.
    if (newSession) flags |= POSIX_SPAWN_SETSID;
#else
    (void)newSession;
#endif
    posix_spawnattr_setflags(&attr_, flags);
  }
  SpawnSetup(const SpawnSetup&) = delete;
  SpawnSetup& operator=(const SpawnSetup&) = delete;
  ~SpawnSetup() {
    posix_spawnattr_destroy(&attr_);
    posix_spawn_file_actions_destroy(&actions_);
  }

  std::optional<pid_t> spawn(const std::string& executable, const std::vector<std::string>& args) {
    std::vector<char*> argv;
    argv.reserve(args.size() + 2);
    argv.push_back(const_cast<char*>(executable.c_str()));
    for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    pid_t pid = 0;
    if (::posix_spawn(&pid, executable.c_str(), &actions_, &attr_, argv.data(), environ) != 0) {
      return std::nullopt;
    }
    return pid;
  }

 private:
  posix_spawn_file_actions_t actions_;
  posix_spawnattr_t attr_;
};

}  // namespace

std::optional<int> run(const std::string& executable, const std::vector<std::string>& args) {
  const auto pid = SpawnSetup(false).spawn(executable, args);
  if (!pid) return std::nullopt;
  int status = 0;
  pid_t r;
  do {
    r = ::waitpid(*pid, &status, 0);
  } while (r < 0 && errno == EINTR);
  // ECHILD: someone else reaped it (SIGCHLD ignored); it did start.
  if (r != *pid) return 0;
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return WEXITSTATUS(status);
}

std::optional<std::int64_t> start(const std::string& executable,
                                  const std::vector<std::string>& args) {
  const auto pid = SpawnSetup(true).spawn(executable, args);
  if (!pid) return std::nullopt;
  return static_cast<std::int64_t>(*pid);
}

std::int64_t currentProcessId() { return static_cast<std::int64_t>(::getpid()); }

}  // namespace corvane::ChildProcess
