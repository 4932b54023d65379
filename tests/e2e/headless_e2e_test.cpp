// The real Corvane executable in headless mode against the real development
// server (or a scripted loopback server) on 127.0.0.1, with a Messages
// database and a home, user home and XDG directories of the test's own.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <thread>

#include "app/headless/command_line.h"
#include "app/platform/token_store.h"
#include "core/protocol/app_info.h"
#include "tests/api/loopback_server.h"
#include "tests/e2e/headless_fixture.h"

namespace corvane::e2e {
namespace {

using ::testing::Contains;
using testing::LoopbackServer;

const char* const kDisconnected =
    "\nThis Mac was disconnected from Corvane (or its token revoked). Stopping. Reconnect from "
    "the Corvane menu \u203A Setup\u2026.";

// Help wins over every other option, and plain HTTP to a server other than
// loopback is refused, both before anything is read or written.
TEST_F(HeadlessE2E, HelpAndAnInsecureServerEndTheRunBeforeAnythingRuns) {
  const std::string usage = std::string(kUsageText) + "\n", h = home().string();
  const std::string insecure =
      "error: --server must be https:// (or http://localhost for development): http://example.test";
  const struct {
    std::vector<std::string> args;
    int code;
    std::string out, log;
  } cases[] = {
      {{"--server", "http://example.test", "--help"}, 0, usage, ""},
      {{"--pair", "ABCD", "--home", h, "-h"}, 0, usage, ""},
      {{"--once", "--token", "--help"}, 0, usage, ""},  // a value that is the flag still counts
      {{"--server", "http://example.test", "--home", h, "--pair", "ABCD"}, 64, "", insecure},
      {{"--server", "http://example.test", "--home", h, "--once", "--token", kToken, "--fake-send"},
       64, "", insecure},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.args));
    const AgentRun run = corvane(c.args);
    ASSERT_EXIT_CODE(run, c.code);
    EXPECT_EQ(run.out, c.out);
    EXPECT_EQ(run.log(), c.log.empty() ? std::vector<std::string>{} : std::vector{c.log});
  }
  EXPECT_TRUE(contentsOf(home()).empty());
  EXPECT_TRUE(contentsOf(xdgConfig()).empty());
}

// The front door, with no display, no token and a home of no one: help and
// the version answer, a mistyped option is refused, and the application
// says what it lacks instead of letting Qt abort.
TEST_F(HeadlessE2E, TheCommandLineAnswersWithoutADisplay) {
  const std::string help = fullUsageText(UsagePlaces::thisPlatform()) + "\n";
  const std::string noDisplay =
      "Corvane: no display to show the application on (DISPLAY and WAYLAND_DISPLAY are not set); "
      "Corvane --headless runs the agent without one, see Corvane --help\n";
  const struct {
    std::vector<std::string> args;
    int code;
    std::string out, err;
  } cases[] = {
      {{"--help"}, 0, help, ""},
      {{"-h", "corvane://connect?code=AB12"}, 0, help, ""},
      {{"--version"}, 0, "Corvane " + AppInfo::version() + "\n", ""},
      {{"--headless", "--version"}, 0, "Corvane " + AppInfo::version() + "\n", ""},
      {{"--headless", "--version", "--help"}, 0, std::string(kUsageText) + "\n", ""},
      {{"--bogus"}, 64, "", "Corvane: unknown option --bogus\n\n" + help},
      {{"--headless", "--onse", "--token", "t"}, 64, "", "Corvane: unknown option --onse\n\n" + help},
      {{}, 69, "", noDisplay},
      {{"corvane://connect?code=AB12"}, 69, "", noDisplay},
      {{"--snapshot-setup", home().string()}, 69, "", noDisplay},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.args));
    const AgentRun run = corvaneCommand(c.args);
    ASSERT_EXIT_CODE(run, c.code);
    EXPECT_EQ(run.out, c.out);
    EXPECT_EQ(run.err, c.err);
  }
  EXPECT_TRUE(contentsOf(userHome()).empty());
  EXPECT_TRUE(contentsOf(home()).empty());
  EXPECT_TRUE(contentsOf(xdgConfig()).empty());
}

// Each run also shows that a revoked token ends a once run and the daemon
// with exit 2.
TEST_F(HeadlessE2E, TokenComesFromTheArgumentThenTheEnvironmentThenTheStore) {
  // Refuses every token, so each run shows the token it used and ends at once.
  LoopbackServer server(LoopbackServer::answer(401, R"({"error":"token revoked"})"));
  const std::string revoked = "error: Unauthorized: token revoked" + std::string(kDisconnected);

  struct Case {
    const char* name;
    std::optional<std::string> argument, environment, stored;
    std::optional<std::string> sent;  // the Authorization header; absent: no request
    bool daemon = false;
  };
  const std::vector<Case> cases = {
      {"none anywhere", {}, {}, {}, {}},
      {"stored only", {}, {}, "stored-secret", "Bearer stored-secret"},
      {"environment over store", {}, "env-secret", "stored-secret", "Bearer env-secret"},
      // An empty variable is a token: the store is not consulted.
      {"empty environment", {}, "", "stored-secret", "Bearer"},
      {"argument over all", "arg-secret", "env-secret", "stored-secret", "Bearer arg-secret"},
      {"daemon", "arg-secret", {}, {}, "Bearer arg-secret", true},
  };
  // Where the agent's store is the login Keychain, no environment gives the
  // child a store of its own: the rows that reach the store would read the
  // user's own token, so they don't run.
  const bool ownStore = TokenStore::defaultFollowsConfigDirectory();
  std::vector<std::string> skipped;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    if (!ownStore && !c.argument && !c.environment) {
      skipped.push_back(c.name);
      continue;
    }
    FileTokenStore store(xdgConfig() / "Corvane");
    store.remove(TokenStore::deviceTokenKey);
    if (c.stored) {
      ASSERT_TRUE(store.save(TokenStore::deviceTokenKey, *c.stored));
    }
    const std::size_t before = server.requests().size();
    fs::remove(stateFile());

    std::vector<std::string> args = {"--server", server.url(), "--home", home().string(),
                                     "--chat-db", chatDB(), "--region", "US", "--fake-send"};
    if (!c.daemon) args.push_back("--once");
    if (c.argument) args.insert(args.end(), {"--token", *c.argument});
    const AgentRun run = corvane(args, c.environment);

    ASSERT_EXIT_CODE(run, 2);
    const auto requests = server.requests();
    if (!c.sent) {
      EXPECT_EQ(run.log(), std::vector<std::string>{
                               "error: Not connected. Pass --token, or connect in the app first."});
      EXPECT_EQ(requests.size(), before);
      continue;
    }
    ASSERT_GT(requests.size(), before);
    for (std::size_t i = before; i < requests.size(); ++i) {
      const auto header = requests[i].headers.find("Authorization");
      ASSERT_NE(header, requests[i].headers.end()) << requests[i].target;
      EXPECT_EQ(header->second, *c.sent);
    }
    EXPECT_NE(run.err.find("] " + revoked + "\n"), std::string::npos) << run.err;
    EXPECT_TRUE(state()["lastError"].get<std::string>().ends_with(" Unauthorized: token revoked"));
    // A token from the store or the environment stays out of logs and state.
    for (const auto& secret : {c.stored, c.environment}) {
      if (!secret || secret->empty()) continue;
      EXPECT_EQ(run.err.find(*secret), std::string::npos);
      EXPECT_EQ(readFile(stateFile()).find(*secret), std::string::npos);
    }
  }
  if (!skipped.empty()) {
    GTEST_SKIP() << "not run, as they would read the user's token from the login Keychain: "
                 << ::testing::PrintToString(skipped);
  }
}

TEST_F(HeadlessE2E, PairingWithATestHomePrintsTheResponseAndTouchesNoUserDirectory) {
  auto server = devServer({"--pair-code", "E2E-PAIR", "--roster", kAlex});
  // --chat-db keeps the agent from reading the user's "chatDBPath" setting.
  const std::vector<std::string> pairArgs = {"--server", server->url(), "--home",  home().string(),
                                             "--chat-db", chatDB(),     "--pair", "E2E-PAIR"};

  const AgentRun paired = corvane(pairArgs);
  ASSERT_EXIT_CODE(paired, 0);
  ASSERT_TRUE(paired.out.ends_with("}\n")) << paired.out;
  const json response = json::parse(paired.out);
  const json devices = server->state()["devices"];
  ASSERT_EQ(devices.size(), 1u);
  EXPECT_EQ(response.at("deviceId"), devices[0].at("deviceId"));
  EXPECT_TRUE(contentsOf(userHome()).empty());
  EXPECT_TRUE(contentsOf(xdgConfig()).empty());
  EXPECT_TRUE(contentsOf(xdgData()).empty());

  // The printed token is the one the server now accepts.
  ChatDbBuilder db(chatDB());
  db.oneToOne(kAlex);
  ASSERT_EXIT_CODE(corvane(cycleArgs(server->url(), {}, response.at("token"))), 0);

  // A code works once.
  const AgentRun again = corvane(pairArgs);
  ASSERT_EXIT_CODE(again, 1);
  EXPECT_EQ(again.out, "");
  EXPECT_EQ(again.log(), std::vector<std::string>{
                             "error: pairing failed: POST /api/agent/pair \u2192 400: That code "
                             "is not valid or was used already."});
}

// A --home that can't be examined (a symlink loop, a name too long for the
// system, a parent without search permission) fails each flow cleanly: a
// cycle can't save there, and pairing, which never writes to a test home,
// fails or succeeds on its own.
TEST_F(HeadlessE2E, AHomeThatCantBeExaminedFailsCleanly) {
  ChatDbBuilder db(chatDB());
  db.oneToOne(kAlex);
  auto server = devServer({"--token", kToken, "--roster", kAlex});
  const fs::path root = tmp_.path();
  fs::create_directory_symlink("loop", root / "loop");
  std::vector<fs::path> homes = {root / "loop" / "home", root / std::string(300, 'x') / "home"};
  const bool locked = ::geteuid() != 0;  // permissions don't stop root
  if (locked) {
    fs::create_directory(root / "locked");
    fs::permissions(root / "locked", fs::perms::none);
    homes.push_back(root / "locked" / "home");
  }
  for (const auto& home : homes) {
    SCOPED_TRACE(home.string());
    const AgentRun cycle = corvane({"--server", server->url(), "--home", home.string(), "--chat-db",
                                    chatDB(), "--token", kToken, "--once", "--fake-send"});
    ASSERT_EXIT_CODE(cycle, 1);
    EXPECT_TRUE(cycle.log().back().starts_with(
        "error: cycle failed: couldn't create the directory " + home.string() + ": "))
        << cycle.err;
    const AgentRun pairing =
        corvane({"--server", server->url(), "--home", home.string(), "--chat-db", chatDB(), "--pair",
                 "NO-SUCH"});
    ASSERT_EXIT_CODE(pairing, 1);
    EXPECT_TRUE(pairing.log().back().starts_with("error: pairing failed: ")) << pairing.err;
  }
  if (locked) fs::permissions(root / "locked", fs::perms::owner_all);
}

// However the home came to exist, the directory that holds the state is the
// user's alone; --fake-send makes it before the first save does.
TEST_F(HeadlessE2E, TheHomeIsPrivateFromTheFirstRun) {
  ChatDbBuilder db(chatDB());
  db.oneToOne(kAlex);
  auto server = devServer({"--token", kToken, "--roster", kAlex, "--outbox", kAlex + "=hi"});
  fs::remove(home());
  const mode_t mask = ::umask(022);  // the child's, from ours
  const AgentRun run = corvane(cycleArgs(server->url()));
  ::umask(mask);
  ASSERT_EXIT_CODE(run, 0);
  EXPECT_EQ(fs::status(home()).permissions(), fs::perms::owner_all);
  EXPECT_EQ(fs::status(fakeSent()).permissions(), fs::perms::owner_read | fs::perms::owner_write);
}

// What the cycle uploads is the engine's (its tests pin that); here, that the
// agent wires it up: what it says at the start and the end, and what it saves.
TEST_F(HeadlessE2E, ACycleUploadsTheRosterRowsAndSavesTheCursor) {
  ChatDbBuilder db(chatDB());
  messageAt(db, db.oneToOne(kAlex), "alex recent", 2 * kDayMs);
  const std::int64_t top = messageAt(db, db.oneToOne(kStranger), "stranger", kDayMs);
  auto server = devServer({"--token", kToken, "--roster", kAlex});

  const AgentRun run = corvane(cycleArgs(server->url()));
  ASSERT_EXIT_CODE(run, 0);
  EXPECT_EQ(fieldOf(server->state()["messages"], "text"),
            std::multiset<std::string>{"alex recent"});
  EXPECT_EQ(state()["cursor"], top);
  const auto log = run.log();
  ASSERT_FALSE(log.empty());
  EXPECT_TRUE(log[0].starts_with("Corvane ")) << log[0];
  EXPECT_TRUE(log[0].ends_with(" headless \u2192 " + server->url() + ", chat.db " + chatDB() +
                               ", state " + stateFile().string()))
      << log[0];
  EXPECT_THAT(log, Contains("cycle done: 1 msg, 2 dir, 0 self, 0 sent / 0 failed; cursor " +
                            std::to_string(top)));
}

// The engine's tests pin what a dry run reports; the agent must not make
// its files either.
TEST_F(HeadlessE2E, DryRunReadsAndReportsButChangesNothing) {
  ChatDbBuilder db(chatDB());
  messageAt(db, db.oneToOne(kAlex), "alex recent", kDayMs);
  auto server = devServer({"--token", kToken, "--roster", kAlex, "--outbox", kAlex + "=Hi Alex"});
  const json untouched = server->state();

  const AgentRun run = corvane(cycleArgs(server->url(), {"--dry-run"}));
  ASSERT_EXIT_CODE(run, 0);
  EXPECT_FALSE(fs::exists(stateFile()));
  EXPECT_FALSE(fs::exists(fakeSent()));
  EXPECT_EQ(server->state(), untouched);
  EXPECT_THAT(run.log(), Contains("[dry-run] would send user message to " + kAlex + ": Hi Alex"));
}

TEST_F(HeadlessE2E, DaemonStopsCleanlyOnSigtermAndSigint) {
  ChatDbBuilder db(chatDB());
  db.oneToOne(kAlex);
  auto server = devServer({"--token", kToken, "--roster", kAlex, "--poll-interval", "3600"});
  for (const int sig : {SIGTERM, SIGINT}) {
    SCOPED_TRACE(sig == SIGTERM ? "SIGTERM" : "SIGINT");
    const std::string text = "before signal " + std::to_string(sig);
    ASSERT_TRUE(server->addOutbox({{"handle", kAlex}, {"text", text}}));
    auto args = cycleArgs(server->url());
    args.erase(std::find(args.begin(), args.end(), "--once"));
    auto daemon = startCorvane(args);
    // Once the cycle's last send is logged the daemon is on its way to the
    // hour-long wait.
    ASSERT_TRUE(daemon->waitFor(Stream::err, ": sent\n")) << daemon->err();
    daemon->signal(sig);
    const auto status = daemon->wait();
    ASSERT_TRUE(status.has_value()) << "still running after the signal\n" << daemon->err();
    EXPECT_EQ(*status, ExitStatus::exit(0)) << describe(*status) << "\n" << daemon->err();
    EXPECT_EQ(logMessages(daemon->err()).back(), "stopped");
  }
}

// The first signal waits for the cycle's next stage boundary, which a cycle
// stuck on a server that never answers won't reach before the request's
// time-out; the second ends the process at once, by that signal.
TEST_F(HeadlessE2E, DaemonStopsAtOnceOnASecondSignalWhileACycleHangs) {
  LoopbackServer* self = nullptr;
  LoopbackServer server(
      [&](const httplib::Request&, httplib::Response&) { self->waitForRelease(); });
  self = &server;
  ChatDbBuilder db(chatDB());
  for (const int sig : {SIGTERM, SIGINT}) {
    SCOPED_TRACE(sig == SIGTERM ? "SIGTERM" : "SIGINT");
    auto args = cycleArgs(server.url());
    args.erase(std::find(args.begin(), args.end(), "--once"));
    const std::size_t before = server.requests().size();
    auto daemon = startCorvane(args);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (server.requests().size() == before && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ASSERT_GT(server.requests().size(), before) << daemon->err();
    daemon->signal(sig);
    ASSERT_TRUE(daemon->waitFor(Stream::err, "stopping after the current step")) << daemon->err();
    daemon->signal(sig);
    const auto status = daemon->wait(std::chrono::seconds(10));
    ASSERT_TRUE(status.has_value()) << "still running after the second signal\n" << daemon->err();
    EXPECT_EQ(*status, (ExitStatus{false, -1, sig})) << describe(*status);
  }
}

}  // namespace
}  // namespace corvane::e2e
