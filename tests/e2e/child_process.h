// A child process for end-to-end tests: the real executables with an argv and
// a whole environment of the test's choosing, standard input from /dev/null,
// standard output and error collected by a thread as they come.
//
// The child is SIGKILLed and reaped when the object goes away, so a failed
// assertion never leaves a process behind. Not safe to share across threads
// except for the output accessors, which take the lock.
//
// A child that needs its limits or namespaces changed first gets a BeforeExec
// hook; it is then started with fork and execve instead of posix_spawn.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace corvane::testing {

struct ExitStatus {
  bool exited = false;  // false: ended by a signal
  int code = -1;        // exit code when exited
  int signal = 0;       // the signal otherwise

  bool operator==(const ExitStatus&) const = default;
  static ExitStatus exit(int code) { return {true, code, 0}; }
};

inline std::string describe(const ExitStatus& s) {
  return s.exited ? "exit " + std::to_string(s.code) : "signal " + std::to_string(s.signal);
}

class ChildProcess {
 public:
  enum class Stream { out, err };
  using Clock = std::chrono::steady_clock;
  // Runs in the child between fork and exec, where another thread of the
  // test may have held any lock: async-signal-safe calls only (no allocation,
  // no stdio). Returns null when done, or the name of the step that failed
  // with errno set; the child then exits and spawnError() tells why.
  using BeforeExec = std::function<const char*()>;

  ChildProcess(const std::string& binary, std::vector<std::string> args,
               std::vector<std::string> environment, const BeforeExec& beforeExec = {}) {
    int out[2] = {-1, -1}, err[2] = {-1, -1};
    if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) {
      spawnError_ = std::string("pipe: ") + std::strerror(errno);
      closeAll({out[0], out[1], err[0], err[1]});
      return;
    }
    args.insert(args.begin(), binary);
    std::vector<char*> argv, envp;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    for (auto& e : environment) envp.push_back(e.data());
    envp.push_back(nullptr);
    if (beforeExec) {
      forkAndExec(binary, argv.data(), envp.data(), out[1], err[1], beforeExec);
    } else {
      spawn(binary, argv.data(), envp.data(), out[1], err[1]);
    }
    closeAll({out[1], err[1]});
    if (pid_ <= 0) {
      closeAll({out[0], err[0]});
      return;
    }
    reader_ = std::thread([this, o = out[0], e = err[0]] { readAll(o, e); });
  }

  ~ChildProcess() {
    if (pid_ > 0 && !status_) {
      ::kill(pid_, SIGKILL);
      reap(0);
    }
    if (reader_.joinable()) reader_.join();
  }

  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  bool started() const { return pid_ > 0; }
  pid_t pid() const { return pid_; }
  const std::string& spawnError() const { return spawnError_; }

  // False once the child has ended (it is reaped then).
  bool running() { return pid_ > 0 && !status_ && !reap(WNOHANG); }

  // The child's peak resident size in KiB, once it is reaped. The kernel
  // carries the high-water mark of the memory image that exec replaced, so
  // this is at least the test process's own size when the child started.
  std::optional<long> peakResidentKiB() const { return peakKiB_; }

  std::string out() const { return text(Stream::out); }
  std::string err() const { return text(Stream::err); }

  // Waits until `stream` holds `needle` at least `count` times: true then,
  // false when the stream closed or `timeout` passed first.
  bool waitFor(Stream stream, std::string_view needle, std::size_t count = 1,
               std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
    std::unique_lock lock(mutex_);
    const auto found = [&] { return occurrences(buffer(stream), needle) >= count; };
    changed_.wait_for(lock, timeout, [&] { return found() || closed(stream); });
    return found();
  }

  void signal(int sig) {
    if (pid_ > 0 && !status_) ::kill(pid_, sig);
  }

  // The exit status, waiting up to `timeout`; a child still running then is
  // SIGKILLed so the test ends, and the answer is absent.
  std::optional<ExitStatus> wait(std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
    if (pid_ <= 0) return std::nullopt;
    if (!status_ && !reap(WNOHANG)) {
      const auto deadline = Clock::now() + timeout;
      while (!reap(WNOHANG)) {
        if (Clock::now() >= deadline) {
          ::kill(pid_, SIGKILL);
          reap(0);
          if (reader_.joinable()) reader_.join();
          return std::nullopt;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
      }
    }
    // The pipes close with the child; after this the output is complete.
    if (reader_.joinable()) reader_.join();
    return status_;
  }

  static std::size_t occurrences(std::string_view haystack, std::string_view needle) {
    std::size_t n = 0;
    for (auto at = haystack.find(needle); at != std::string_view::npos;
         at = haystack.find(needle, at + needle.size())) {
      ++n;
    }
    return n;
  }

 private:
  void spawn(const std::string& binary, char* const* argv, char* const* envp, int out, int err) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, out, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, err, STDERR_FILENO);
    // The test runner may block or ignore signals; the child starts clean.
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none, all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &all);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    const int rc = posix_spawn(&pid_, binary.c_str(), &actions, &attributes, argv, envp);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    if (rc != 0) {
      pid_ = -1;
      spawnError_ = binary + ": " + std::strerror(rc);
    }
  }

  // What the failing child reports through the status pipe.
  struct ExecFailure {
    int error;
    char step[120];
  };

  void forkAndExec(const std::string& binary, char* const* argv, char* const* envp, int out,
                   int err, const BeforeExec& beforeExec) {
    int status[2];
    if (pipe2(status, O_CLOEXEC) != 0) {
      spawnError_ = std::string("pipe: ") + std::strerror(errno);
      return;
    }
    const pid_t pid = ::fork();
    if (pid == 0) {
      ::close(status[0]);
      const auto fail = [&](const char* step) {
        ExecFailure failure{errno, {}};
        for (std::size_t i = 0; step[i] != '\0' && i + 1 < sizeof failure.step; ++i) {
          failure.step[i] = step[i];
        }
        [[maybe_unused]] const ssize_t n = ::write(status[1], &failure, sizeof failure);
        ::_exit(127);
      };
      const int in = ::open("/dev/null", O_RDONLY);
      if (in < 0 || ::dup2(in, STDIN_FILENO) < 0 || ::dup2(out, STDOUT_FILENO) < 0 ||
          ::dup2(err, STDERR_FILENO) < 0) {
        fail("redirecting the standard streams");
      }
      if (in > STDERR_FILENO) ::close(in);
      struct sigaction byDefault {};
      byDefault.sa_handler = SIG_DFL;
      for (int sig = 1; sig < NSIG; ++sig) ::sigaction(sig, &byDefault, nullptr);
      sigset_t none;
      sigemptyset(&none);
      ::sigprocmask(SIG_SETMASK, &none, nullptr);
      if (const char* step = beforeExec()) fail(step);
      ::execve(binary.c_str(), argv, envp);
      fail("execve");
    }
    ::close(status[1]);
    if (pid < 0) {
      spawnError_ = std::string("fork: ") + std::strerror(errno);
      ::close(status[0]);
      return;
    }
    // The pipe closes empty on a successful exec.
    ExecFailure failure{};
    ssize_t n;
    do {
      n = ::read(status[0], &failure, sizeof failure);
    } while (n < 0 && errno == EINTR);
    ::close(status[0]);
    if (n <= 0) {
      pid_ = pid;
      return;
    }
    int ignored = 0;
    while (::waitpid(pid, &ignored, 0) < 0 && errno == EINTR) {
    }
    failure.step[sizeof failure.step - 1] = '\0';
    spawnError_ = std::string(failure.step) + ": " + std::strerror(failure.error);
  }

  static void closeAll(std::initializer_list<int> fds) {
    for (const int fd : fds) {
      if (fd >= 0) ::close(fd);
    }
  }

  // True once the child is reaped.
  bool reap(int flags) {
    int raw = 0;
    rusage usage{};
    pid_t got;
    do {
      got = ::wait4(pid_, &raw, flags, &usage);
    } while (got < 0 && errno == EINTR);
    if (got != pid_) return false;
    peakKiB_ = usage.ru_maxrss;
    status_ = WIFEXITED(raw) ? ExitStatus{true, WEXITSTATUS(raw), 0}
                             : ExitStatus{false, -1, WIFSIGNALED(raw) ? WTERMSIG(raw) : 0};
    return true;
  }

  void readAll(int outFd, int errFd) {
    pollfd fds[2] = {{outFd, POLLIN, 0}, {errFd, POLLIN, 0}};
    int open = 2;
    char chunk[4096];
    while (open > 0) {
      if (::poll(fds, 2, -1) < 0) {
        if (errno == EINTR) continue;
        break;
      }
      for (int i = 0; i < 2; ++i) {
        if (fds[i].fd < 0 || fds[i].revents == 0) continue;
        const ssize_t n = ::read(fds[i].fd, chunk, sizeof chunk);
        if (n < 0 && errno == EINTR) continue;
        std::lock_guard lock(mutex_);
        if (n <= 0) {
          ::close(fds[i].fd);
          fds[i].fd = -1;
          (i == 0 ? outClosed_ : errClosed_) = true;
          --open;
        } else {
          (i == 0 ? out_ : err_).append(chunk, static_cast<std::size_t>(n));
        }
        changed_.notify_all();
      }
    }
    for (auto& f : fds) closeAll({f.fd});
    std::lock_guard lock(mutex_);
    outClosed_ = errClosed_ = true;
    changed_.notify_all();
  }

  std::string text(Stream stream) const {
    std::lock_guard lock(mutex_);
    return stream == Stream::out ? out_ : err_;
  }
  const std::string& buffer(Stream stream) const { return stream == Stream::out ? out_ : err_; }
  bool closed(Stream stream) const { return stream == Stream::out ? outClosed_ : errClosed_; }

  pid_t pid_ = -1;
  std::optional<ExitStatus> status_;
  std::optional<long> peakKiB_;
  std::string spawnError_;
  std::thread reader_;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::string out_, err_;
  bool outClosed_ = false, errClosed_ = false;
};

}  // namespace corvane::testing
