// A child process for end-to-end tests: a real executable with an argv and
// a whole environment of the test's choosing, standard input from /dev/null,
// standard output and error to files of its own that the test reads as they
// grow. The child is SIGKILLed and reaped when the object goes away, so a
// failed assertion never leaves a process behind.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "tests/support/temp_dir.h"
#include "tests/support/text_file.h"

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

// A child's output (or any text), line by line.
inline std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

class ChildProcess {
 public:
  enum class Stream { out, err };
  using Clock = std::chrono::steady_clock;

  ChildProcess(const std::string& binary, std::vector<std::string> args,
               std::vector<std::string> environment) {
    args.insert(args.begin(), binary);
    std::vector<char*> argv, envp;
    for (auto& a : args) argv.push_back(a.data());
    for (auto& e : environment) envp.push_back(e.data());
    argv.push_back(nullptr);
    envp.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    for (const auto stream : {Stream::out, Stream::err}) {
      posix_spawn_file_actions_addopen(&actions,
                                       stream == Stream::out ? STDOUT_FILENO : STDERR_FILENO,
                                       file(stream).c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    }
    // The test runner may block or ignore signals; the child starts clean.
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none, all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &all);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    const int rc =
        posix_spawn(&pid_, binary.c_str(), &actions, &attributes, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    if (rc != 0) {
      pid_ = -1;
      spawnError_ = binary + ": " + std::strerror(rc);
    }
  }

  ~ChildProcess() {
    if (running()) {
      ::kill(pid_, SIGKILL);
      reap(0);
    }
  }

  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  bool started() const { return pid_ > 0; }
  const std::string& spawnError() const { return spawnError_; }

  // False once the child has ended (it is reaped then).
  bool running() { return pid_ > 0 && !status_ && !reap(WNOHANG); }

  // The child's peak resident size in KiB, once it is reaped. The kernel
  // carries the high-water mark of the memory image that exec replaced, so
  // this is at least the test process's own size when the child started.
  std::optional<long> peakResidentKiB() const { return peakKiB_; }

  std::string out() const { return readFile(file(Stream::out)); }
  std::string err() const { return readFile(file(Stream::err)); }

  // Waits until `stream` holds `needle` at least `count` times: true then,
  // false when the child ended or `timeout` passed first.
  bool waitFor(Stream stream, std::string_view needle, std::size_t count = 1,
               std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
    const auto deadline = Clock::now() + timeout;
    for (;;) {
      // Whatever an ended child wrote is in the file by the read after.
      const bool ended = !running();
      if (occurrences(readFile(file(stream)), needle) >= count) return true;
      if (ended || Clock::now() >= deadline) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }

  void signal(int sig) {
    if (running()) ::kill(pid_, sig);
  }

  // The exit status, waiting up to `timeout`; a child still running then is
  // SIGKILLed so the test ends, and the answer is absent.
  std::optional<ExitStatus> wait(std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
    const auto deadline = Clock::now() + timeout;
    while (running()) {
      if (Clock::now() >= deadline) {
        ::kill(pid_, SIGKILL);
        reap(0);
        return std::nullopt;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
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
  std::string file(Stream stream) const { return dir_.file(stream == Stream::out ? "out" : "err"); }

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

  TempDir dir_;
  pid_t pid_ = -1;
  std::optional<ExitStatus> status_;
  std::optional<long> peakKiB_;
  std::string spawnError_;
};

}  // namespace corvane::testing
