// The real Corvane executable in headless mode against the real development
// server (or a scripted loopback server) on 127.0.0.1, with a Messages
// database and a home, user home and XDG directories of the test's own.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include "app/platform/token_store.h"
#include "tests/api/loopback_server.h"
#include "tests/e2e/headless_fixture.h"

namespace corvane::e2e {
namespace {

using testing::LoopbackServer;

const char* const kUsage =
    "Usage: Corvane --headless [--once] [--chat-db PATH] [--home DIR] [--server URL] [--token "
    "TOKEN]\n"
    "                          [--fake-send] [--dry-run] [--contacts] [--region CC]\n"
    "       Corvane --headless --pair CODE [--server URL] [--home DIR]\n"
    "       Corvane --headless --status [--chat-db PATH] [--server URL] [--token TOKEN]\n"
    "       Corvane --render-icon OUT.png [--size 1024]\n"
    "\n"
    "  --once        run one sync cycle and exit (exit 0 ok, 1 failed, 2 disconnected)\n"
    "  --chat-db     Messages database to read (default ~/Library/Messages/chat.db)\n"
    "  --home        directory for state.json (default ~/Library/Application Support/Corvane)\n"
    "  --token       device token (default: the one saved by the app in the Keychain)\n"
    "  --fake-send   log outbox sends (and append to <home>/fake-sent.jsonl) instead of using "
    "Messages\n"
    "  --dry-run     read and report only: no uploads, no sends, no state changes\n"
    "  --contacts    use Contacts names (off by default in headless mode)\n";

const char* const kDisconnected =
    "\nThis Mac was disconnected from Corvane (or its token revoked). Stopping. Reconnect from "
    "the Corvane menu \u203A Setup\u2026.";

TEST_F(HeadlessE2E, HelpPrintsTheUsageTextAndWinsOverEveryOtherOption) {
  const std::vector<std::vector<std::string>> cases = {
      {"--help"},
      {"-h"},
      {"--server", "http://example.test", "--help"},
      {"--pair", "ABCD", "--home", home().string(), "-h"},
      {"--once", "--token", "--help"},  // a value that is the flag still counts as the flag
  };
  for (const auto& args : cases) {
    SCOPED_TRACE(::testing::PrintToString(args));
    const AgentRun run = corvane(args);
    ASSERT_EXIT_CODE(run, 0);
    EXPECT_EQ(run.out, kUsage);
    EXPECT_EQ(run.err, "");
  }
  EXPECT_TRUE(contentsOf(home()).empty());
}

TEST_F(HeadlessE2E, PlainHttpServerElsewhereThanLoopbackIsRefusedBeforeAnythingRuns) {
  for (const auto& extra : std::vector<std::vector<std::string>>{
           {}, {"--pair", "ABCD"}, {"--once", "--token", kToken, "--fake-send"}}) {
    SCOPED_TRACE(::testing::PrintToString(extra));
    std::vector<std::string> args = {"--server", "http://example.test", "--home", home().string()};
    args.insert(args.end(), extra.begin(), extra.end());
    const AgentRun run = corvane(args);
    ASSERT_EXIT_CODE(run, 64);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.log(),
              std::vector<std::string>{"error: --server must be https:// (or http://localhost for "
                                       "development): http://example.test"});
  }
  EXPECT_TRUE(contentsOf(home()).empty());
  EXPECT_TRUE(contentsOf(xdgConfig()).empty());
}

TEST_F(HeadlessE2E, TokenComesFromTheArgumentThenTheEnvironmentThenTheStore) {
  // Refuses every token, so each run shows the token it used and ends at once.
  LoopbackServer server(LoopbackServer::answer(401, R"({"error":"token revoked"})"));
  const std::string revoked = "error: Unauthorized: token revoked" + std::string(kDisconnected);

  struct Case {
    const char* name;
    std::optional<std::string> argument, environment, stored;
    std::optional<std::string> sent;  // the Authorization header; absent: no request
  };
  const std::vector<Case> cases = {
      {"none anywhere", {}, {}, {}, {}},
      {"stored only", {}, {}, "stored-secret", "Bearer stored-secret"},
      {"environment over store", {}, "env-secret", "stored-secret", "Bearer env-secret"},
      // An empty variable is a token: the store is not consulted.
      {"empty environment", {}, "", "stored-secret", "Bearer"},
      {"argument over all", "arg-secret", "env-secret", "stored-secret", "Bearer arg-secret"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    FileTokenStore store(xdgConfig() / "Corvane");
    store.remove(TokenStore::deviceTokenKey);
    if (c.stored) {
      ASSERT_TRUE(store.save(TokenStore::deviceTokenKey, *c.stored));
    }
    const std::size_t before = server.requests().size();

    std::vector<std::string> args = {"--server",  server.url(), "--home",   home().string(),
                                     "--chat-db", chatDB(),     "--region", "US",
                                     "--once",    "--fake-send"};
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
    // A token from the store or the environment stays out of logs and state.
    for (const auto& secret : {c.stored, c.environment}) {
      if (!secret || secret->empty()) continue;
      EXPECT_EQ(run.err.find(*secret), std::string::npos);
      EXPECT_EQ(readFile(stateFile()).find(*secret), std::string::npos);
    }
  }
}

TEST_F(HeadlessE2E, PairingWithATestHomePrintsTheResponseAndTouchesNoUserDirectory) {
  auto server = devServer({"--pair-code", "E2E-PAIR", "--roster", kAlex});
  ASSERT_FALSE(server->url().empty());
  const std::vector<std::string> pairArgs = {"--server",      server->url(), "--home",
                                             home().string(), "--pair",      "E2E-PAIR"};

  const AgentRun paired = corvane(pairArgs);
  ASSERT_EXIT_CODE(paired, 0);
  ASSERT_TRUE(paired.out.ends_with("}\n")) << paired.out;
  const json response = json::parse(paired.out);
  const json devices = server->state()["devices"];
  ASSERT_EQ(devices.size(), 1u);
  EXPECT_EQ(response.at("deviceId"), devices[0].at("deviceId"));
  EXPECT_TRUE(response.contains("token"));
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
  ASSERT_FALSE(server->url().empty());
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
        corvane({"--server", server->url(), "--home", home.string(), "--pair", "NO-SUCH"});
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
  ASSERT_FALSE(server->url().empty());
  fs::remove(home());
  const AgentRun run = corvane(cycleArgs(server->url()), [] {
    ::umask(022);
    return static_cast<const char*>(nullptr);
  });
  ASSERT_EXIT_CODE(run, 0);
  EXPECT_EQ(fs::status(home()).permissions(), fs::perms::owner_all);
  EXPECT_EQ(fs::status(fakeSent()).permissions(), fs::perms::owner_read | fs::perms::owner_write);
}

TEST_F(HeadlessE2E, CyclesUploadBackfillThenOnlyNewRosterRows) {
  ChatDbBuilder db(chatDB());
  const auto alex = db.oneToOne(kAlex);
  const auto sam = db.oneToOne(kSam);
  const auto stranger = db.oneToOne(kStranger);
  const auto quiet = db.oneToOne(kQuiet);
  messageAt(db, alex, "alex, too old to backfill", 40 * kDayMs);
  messageAt(db, alex, "alex recent", 2 * kDayMs);
  messageAt(db, sam, "sam recent", 3 * kDayMs);
  messageAt(db, quiet, "quiet for two months", 60 * kDayMs);
  std::int64_t top = messageAt(db, stranger, "stranger", kDayMs);
  auto server = devServer(
      {"--token", kToken, "--roster", kAlex, "--backfill-days", "30", "--directory-days", "30"});
  ASSERT_FALSE(server->url().empty());

  // First cycle: history only through backfill, the cursor at the top.
  AgentRun run = corvane(cycleArgs(server->url()));
  ASSERT_EXIT_CODE(run, 0);
  json seen = server->state();
  EXPECT_EQ(fieldOf(seen["messages"], "text"), std::multiset<std::string>{"alex recent"});
  EXPECT_EQ(fieldOf(seen["directory"], "handle"),
            (std::multiset<std::string>{kAlex, kSam, kStranger}));
  ASSERT_EQ(seen["uploads"].size(), 1u);
  EXPECT_EQ(seen["uploads"][0]["cursor"], top);
  EXPECT_EQ(seen["uploads"][0]["dropped"], 0);
  EXPECT_EQ(state()["cursor"], top);
  EXPECT_EQ(state()["backfilled"], json::array({kAlex}));
  const auto log = run.log();
  ASSERT_FALSE(log.empty());
  EXPECT_TRUE(log[0].starts_with("Corvane ")) << log[0];
  EXPECT_TRUE(log[0].ends_with(" headless \u2192 " + server->url() + ", chat.db " + chatDB() +
                               ", state " + stateFile().string()))
      << log[0];
  EXPECT_TRUE(hasLine(
      log, "cycle done: 1 msg, 3 dir, 0 self, 0 sent / 0 failed; cursor " + std::to_string(top)))
      << run.err;

  // Second cycle: exactly the new roster rows; only the changed directory
  // entries go again.
  messageAt(db, alex, "alex new", 0);
  messageAt(db, stranger, "stranger new", 0);
  top = messageAt(db, alex, "alex newer", 0);
  ASSERT_EXIT_CODE(corvane(cycleArgs(server->url())), 0);
  seen = server->state();
  EXPECT_EQ(fieldOf(seen["messages"], "text"),
            (std::multiset<std::string>{"alex recent", "alex new", "alex newer"}));
  ASSERT_EQ(seen["uploads"].size(), 2u);
  EXPECT_EQ(seen["uploads"][1]["messages"], 2);
  EXPECT_EQ(seen["uploads"][1]["directory"], 2);  // alex and the stranger
  EXPECT_EQ(seen["uploads"][1]["cursor"], top);
  EXPECT_EQ(state()["cursor"], top);

  // Nothing new: no upload at all.
  ASSERT_EXIT_CODE(corvane(cycleArgs(server->url())), 0);
  EXPECT_EQ(server->state()["uploads"].size(), 2u);
}

TEST_F(HeadlessE2E, DryRunReadsAndReportsButChangesNothing) {
  ChatDbBuilder db(chatDB());
  const auto alex = db.oneToOne(kAlex);
  const auto top = messageAt(db, alex, "alex recent", kDayMs);
  auto server = devServer({"--token", kToken, "--roster", kAlex, "--outbox", kAlex + "=Hi Alex"});
  ASSERT_FALSE(server->url().empty());
  const json untouched = server->state();

  const AgentRun fresh = corvane(cycleArgs(server->url(), {"--dry-run"}));
  ASSERT_EXIT_CODE(fresh, 0);
  EXPECT_FALSE(fs::exists(stateFile()));
  EXPECT_FALSE(fs::exists(fakeSent()));
  EXPECT_EQ(server->state(), untouched);
  const auto log = fresh.log();
  const auto plan = linesStartingWith(log, "[dry-run] would sync ");
  ASSERT_EQ(plan.size(), 1u) << fresh.err;
  EXPECT_TRUE(
      plan[0].ends_with(" directory entries (full refresh) and 1 roster messages (1 "
                        "backfill for 1 new handle(s)) in 1 batch(es); cursor " +
                        std::to_string(top) + " \u2192 " + std::to_string(top)))
      << plan[0];
  EXPECT_TRUE(hasLine(log, "[dry-run] would send user message to " + kAlex + ": Hi Alex"))
      << fresh.err;
}

TEST_F(HeadlessE2E, RevokedTokenStopsOnceRunsAndTheDaemonWithExit2) {
  LoopbackServer server(LoopbackServer::answer(401, R"({"error":"token revoked"})"));
  ChatDbBuilder db(chatDB());
  for (const bool once : {true, false}) {
    SCOPED_TRACE(once ? "--once" : "daemon");
    auto args = cycleArgs(server.url());
    if (!once) args.erase(std::find(args.begin(), args.end(), "--once"));
    const AgentRun run = corvane(args);
    ASSERT_EXIT_CODE(run, 2);
    EXPECT_NE(
        run.err.find("] error: Unauthorized: token revoked" + std::string(kDisconnected) + "\n"),
        std::string::npos)
        << run.err;
    EXPECT_TRUE(state()["lastError"].get<std::string>().ends_with(" Unauthorized: token revoked"))
        << state().dump();
  }
}

TEST_F(HeadlessE2E, DaemonStopsCleanlyOnSigtermAndSigint) {
  ChatDbBuilder db(chatDB());
  db.oneToOne(kAlex);
  auto server = devServer({"--token", kToken, "--roster", kAlex, "--poll-interval", "3600"});
  ASSERT_FALSE(server->url().empty());
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
