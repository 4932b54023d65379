#include "core/send/osascript.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <set>
#include <string>
#include <vector>

#include "core/send/apple_scripts.h"
#include "tests/support/temp_dir.h"

namespace corvane {
namespace {

using testing::TempDir;

// Descriptors this process has open right now.
std::set<int> openDescriptors() {
  std::set<int> fds;
  for (int fd = 0; fd < 1024; ++fd) {
    if (::fcntl(fd, F_GETFD) != -1) fds.insert(fd);
  }
  return fds;
}

// True when this process has no child left, running or zombie.
bool noChildrenLeft() {
  int status;
  return ::waitpid(-1, &status, WNOHANG) == -1 && errno == ECHILD;
}

// Runs stand-ins for osascript: small shell scripts in a temporary directory.
class OsascriptTest : public ::testing::Test {
 protected:
  std::string standIn(const std::string& body) {
    const std::string path = dir_.file("stand-in-" + std::to_string(++count_));
    std::ofstream(path) << "#!/bin/sh\n" << body << "\n";
    ::chmod(path.c_str(), 0755);
    return path;
  }

  OsascriptResult run(const std::string& body, std::string_view script = "",
                      const std::vector<std::string>& args = {}, double timeoutSec = 30) {
    return Osascript::runProgram(standIn(body), script, args, timeoutSec);
  }

  void SetUp() override { descriptorsBefore_ = openDescriptors(); }

  // Every test also checks that nothing was left behind.
  void TearDown() override {
    EXPECT_EQ(openDescriptors(), descriptorsBefore_);
    EXPECT_TRUE(noChildrenLeft());
  }

 private:
  TempDir dir_;
  int count_ = 0;
  std::set<int> descriptorsBefore_;
};

// Output comes back trimmed, and as nothing when it is not UTF-8; a child
// that never reads its script must not raise SIGPIPE here.
TEST_F(OsascriptTest, ReportsTheOutputAndTheExitCode) {
  const struct {
    const char* body;
    std::string script;
    OsascriptResult expected;
  } cases[] = {
      {"cat >/dev/null; printf '  hello\\n\\n'", "", {0, "hello", ""}},
      {"cat >/dev/null; echo 'execution error (-1743)' >&2; exit 1", "",
       {1, "", "execution error (-1743)"}},
      {"echo 'gave up' >&2; exit 3", std::string(8 * 1024 * 1024, 's'), {3, "", "gave up"}},
      {"printf 'ok\\377'; printf 'bad\\300\\200' >&2; exit 2", "", {2, "", ""}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.body);
    EXPECT_EQ(run(c.body, c.script), c.expected);
  }
}

TEST_F(OsascriptTest, ScriptGoesOnStandardInputAndArgumentsFollowTheDash) {
  // Each argument on its own line in brackets, then the script as received.
  const auto r =
      run("for a in \"$@\"; do printf '[%s]\\n' \"$a\"; done; cat >&2", AppleScripts::iMessage,
          {"Hello \"world\"; end tell", "", "+1 (415) 555-0100", "caf\u00e9 \U0001F600"});
  EXPECT_EQ(r.code, 0);
  EXPECT_EQ(r.stdoutText,
            "[-]\n[Hello \"world\"; end tell]\n[]\n[+1 (415) 555-0100]\n[caf\u00e9 \U0001F600]");
  EXPECT_EQ(r.stderrText,
            std::string(AppleScripts::iMessage).substr(0, AppleScripts::iMessage.size() - 1));
}

TEST_F(OsascriptTest, LargeInputAndOutputOnBothStreamsDoNotDeadlock) {
  // The child fills both output pipes before it reads any of its input, so
  // the runner has to read while it writes.
  const std::size_t n = 4 * 1024 * 1024;
  const std::string script(3 * 1024 * 1024, 's');
  const auto r = run("head -c " + std::to_string(n) + " /dev/zero | tr '\\0' a\n" + "head -c " +
                         std::to_string(n) + " /dev/zero | tr '\\0' b >&2\n" +
                         "printf '\\n'; wc -c | tr -d ' '",
                     script);
  EXPECT_EQ(r.code, 0);
  EXPECT_EQ(r.stdoutText, std::string(n, 'a') + "\n" + std::to_string(script.size()));
  EXPECT_EQ(r.stderrText, std::string(n, 'b'));
}

TEST_F(OsascriptTest, TimeOutNoteGoesOnItsOwnLineAfterEarlierErrorText) {
  const auto r = run("echo partial; printf 'still working' >&2; exec sleep 30", "", {}, 1.5);
  EXPECT_EQ(r.code, SIGKILL);
  EXPECT_EQ(r.stdoutText, "partial");
  EXPECT_EQ(r.stderrText, "still working\nosascript timed out after 1s");
}

TEST_F(OsascriptTest, DescendantHoldingThePipesDoesNotKeepTheRunnerWaiting) {
  // The shell is killed at the limit; its background sleep keeps the output
  // pipes open. Without this the run would last the sleep's 30 seconds.
  const auto r = run("sleep 30 & echo $!; wait", "", {}, 0.2);
  EXPECT_EQ(r.code, SIGKILL);
  const pid_t grandchild = std::stoi(r.stdoutText);
  EXPECT_EQ(::kill(grandchild, SIGKILL), 0);
}

TEST_F(OsascriptTest, ProgramThatCannotStartGivesCodeMinusOneWithTheReason) {
  TempDir scratch;
  const std::string notExecutable = scratch.file("plain");
  std::ofstream(notExecutable) << "#!/bin/sh\necho hi\n";
  struct Case {
    std::string path;
    std::string reason;
  };
  const Case cases[] = {
      {scratch.file("missing"), "No such file or directory"},
      {notExecutable, "Permission denied"},
  };
  for (const auto& c : cases) {
    const auto r = Osascript::runProgram(c.path, AppleScripts::probe, {"x"}, 5);
    EXPECT_EQ(r.code, -1) << c.path;
    EXPECT_EQ(r.stdoutText, "") << c.path;
    EXPECT_NE(r.stderrText.find(c.path), std::string::npos) << r.stderrText;
    EXPECT_NE(r.stderrText.find(c.reason), std::string::npos) << r.stderrText;
  }
}

TEST_F(OsascriptTest, ChildInheritsOnlyItsThreeStandardStreams) {
  if (::access("/proc/self/fd", R_OK) != 0) {
    GTEST_SKIP() << "no /proc on this system";
  }
  // Descriptors this process deliberately lets children inherit are not the runner's to close.
  int inheritable = 0;
  for (int fd : openDescriptors()) {
    if (fd > 2 && !(::fcntl(fd, F_GETFD) & FD_CLOEXEC)) ++inheritable;
  }
  // ls opens one descriptor of its own to read the directory.
  const auto r = run("exec ls /proc/self/fd");
  ASSERT_EQ(r.code, 0) << r.stderrText;
  const auto lines = 1 + std::count(r.stdoutText.begin(), r.stdoutText.end(), '\n');
  EXPECT_EQ(lines, 3 + inheritable + 1) << r.stdoutText;
}

TEST(OsascriptExplainTest, MapsEachKnownErrorToItsAdvice) {
  const std::string automation =
      "macOS blocked Corvane from controlling Messages. Allow it in System Settings \u203a "
      "Privacy & Security \u203a Automation \u203a Corvane \u203a Messages.";
  const std::string account =
      "Messages has no matching account (sign in to iMessage, or enable Text Message "
      "Forwarding for SMS).";
  const std::string recipient = "Messages couldn't find that recipient: ";
  struct Case {
    std::string stderrText;
    std::string expected;
  };
  const Case cases[] = {
      {"execution error: Not authorized to send Apple events to Messages. (-1743)", automation},
      {"NOT AUTHORISED TO SEND APPLE EVENTS", automation},
      {"Can\u2019t get account 1 whose service type = SMS. (-1728)", account},
      {"CAN'T GET 1ST ACCOUNT", account},
      {"Can\u2019t get participant \"x\". (-1719)",
       recipient + "Can\u2019t get participant \"x\". (-1719)"},
      {"Invalid index.", recipient + "Invalid index."},
      {"error (-1708)", recipient + "error (-1708)"},
      // The first rule that matches wins.
      {"(-1728) then (-1743)", automation},
      {"(-1719) then (-1728)", account},
      {"", "osascript failed"},
      {"Syntax error: Expected end of line.", "Syntax error: Expected end of line."},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Osascript::explain(c.stderrText), c.expected) << c.stderrText;
  }
}

TEST(OsascriptExplainTest, LongTextsAreCutByCharacters) {
  const std::string unknown(500, 'x');
  EXPECT_EQ(Osascript::explain(unknown), std::string(300, 'x'));

  // Characters, not bytes: each of these is two bytes of UTF-8.
  std::string accented;
  for (int i = 0; i < 400; ++i) accented += "\u00e9";
  EXPECT_EQ(Osascript::explain(accented), accented.substr(0, 2 * 300));
  // 14 characters of "invalid index " and 186 accented letters make 200.
  EXPECT_EQ(Osascript::explain("invalid index " + accented),
            "Messages couldn't find that recipient: invalid index " + accented.substr(0, 2 * 186));
}

}  // namespace
}  // namespace corvane
