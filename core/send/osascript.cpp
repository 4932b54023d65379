#include "core/send/osascript.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <initializer_list>
#include <optional>
#include <system_error>

#include "core/text/unicode.h"

extern char** environ;

namespace corvane {
namespace {

using Clock = std::chrono::steady_clock;

constexpr double kUnlimitedSec = 1e8;

std::string errnoText(int error) { return std::generic_category().message(error); }

// Owns one descriptor. close is never retried: after EINTR the descriptor
// is already gone and a retry could close someone else's.
class Fd {
 public:
  Fd() = default;
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  ~Fd() { reset(); }

  int get() const { return fd_; }
  bool isOpen() const { return fd_ >= 0; }
  void reset(int fd = -1) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

struct Pipe {
  Fd read;
  Fd write;
};

// Both ends are close-on-exec from the start, so a process that another
// thread starts meanwhile can't inherit them and hold our pipes open.
int openPipe(Pipe& p) {
  int fds[2];
#ifdef __APPLE__
  // No pipe2 here; spawns on macOS also pass POSIX_SPAWN_CLOEXEC_DEFAULT.
  if (::pipe(fds) != 0) return errno;
  ::fcntl(fds[0], F_SETFD, FD_CLOEXEC);
  ::fcntl(fds[1], F_SETFD, FD_CLOEXEC);
#else
  if (::pipe2(fds, O_CLOEXEC) != 0) return errno;
#endif
  p.read.reset(fds[0]);
  p.write.reset(fds[1]);
  return 0;
}

short platformSpawnFlags() {
#ifdef POSIX_SPAWN_CLOEXEC_DEFAULT
  return POSIX_SPAWN_CLOEXEC_DEFAULT;
#else
  return 0;
#endif
}

void setNonBlocking(int fd) { ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK); }

// The spawned process. Whatever path leaves the runner, the destructor makes
// sure the child is gone and reaped.
class Child {
 public:
  explicit Child(pid_t pid) : pid_(pid) {}
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  ~Child() {
    if (!ended_) {
      kill();
      wait();
    }
  }

  bool ended() const { return ended_; }
  int status() const { return status_; }

  // Reaps the child if it has ended, without waiting.
  void check() { reap(WNOHANG); }
  void wait() {
    while (!ended_ && reap(0) < 0) {
    }
  }
  // Safe until reaped: a zombie keeps its pid, so it can't be someone else's.
  void kill() {
    if (!ended_) ::kill(pid_, SIGKILL);
  }

 private:
  int reap(int flags) {
    int status = 0;
    pid_t r;
    do {
      r = ::waitpid(pid_, &status, flags);
    } while (r < 0 && errno == EINTR);
    if (r == pid_) {
      ended_ = true;
      status_ = status;
    } else if (r < 0) {
      // ECHILD: someone else reaped it (a SIGCHLD set to SIG_IGN does that).
      ended_ = true;
    }
    return r;
  }

  pid_t pid_;
  bool ended_ = false;
  int status_ = 0;
};

// A child that exits without reading its script must not take this process
// down with SIGPIPE. The signal is blocked on this thread while the runner
// works, and one raised by our own write is consumed before unblocking.
class SigpipeBlock {
 public:
  SigpipeBlock() {
    sigemptyset(&pipeSet_);
    sigaddset(&pipeSet_, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipeSet_, &previous_);
    wasPending_ = pending();
  }
  SigpipeBlock(const SigpipeBlock&) = delete;
  SigpipeBlock& operator=(const SigpipeBlock&) = delete;
  ~SigpipeBlock() {
    if (!wasPending_ && pending()) {
      int sig;
      sigwait(&pipeSet_, &sig);
    }
    pthread_sigmask(SIG_SETMASK, &previous_, nullptr);
  }

 private:
  bool pending() const {
    sigset_t set;
    sigemptyset(&set);
    return sigpending(&set) == 0 && sigismember(&set, SIGPIPE) == 1;
  }

  sigset_t pipeSet_;
  sigset_t previous_;
  bool wasPending_ = false;
};

// Reads what is available now, in at most `maxReads` reads, so a child that
// writes without pause can't keep the runner from checking its deadline.
// Closes the stream at end of file or on an error.
void readAvailable(Fd& fd, std::string& into, int maxReads) {
  std::array<char, 64 * 1024> buf;
  for (int reads = 0; reads < maxReads;) {
    const ssize_t n = ::read(fd.get(), buf.data(), buf.size());
    if (n > 0) {
      into.append(buf.data(), static_cast<std::size_t>(n));
      ++reads;
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;
    fd.reset();
    return;
  }
}

// Writes as much of the rest of `data` as the pipe takes now; closes the pipe
// when everything is written or the child stopped reading.
void writeAvailable(Fd& fd, std::string_view data, std::size_t& written) {
  while (written < data.size()) {
    const ssize_t n = ::write(fd.get(), data.data() + written, data.size() - written);
    if (n > 0) {
      written += static_cast<std::size_t>(n);
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;
    break;  // EPIPE: the child won't read the rest
  }
  fd.reset();
}

struct Spawned {
  std::optional<pid_t> pid;
  std::string error;
};

Spawned spawn(const std::string& executable, const std::vector<std::string>& args, Pipe& in,
              Pipe& out, Pipe& err) {
  std::vector<char*> argv;
  argv.reserve(args.size() + 3);
  argv.push_back(const_cast<char*>(executable.c_str()));
  argv.push_back(const_cast<char*>("-"));
  for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in.read.get(), STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, out.write.get(), STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, err.write.get(), STDERR_FILENO);

  // The child starts with no blocked signals and SIGPIPE at its default,
  // whatever this process has arranged for itself (the daemon blocks
  // SIGINT/SIGTERM for its signal thread and ignores SIGPIPE).
  posix_spawnattr_t attr;
  posix_spawnattr_init(&attr);
  sigset_t none, defaults;
  sigemptyset(&none);
  sigemptyset(&defaults);
  sigaddset(&defaults, SIGPIPE);
  posix_spawnattr_setsigmask(&attr, &none);
  posix_spawnattr_setsigdefault(&attr, &defaults);
  posix_spawnattr_setflags(&attr, static_cast<short>(POSIX_SPAWN_SETSIGMASK |
                                                     POSIX_SPAWN_SETSIGDEF | platformSpawnFlags()));

  pid_t pid = 0;
  const int rc = ::posix_spawn(&pid, executable.c_str(), &actions, &attr, argv.data(), environ);
  posix_spawnattr_destroy(&attr);
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) return {std::nullopt, "couldn't launch " + executable + ": " + errnoText(rc)};
  return {pid, {}};
}

std::string decodeAndTrim(std::string bytes) {
  if (!isValidUTF8(bytes)) return {};
  return std::string(trimWhitespace(bytes));
}

std::string wholeSeconds(double seconds) {
  if (!(seconds > 0)) return "0";
  if (seconds >= kUnlimitedSec) return "inf";
  return std::to_string(static_cast<long long>(seconds));
}

OsascriptResult resultOf(int status, std::string outBytes, std::string errBytes,
                         double timeoutSec) {
  OsascriptResult result;
  if (WIFEXITED(status)) {
    result.code = WEXITSTATUS(status);
  } else if (WIFSIGNALED(status)) {
    result.code = WTERMSIG(status);
  } else {
    result.code = -1;
  }
  result.stdoutText = decodeAndTrim(std::move(outBytes));
  std::string errText = isValidUTF8(errBytes) ? std::move(errBytes) : std::string();
  // A kill at the limit is the expected way to die by a signal; the note is
  // added before trimming, so it only starts a new line after other text.
  if (WIFSIGNALED(status)) {
    errText += "\nosascript timed out after " + wholeSeconds(timeoutSec) + "s";
  }
  result.stderrText = decodeAndTrim(std::move(errText));
  return result;
}

OsascriptResult runChecked(const std::string& executable, std::string_view script,
                           const std::vector<std::string>& args, double timeoutSec) {
  Pipe in, out, err;
  for (Pipe* p : {&in, &out, &err}) {
    if (const int e = openPipe(*p); e != 0)
      return {-1, "", "couldn't create a pipe: " + errnoText(e)};
  }
  SigpipeBlock sigpipeBlock;
  const Spawned spawned = spawn(executable, args, in, out, err);
  // The child's ends belong to the child now; holding them would keep our
  // reads from ever seeing end of file.
  in.read.reset();
  out.write.reset();
  err.write.reset();
  if (!spawned.pid) return {-1, "", spawned.error};
  Child child(*spawned.pid);

  for (Fd* fd : {&in.write, &out.read, &err.read}) setNonBlocking(fd->get());
  // Beyond a few years the limit is no limit (and would overflow the clock).
  const bool limited = !(timeoutSec >= kUnlimitedSec);
  const auto deadline =
      Clock::now() + std::chrono::duration_cast<Clock::duration>(
                         std::chrono::duration<double>(limited && timeoutSec > 0 ? timeoutSec : 0));
  std::string outBytes, errBytes;
  std::size_t written = 0;
  if (script.empty()) in.write.reset();
  // Exit is noticed through waitpid, so a child that closes its output early,
  // or leaves a grandchild holding it, is still seen when it ends. The wait
  // between checks starts short, for the usual exit right after end of file.
  int idleWaitMs = 1;

  for (;;) {
    child.check();
    if (child.ended()) {
      // Everything the child wrote is in the pipes now; take it and stop,
      // without waiting for descendants that may still hold the pipes. The
      // bound is well beyond a pipe's capacity.
      if (out.read.isOpen()) readAvailable(out.read, outBytes, 256);
      if (err.read.isOpen()) readAvailable(err.read, errBytes, 256);
      break;
    }
    const auto now = Clock::now();
    if (limited && now >= deadline) {
      child.kill();
      child.wait();
      continue;
    }

    std::array<pollfd, 3> fds;
    std::array<Fd*, 3> owners;
    nfds_t count = 0;
    auto add = [&](Fd& fd, short events) {
      if (!fd.isOpen()) return;
      fds[count] = pollfd{fd.get(), events, 0};
      owners[count++] = &fd;
    };
    add(in.write, POLLOUT);
    add(out.read, POLLIN);
    add(err.read, POLLIN);

    const bool outputOpen = out.read.isOpen() || err.read.isOpen();
    int waitMs = outputOpen ? 50 : idleWaitMs;
    if (!outputOpen) idleWaitMs = std::min(idleWaitMs * 2, 50);
    if (limited) {
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - now).count();
      waitMs = static_cast<int>(std::min<long long>(waitMs, left));
    }
    const int ready = ::poll(fds.data(), count, waitMs);
    if (ready < 0) continue;  // EINTR; anything else shows again on the next round
    for (nfds_t i = 0; i < count; ++i) {
      if (fds[i].revents == 0) continue;
      Fd& fd = *owners[i];
      if (&fd == &in.write) {
        writeAvailable(fd, script, written);
      } else {
        readAvailable(fd, &fd == &out.read ? outBytes : errBytes, 1);
      }
    }
  }

  return resultOf(child.status(), std::move(outBytes), std::move(errBytes), timeoutSec);
}

bool containsAny(std::string_view haystack, std::initializer_list<std::string_view> needles) {
  return std::any_of(needles.begin(), needles.end(), [&](std::string_view needle) {
    return haystack.find(needle) != std::string_view::npos;
  });
}

}  // namespace

namespace Osascript {

OsascriptResult run(std::string_view script, const std::vector<std::string>& args,
                    double timeoutSec) {
  return runProgram(defaultExecutable, script, args, timeoutSec);
}

OsascriptResult runProgram(const std::string& executable, std::string_view script,
                           const std::vector<std::string>& args, double timeoutSec) {
  try {
    return runChecked(executable, script, args, timeoutSec);
  } catch (const std::exception& e) {
    // Only allocation can fail here; Child has already killed and reaped.
    return {-1, "", e.what()};
  }
}

std::string explain(std::string_view stderrText) {
  const std::string lower = lowercased(stderrText);
  // osascript prints the typographic apostrophe (U+2019); other sources the
  // plain one, so both spellings stay.
  if (containsAny(lower, {"-1743", "not authorized to send apple events",
                          "not authorised to send apple events"})) {
    return "macOS blocked Corvane from controlling Messages. Allow it in System Settings › "
           "Privacy & Security › Automation › Corvane › Messages.";
  }
  if (containsAny(lower, {"-1728", "can\u2019t get account", "can't get account",
                          "can\u2019t get 1st account", "can't get 1st account"})) {
    return "Messages has no matching account (sign in to iMessage, or enable Text Message "
           "Forwarding for SMS).";
  }
  if (containsAny(lower, {"-1719", "-1708", "invalid index", "can\u2019t get participant",
                          "can't get participant"})) {
    return "Messages couldn't find that recipient: " + prefixGraphemes(stderrText, 200);
  }
  if (stderrText.empty()) return "osascript failed";
  return prefixGraphemes(stderrText, 300);
}

}  // namespace Osascript
}  // namespace corvane
