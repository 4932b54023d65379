// A child process for end-to-end tests: the real executables with an argv and
// a whole environment of the test's choosing, standard input from /dev/null,
// standard output and error collected by a thread as they come.
//
// The child is SIGKILLed and reaped when the object goes away, so a failed
// assertion never leaves a process behind. Not safe to share across threads
// except for the output accessors, which take the lock.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
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

  ChildProcess(const std::string& binary, std::vector<std::string> args,
               std::vector<std::string> environment) {
    int out[2] = {-1, -1}, err[2] = {-1, -1};
    if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) {
      spawnError_ = std::string("pipe: ") + std::strerror(errno);
      closeAll({out[0], out[1], err[0], err[1]});
      return;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, err[1], STDERR_FILENO);
    // The test runner may block or ignore signals; the child starts clean.
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none, all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &all);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

    args.insert(args.begin(), binary);
    std::vector<char*> argv, envp;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    for (auto& e : environment) envp.push_back(e.data());
    envp.push_back(nullptr);
    const int rc =
        posix_spawn(&pid_, binary.c_str(), &actions, &attributes, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    closeAll({out[1], err[1]});
    if (rc != 0) {
      pid_ = -1;
      spawnError_ = binary + ": " + std::strerror(rc);
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
  const std::string& spawnError() const { return spawnError_; }

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
  static void closeAll(std::initializer_list<int> fds) {
    for (const int fd : fds) {
      if (fd >= 0) ::close(fd);
    }
  }

  // True once the child is reaped.
  bool reap(int flags) {
    int raw = 0;
    pid_t got;
    do {
      got = ::waitpid(pid_, &raw, flags);
    } while (got < 0 && errno == EINTR);
    if (got != pid_) return false;
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
  std::string spawnError_;
  std::thread reader_;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::string out_, err_;
  bool outClosed_ = false, errClosed_ = false;
};

}  // namespace corvane::testing
