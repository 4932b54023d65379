#include "app/platform/child_process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <string>

#include "app/platform/bundle_relocator.h"
#include "tests/support/temp_dir.h"
#include "tests/support/text_file.h"

namespace corvane {
namespace {

namespace fs = std::filesystem;
using testing::TempDir;
using testing::readFile;

// A stand-in program: a shell script written for the test.
fs::path script(const TempDir& tmp, const std::string& name, const std::string& body) {
  const fs::path path = tmp.file(name);
  std::ofstream(path) << "#!/bin/sh\n" << body;
  ::chmod(path.c_str(), 0755);
  return path;
}

int reap(std::int64_t pid) {
  int status = 0;
  pid_t r;
  do {
    r = ::waitpid(static_cast<pid_t>(pid), &status, 0);
  } while (r < 0 && errno == EINTR);
  return status;
}

TEST(ChildProcessTest, RunWaitsAndReportsTheExitStatus) {
  TempDir tmp;
  const fs::path out = tmp.file("args");
  const fs::path program = script(
      tmp, "stand-in", "for a in \"$@\"; do printf '<%s>' \"$a\"; done > '" + out.string() + "'\n"
                       "exit 3\n");
  const auto status = ChildProcess::run(program, {"-dr", "com.apple.quarantine", "/x/My App.app"});
  ASSERT_TRUE(status.has_value());
  EXPECT_EQ(*status, 3);
  // Written before the exit: run returned only once the child had ended.
  EXPECT_EQ(readFile(out), "<-dr><com.apple.quarantine></x/My App.app>");
}

TEST(ChildProcessTest, IgnoredSignalsAreNotInherited) {
  // The entry point ignores SIGPIPE; a child would inherit that through exec.
  struct sigaction ignore {}, previous{};
  ignore.sa_handler = SIG_IGN;
  ::sigaction(SIGTERM, &ignore, &previous);
  const auto status = ChildProcess::run("/bin/sh", {"-c", "kill -TERM $$; exit 0"});
  ::sigaction(SIGTERM, &previous, nullptr);
  ASSERT_TRUE(status.has_value());
  EXPECT_EQ(*status, 128 + SIGTERM);
}

TEST(ChildProcessTest, AProgramThatDoesNotExistIsNotStarted) {
  TempDir tmp;
  EXPECT_FALSE(ChildProcess::run(tmp.file("missing"), {}).has_value());
  EXPECT_FALSE(ChildProcess::start(tmp.file("missing"), {}).has_value());
  const fs::path notExecutable = tmp.file("plain");
  std::ofstream(notExecutable) << "#!/bin/sh\n";
  EXPECT_FALSE(ChildProcess::run(notExecutable, {}).has_value());
}

TEST(ChildProcessTest, StartDoesNotWaitAndLeadsASessionOfItsOwn) {
  // Would never return if start waited.
  const auto pid = ChildProcess::start("/bin/sleep", {"600"});
  ASSERT_TRUE(pid.has_value());
  EXPECT_EQ(::getsid(static_cast<pid_t>(*pid)), static_cast<pid_t>(*pid));
  ::kill(static_cast<pid_t>(*pid), SIGKILL);
  reap(*pid);
}

// The relaunch script as it ships, with only "/usr/bin/open" swapped for a
// stand-in: it must wait until the old process is gone, then open the bundle
// it got as $0, spaces and all.
TEST(ChildProcessTest, RelaunchScriptOpensTheBundleOnlyAfterTheOldProcessIsGone) {
  TempDir tmp;
  // The "old application": a child blocked reading a FIFO until the test
  // opens and closes its other end.
  const fs::path fifo = tmp.file("gate");
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  const auto old = ChildProcess::start("/bin/sh", {"-c", "read line < '" + fifo.string() + "'"});
  ASSERT_TRUE(old.has_value());

  const fs::path record = tmp.file("opened");
  const fs::path open = script(tmp, "open",
                               "if /bin/kill -0 " + std::to_string(*old) +
                                   " 2>/dev/null; then state=alive; else state=gone; fi\n"
                                   "printf '%s|%s|%s' \"$#\" \"$1\" \"$state\" > '" +
                                   record.string() + "'\n");
  std::string text = BundleRelocator::relaunchScript(*old);
  const std::string openCall = "/usr/bin/open \"$0\"";
  ASSERT_NE(text.find(openCall), std::string::npos);
  text.replace(text.find(openCall), openCall.size(), "'" + open.string() + "' \"$0\"");

  // A handshake in front of the script: the old process is let go only once
  // the shell is about to poll it, so the loop really has to wait.
  const fs::path ready = tmp.file("ready");
  ASSERT_EQ(::mkfifo(ready.c_str(), 0600), 0);
  text = "echo > '" + ready.string() + "'; " + text;

  const std::string bundle = "/Applications/My Apps/Corvane.app";
  const auto shell = ChildProcess::start(BundleRelocator::shellExecutable, {"-c", text, bundle});
  ASSERT_TRUE(shell.has_value());
  std::ifstream(ready).get();

  // Blocks until the old process has the FIFO open; closing ends its read.
  const int writer = ::open(fifo.c_str(), O_WRONLY);
  ASSERT_GE(writer, 0);
  ::close(writer);
  reap(*old);  // a zombie still answers kill -0
  EXPECT_EQ(reap(*shell), 0);
  EXPECT_EQ(readFile(record), "1|" + bundle + "|gone");
}

}  // namespace
}  // namespace corvane
