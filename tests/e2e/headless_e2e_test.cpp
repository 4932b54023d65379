// The real Corvane executable in headless mode against the real development
// server (or a scripted loopback server) on 127.0.0.1, with a Messages
// database and a home, user home and XDG directories of the test's own.
#include <gtest/gtest.h>
#include <httplib.h>
#include <signal.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <random>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "app/platform/token_store.h"
#include "tests/api/loopback_server.h"
#include "tests/e2e/child_process.h"
#include "tests/support/chat_db_builder.h"
#include "tests/support/temp_dir.h"

namespace corvane {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using testing::ChatDbBuilder;
using testing::ChildProcess;
using testing::describe;
using testing::ExitStatus;
using testing::LoopbackServer;
using testing::MessageSpec;
using testing::TempDir;
using Stream = ChildProcess::Stream;

constexpr std::int64_t kDayMs = 86'400'000;
const std::string kToken = "e2e-device-token";
const std::string kAlex = "+14155550100";
const std::string kSam = "sam@example.org";
const std::string kStranger = "+14155550777";
const std::string kQuiet = "+14155550333";
const std::string kInterrupted = "interrupted before send completed";
const std::string kConfigRequest = "GET /api/agent/config";

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

std::int64_t wallClockMs() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

std::string readFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

void writeFile(const fs::path& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}

// The messages of the log, each without its "[time] " prefix.
std::vector<std::string> logMessages(const std::string& err) {
  static const std::regex kPrefix(R"(^\[\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z\] )");
  std::vector<std::string> out;
  std::istringstream lines(err);
  for (std::string line; std::getline(lines, line);) {
    std::smatch m;
    out.push_back(std::regex_search(line, m, kPrefix) ? m.suffix().str() : line);
  }
  return out;
}

bool hasLine(const std::vector<std::string>& lines, const std::string& wanted) {
  return std::find(lines.begin(), lines.end(), wanted) != lines.end();
}

std::vector<std::string> linesStartingWith(const std::vector<std::string>& lines,
                                           const std::string& prefix) {
  std::vector<std::string> out;
  for (const auto& l : lines) {
    if (l.starts_with(prefix)) out.push_back(l);
  }
  return out;
}

// Everything below a directory, as relative paths.
std::vector<std::string> contentsOf(const fs::path& dir) {
  std::vector<std::string> out;
  for (const auto& entry : fs::recursive_directory_iterator(dir)) {
    out.push_back(fs::relative(entry.path(), dir).string());
  }
  return out;
}

std::multiset<std::string> fieldOf(const json& records, const char* key) {
  std::multiset<std::string> out;
  for (const auto& r : records) out.insert(r.at(key).get<std::string>());
  return out;
}

// corvane-devserver on a free loopback port. Killed with the object.
class DevServer {
 public:
  DevServer(const std::string& binary, std::vector<std::string> args,
            const std::vector<std::string>& environment)
      : process_(binary, withFreePort(std::move(args)), environment) {
    if (process_.waitFor(Stream::out, "\n")) {
      const std::string out = process_.out();
      url_ = out.substr(0, out.find('\n'));
    }
  }

  // Empty when the server didn't come up.
  const std::string& url() const { return url_; }
  std::string failure() const { return process_.spawnError() + process_.err(); }

  json state() const {
    httplib::Client client(url_);
    const auto answer = client.Get("/dev/state");
    if (!answer || answer->status != 200) return json();
    return json::parse(answer->body);
  }

  bool addOutbox(const json& item) const {
    httplib::Client client(url_);
    const auto answer = client.Post("/dev/outbox", item.dump(), "application/json");
    return answer && answer->status == 200;
  }

  // How many log lines so far name `request` ("GET /api/agent/config").
  std::size_t requestsSeen(const std::string& request) const {
    return ChildProcess::occurrences(process_.out(), "] " + request + " ");
  }
  bool waitForRequest(const std::string& request, std::size_t count) {
    return process_.waitFor(Stream::out, "] " + request + " ", count);
  }

  // SIGTERM, as a user's Ctrl-C; the --db file is complete afterwards.
  std::optional<ExitStatus> stop() {
    process_.signal(SIGTERM);
    return process_.wait();
  }

 private:
  static std::vector<std::string> withFreePort(std::vector<std::string> args) {
    args.insert(args.begin(), {"--port", "0"});
    return args;
  }

  ChildProcess process_;
  std::string url_;
};

struct AgentRun {
  std::optional<ExitStatus> status;
  std::string out;
  std::string err;
  std::vector<std::string> log() const { return logMessages(err); }
};

class HeadlessE2E : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* dir = std::getenv("CORVANE_TEST_BIN_DIR");
    ASSERT_NE(dir, nullptr) << "CORVANE_TEST_BIN_DIR is not set; run the tests through ctest";
    corvane_ = fs::path(dir) / "Corvane";
    devserver_ = fs::path(dir) / "corvane-devserver";
    ASSERT_TRUE(fs::exists(corvane_)) << corvane_ << " was not built";
    ASSERT_TRUE(fs::exists(devserver_)) << devserver_ << " was not built";
    for (const auto& d : {userHome(), xdgConfig(), xdgData(), home()}) fs::create_directories(d);
  }

  fs::path userHome() const { return fs::path(tmp_.path()) / "user"; }
  fs::path xdgConfig() const { return fs::path(tmp_.path()) / "config"; }
  fs::path xdgData() const { return fs::path(tmp_.path()) / "data"; }
  fs::path home() const { return fs::path(tmp_.path()) / "agent"; }
  fs::path stateFile() const { return home() / "state.json"; }
  fs::path fakeSent() const { return home() / "fake-sent.jsonl"; }
  std::string chatDB() const { return tmp_.file("chat.db"); }

  // The machine's own home, config and tokens stay out of every run.
  std::vector<std::string> environment(std::optional<std::string> token = std::nullopt) const {
    std::vector<std::string> env = {"HOME=" + userHome().string(),
                                    "XDG_CONFIG_HOME=" + xdgConfig().string(),
                                    "XDG_DATA_HOME=" + xdgData().string(),
                                    "TMPDIR=" + tmp_.path(),
                                    "PATH=/usr/bin:/bin",
                                    "LANG=C.UTF-8"};
    if (token) env.push_back("QUODDLE_TOKEN=" + *token);
    return env;
  }

  std::vector<std::string> headless(std::vector<std::string> args) const {
    args.insert(args.begin(), "--headless");
    return args;
  }

  // A once cycle's arguments against `server`.
  std::vector<std::string> cycleArgs(const std::string& server, std::vector<std::string> extra = {},
                                     const std::string& token = kToken) const {
    std::vector<std::string> args = {"--server",  server,   "--home",  home().string(),
                                     "--chat-db", chatDB(), "--token", token,
                                     "--region",  "US",     "--once",  "--fake-send"};
    args.insert(args.end(), extra.begin(), extra.end());
    return args;
  }

  AgentRun corvane(const std::vector<std::string>& args,
                   std::optional<std::string> envToken = std::nullopt) const {
    ChildProcess child(corvane_.string(), headless(args), environment(std::move(envToken)));
    AgentRun run;
    run.status = child.wait();
    run.out = child.out();
    run.err = child.spawnError() + child.err();
    return run;
  }

  std::unique_ptr<ChildProcess> startCorvane(const std::vector<std::string>& args) const {
    return std::make_unique<ChildProcess>(corvane_.string(), headless(args), environment());
  }

  std::unique_ptr<DevServer> devServer(std::vector<std::string> args) const {
    auto server = std::make_unique<DevServer>(devserver_.string(), std::move(args), environment());
    EXPECT_FALSE(server->url().empty()) << "corvane-devserver didn't start: " << server->failure();
    return server;
  }

  json state() const { return json::parse(readFile(stateFile())); }

  // Lines of fake-sent.jsonl, decoded.
  std::vector<json> sentRecords() const {
    std::vector<json> out;
    std::istringstream lines(readFile(fakeSent()));
    for (std::string line; std::getline(lines, line);) out.push_back(json::parse(line));
    return out;
  }

  std::int64_t messageAt(ChatDbBuilder& db, std::int64_t chat, const std::string& text,
                         std::int64_t ageMs) {
    return db.message(chat, MessageSpec{.text = text, .dateMs = now_ - ageMs});
  }

  const std::int64_t now_ = wallClockMs();
  TempDir tmp_;
  fs::path corvane_, devserver_;
};

#define ASSERT_EXIT_CODE(run, expected)                                                     \
  do {                                                                                      \
    ASSERT_TRUE((run).status.has_value()) << "Corvane did not finish\n" << (run).err;       \
    ASSERT_EQ(*(run).status, ExitStatus::exit(expected)) << describe(*(run).status) << "\n" \
                                                         << (run).err;                      \
  } while (0)

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

TEST_F(HeadlessE2E, CyclesUploadBackfillThenNewRowsThenALateRosterHandleOnce) {
  ChatDbBuilder db(chatDB());
  const auto alex = db.oneToOne(kAlex);
  const auto sam = db.oneToOne(kSam);
  const auto stranger = db.oneToOne(kStranger);
  const auto quiet = db.oneToOne(kQuiet);
  messageAt(db, alex, "alex, too old to backfill", 40 * kDayMs);
  messageAt(db, alex, "alex recent", 2 * kDayMs);
  messageAt(db, sam, "sam, too old to backfill", 45 * kDayMs);
  messageAt(db, sam, "sam recent", 3 * kDayMs);
  messageAt(db, quiet, "quiet for two months", 60 * kDayMs);
  std::int64_t top = messageAt(db, stranger, "stranger", kDayMs);

  const std::string serverDB = tmp_.file("server.sqlite");
  const std::vector<std::string> serverArgs = {
      "--token", kToken, "--db", serverDB, "--backfill-days", "30", "--directory-days", "30"};
  auto withRoster = [&](const std::string& roster) {
    auto args = serverArgs;
    args.insert(args.end(), {"--roster", roster});
    return args;
  };
  auto server = devServer(withRoster(kAlex));
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

  // Sam joins the roster: backfilled once, from the same database.
  ASSERT_EQ(server->stop(), ExitStatus::exit(0));
  server = devServer(withRoster(kAlex + "," + kSam));
  ASSERT_FALSE(server->url().empty());
  messageAt(db, sam, "sam new", 0);
  top = messageAt(db, alex, "alex newest", 0);
  ASSERT_EXIT_CODE(corvane(cycleArgs(server->url())), 0);
  seen = server->state();
  EXPECT_EQ(fieldOf(seen["messages"], "text"),
            (std::multiset<std::string>{"alex recent", "alex new", "alex newer", "sam recent",
                                        "sam new", "alex newest"}));
  ASSERT_EQ(seen["uploads"].size(), 3u);
  EXPECT_EQ(seen["uploads"][2]["messages"], 3);
  EXPECT_EQ(state()["backfilled"], json::array({kAlex, kSam}));

  // From now on Sam goes through the cursor like everyone else.
  messageAt(db, sam, "sam later", 0);
  ASSERT_EXIT_CODE(corvane(cycleArgs(server->url())), 0);
  seen = server->state();
  ASSERT_EQ(seen["uploads"].size(), 4u);
  EXPECT_EQ(seen["uploads"][3]["messages"], 1);
  EXPECT_EQ(fieldOf(seen["messages"], "text").count("sam later"), 1u);
  EXPECT_EQ(fieldOf(seen["messages"], "text").count("sam recent"), 1u);
}

TEST_F(HeadlessE2E, OutboxItemsAreSentOnceAndAcknowledged) {
  ChatDbBuilder db(chatDB());
  db.oneToOne(kAlex);
  auto server =
      devServer({"--token", kToken, "--roster", kAlex, "--outbox", kAlex + "=Hello there"});
  ASSERT_FALSE(server->url().empty());
  ASSERT_TRUE(server->addOutbox(
      {{"id", "a-1"}, {"handle", kAlex}, {"text", "From the assistant"}, {"kind", "assistant"}}));

  const AgentRun run = corvane(cycleArgs(server->url()));
  ASSERT_EXIT_CODE(run, 0);
  const auto sent = sentRecords();
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_EQ(sent[0]["handle"], kAlex);
  EXPECT_EQ(sent[0]["text"], "Hello there");
  EXPECT_EQ(sent[1]["text"], "From the assistant");
  EXPECT_TRUE(hasLine(run.log(), "outbox item-1 (user) \u2192 " + kAlex + ": sent")) << run.err;
  EXPECT_TRUE(hasLine(run.log(), "outbox a-1 (assistant) \u2192 " + kAlex + ": sent")) << run.err;

  const json outbox = server->state()["outbox"];
  ASSERT_EQ(outbox.size(), 2u);
  for (const auto& item : outbox) {
    SCOPED_TRACE(item.dump());
    ASSERT_TRUE(item["ack"].is_object());
    EXPECT_EQ(item["ack"]["status"], "sent");
    EXPECT_TRUE(item["ack"]["error"].is_null());
  }
  const json done = state()["outboxDone"];
  ASSERT_EQ(done.size(), 2u);
  for (const auto& record : done) {
    EXPECT_EQ(record["status"], "sent");
    EXPECT_EQ(record["acked"], true);
    EXPECT_FALSE(record.contains("error"));
  }
  // The self channel must recognise the assistant's text when it comes back.
  ASSERT_EQ(state()["assistantSent"].size(), 1u);

  ASSERT_EXIT_CODE(corvane(cycleArgs(server->url())), 0);
  EXPECT_EQ(sentRecords().size(), 2u);
}

TEST_F(HeadlessE2E, ItemsWithADoneRecordAreReackedAndNeverSentAgain) {
  ChatDbBuilder db(chatDB());
  db.oneToOne(kAlex);
  auto server = devServer({"--token", kToken, "--roster", kAlex});
  ASSERT_FALSE(server->url().empty());
  for (const auto& [id, text] : std::map<std::string, std::string>{
           {"was-sent", "already went out"}, {"was-cut", "cut off mid-send"}, {"new", "fresh"}}) {
    ASSERT_TRUE(server->addOutbox({{"id", id}, {"handle", kAlex}, {"text", text}}));
  }
  // As left by a run whose ack got lost, and by one killed during its send.
  writeFile(stateFile(),
            json{{"outboxDone",
                  {{{"id", "was-sent"}, {"status", "sent"}, {"at", now_}, {"acked", false}},
                   {{"id", "was-cut"},
                    {"status", "failed"},
                    {"error", kInterrupted},
                    {"at", now_},
                    {"acked", false}}}}}
                .dump());

  const AgentRun run = corvane(cycleArgs(server->url()));
  ASSERT_EXIT_CODE(run, 0);
  const auto sent = sentRecords();
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0]["text"], "fresh");

  std::map<std::string, json> acks;
  const json outbox = server->state()["outbox"];
  for (const auto& item : outbox) {
    acks[item["id"].get<std::string>()] = item["ack"];
  }
  ASSERT_EQ(acks.size(), 3u) << outbox.dump();
  EXPECT_EQ(acks["was-sent"]["status"], "sent");
  EXPECT_EQ(acks["was-cut"]["status"], "failed");
  EXPECT_EQ(acks["was-cut"]["error"], kInterrupted);
  EXPECT_EQ(acks["new"]["status"], "sent");
  const json done = state()["outboxDone"];
  ASSERT_EQ(done.size(), 3u);
  for (const auto& record : done) {
    EXPECT_EQ(record["acked"], true) << record.dump();
  }
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

  // With a state that has handled the item before: a re-ack is only described.
  const std::string saved =
      json{{"cursor", top},
           {"backfilled", {kAlex}},
           {"outboxDone", {{{"id", "item-1"}, {"status", "sent"}, {"at", now_}, {"acked", false}}}}}
          .dump();
  writeFile(stateFile(), saved);
  messageAt(db, alex, "alex new", 0);
  const AgentRun known = corvane(cycleArgs(server->url(), {"--dry-run"}));
  ASSERT_EXIT_CODE(known, 0);
  EXPECT_EQ(readFile(stateFile()), saved);
  EXPECT_FALSE(fs::exists(fakeSent()));
  EXPECT_EQ(server->state(), untouched);
  EXPECT_TRUE(hasLine(known.log(), "[dry-run] would re-ack user message to " + kAlex + ": Hi Alex"))
      << known.err;
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

TEST_F(HeadlessE2E, ServerErrorFailsTheOnceCycleWithARetryWarning) {
  LoopbackServer server(
      LoopbackServer::answer(503, R"({"error":"unavailable","message":"Down for maintenance"})"));
  ChatDbBuilder db(chatDB());
  const AgentRun run = corvane(cycleArgs(server.url()));
  ASSERT_EXIT_CODE(run, 1);
  const auto log = run.log();
  ASSERT_EQ(log.size(), 2u) << run.err;
  std::smatch m;
  ASSERT_TRUE(std::regex_match(log[1], m,
                               std::regex("warn: GET /api/agent/config \u2192 503: Down for "
                                          "maintenance \u2014 retrying in (\\d+)s")))
      << log[1];
  // The first failure waits about the initial 30 s base, jittered by ±15 %.
  EXPECT_GE(std::stoi(m[1]), 26);
  EXPECT_LE(std::stoi(m[1]), 34);
}

TEST_F(HeadlessE2E, MissingDatabaseIsNamedWithWhatToDo) {
  auto server = devServer({"--token", kToken, "--roster", kAlex});
  ASSERT_FALSE(server->url().empty());
  const AgentRun run = corvane(cycleArgs(server->url()));  // chat.db was never made
  ASSERT_EXIT_CODE(run, 1);
  EXPECT_EQ(run.log().back(), "error: " + chatDB() +
                                  " doesn't exist. Open Messages on this Mac and sign in to "
                                  "iMessage first.");
  EXPECT_TRUE(server->state()["uploads"].empty());
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

// SIGKILLs the agent at seeded random points of its cycles, mostly right
// after a send was logged, with new rows arriving between runs; then one
// clean run. Nothing may be sent twice, every item must end acknowledged, and
// every roster row must reach the server.
TEST_F(HeadlessE2E, KilledAtAnyPointNeverSendsTwiceAndLosesNothing) {
  constexpr int kItems = 40;
  constexpr int kKills = 20;
  constexpr unsigned kSeed = 20240611;
  SCOPED_TRACE("seed " + std::to_string(kSeed));
  std::mt19937 random(kSeed);

  ChatDbBuilder db(chatDB());
  const auto alex = db.oneToOne(kAlex);
  const auto stranger = db.oneToOne(kStranger);
  std::multiset<std::string> rosterTexts = {"alex before"};
  messageAt(db, alex, "alex before", kDayMs);
  std::vector<std::string> serverArgs = {"--token", kToken, "--roster", kAlex};
  for (int i = 1; i <= kItems; ++i) {
    serverArgs.insert(serverArgs.end(), {"--outbox", kAlex + "=note " + std::to_string(i)});
  }
  auto server = devServer(serverArgs);
  ASSERT_FALSE(server->url().empty());

  const auto checkFiles = [&] {
    if (fs::exists(stateFile())) {
      const std::string text = readFile(stateFile());
      ASSERT_TRUE(json::accept(text)) << "state.json is not JSON:\n" << text;
      std::set<std::string> ids;
      const json records = json::parse(text)["outboxDone"];
      for (const auto& r : records) {
        EXPECT_TRUE(ids.insert(r["id"].get<std::string>()).second) << "two records for " << r;
      }
    }
    std::map<std::string, int> times;
    for (const auto& record : sentRecords()) ++times[record["text"].get<std::string>()];
    for (const auto& [text, n] : times) EXPECT_EQ(n, 1) << "\"" << text << "\" sent " << n << "x";
  };

  int killedAfterASend = 0;
  for (int i = 0; i < kKills; ++i) {
    SCOPED_TRACE("kill " + std::to_string(i));
    const std::string live = "alex live " + std::to_string(i);
    messageAt(db, alex, live, 0);
    messageAt(db, stranger, "stranger live " + std::to_string(i), 0);
    rosterTexts.insert(live);

    const std::size_t configsBefore = server->requestsSeen(kConfigRequest);
    auto agent = startCorvane(cycleArgs(server->url()));
    bool afterSend = false;
    if (random() % 2 == 0) {
      // Around the send: the write-ahead record, the send, its record, the ack.
      const int sends = 1 + static_cast<int>(random() % 3);
      afterSend = agent->waitFor(Stream::err, "[fake-send]", static_cast<std::size_t>(sends));
      std::this_thread::sleep_for(std::chrono::microseconds(random() % 500));
    } else {
      // Somewhere in the upload and the commit of the cursor.
      server->waitForRequest(kConfigRequest, configsBefore + 1);
      std::this_thread::sleep_for(std::chrono::microseconds(random() % 20000));
    }
    agent->signal(SIGKILL);
    const auto status = agent->wait();
    ASSERT_TRUE(status.has_value());
    if (status->exited) {
      ASSERT_EQ(status->code, 0) << agent->err();  // finished before the kill
    } else if (afterSend) {
      ++killedAfterASend;
    }
    checkFiles();
    if (HasFailure()) return;
  }
  EXPECT_GT(killedAfterASend, 0) << "no kill landed in the outbox stage";

  const AgentRun clean = corvane(cycleArgs(server->url()));
  ASSERT_EXIT_CODE(clean, 0);
  checkFiles();

  std::map<std::string, int> sentTimes;
  for (const auto& record : sentRecords()) ++sentTimes[record["text"].get<std::string>()];
  const json seen = server->state();
  ASSERT_EQ(seen["outbox"].size(), static_cast<std::size_t>(kItems));
  std::map<std::string, std::string> statusOf;
  for (const auto& item : seen["outbox"]) {
    SCOPED_TRACE(item.dump());
    const auto& ack = item["ack"];
    ASSERT_TRUE(ack.is_object()) << "never acknowledged";
    const std::string text = item["text"];
    if (ack["status"] == "sent") {
      EXPECT_EQ(sentTimes[text], 1);
    } else {
      // Cut off between the write-ahead record and the end of the send: it
      // may or may not have gone out, but it is never tried again.
      EXPECT_EQ(ack["status"], "failed");
      EXPECT_EQ(ack["error"], kInterrupted);
    }
    statusOf[item["id"].get<std::string>()] = ack["status"].get<std::string>();
  }
  const json done = state()["outboxDone"];
  EXPECT_EQ(done.size(), static_cast<std::size_t>(kItems));
  for (const auto& record : done) {
    // A kill after the ack but before the next save leaves the write-ahead
    // record behind; the server no longer lists the item, so that is final.
    if (record["acked"] == true || record["status"] == "sent") {
      EXPECT_EQ(record["status"], statusOf[record["id"].get<std::string>()]) << record;
    }
  }

  // Uploads may repeat a range after a kill, but none is skipped and nothing
  // off the roster is ever sent.
  EXPECT_EQ(fieldOf(seen["messages"], "text"), rosterTexts);
  for (const auto& upload : seen["uploads"]) EXPECT_EQ(upload["dropped"], 0) << upload;
}

}  // namespace
}  // namespace corvane
