// Runs the real corvane-devserver on loopback and drives it with the real
// API client, the way a local run of the agent would.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "core/api/api_client.h"
#include "core/protocol/wire_json.h"

extern char** environ;

namespace corvane {
namespace {

// The server process; its stdout lines are collected as they come.
class DevServerProcess {
 public:
  explicit DevServerProcess(std::vector<std::string> args) {
    const char* dir = std::getenv("CORVANE_TEST_BIN_DIR");
    if (dir == nullptr) return;
    const std::string binary = std::string(dir) + "/corvane-devserver";
    if (!std::filesystem::exists(binary)) return;

    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) return;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    args.insert(args.begin(), binary);
    std::vector<char*> argv;
    for (auto& arg : args) argv.push_back(arg.data());
    argv.push_back(nullptr);
    const int rc = posix_spawn(&pid_, binary.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(fds[1]);
    if (rc != 0) {
      pid_ = -1;
      close(fds[0]);
      return;
    }
    reader_ = std::thread([this, fd = fds[0]] { readLines(fd); });
  }

  ~DevServerProcess() { stop(); }

  bool started() const { return pid_ > 0; }

  // The first line: the server's URL; empty when the process ended first.
  std::string url() { return line(0); }

  // Line `index` of the output, waiting for it; empty after the end.
  std::string line(std::size_t index) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return lines_.size() > index || ended_; });
    return index < lines_.size() ? lines_[index] : std::string();
  }

  std::vector<std::string> lines() {
    std::lock_guard lock(mutex_);
    return lines_;
  }

  // SIGTERM, then the exit status (-1 when it did not exit normally).
  int stop() {
    if (pid_ <= 0) return exitStatus_;
    kill(pid_, SIGTERM);
    int status = 0;
    while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
    pid_ = -1;
    if (reader_.joinable()) reader_.join();
    exitStatus_ = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return exitStatus_;
  }

 private:
  void readLines(int fd) {
    std::string pending;
    char buffer[1024];
    for (;;) {
      const ssize_t n = read(fd, buffer, sizeof buffer);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;
      pending.append(buffer, static_cast<std::size_t>(n));
      for (auto nl = pending.find('\n'); nl != std::string::npos; nl = pending.find('\n')) {
        std::lock_guard lock(mutex_);
        lines_.push_back(pending.substr(0, nl));
        pending.erase(0, nl + 1);
        changed_.notify_all();
      }
    }
    close(fd);
    std::lock_guard lock(mutex_);
    ended_ = true;
    changed_.notify_all();
  }

  pid_t pid_ = -1;
  int exitStatus_ = -1;
  std::thread reader_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::string> lines_;
  bool ended_ = false;
};

constexpr const char* kUserAgent = "corvane-mac/0.0.1";

TEST(DevServerTest, PairsSyncsServesTheOutboxAndRecordsEverything) {
  if (!std::getenv("CORVANE_TEST_BIN_DIR")) GTEST_SKIP() << "run through ctest";
  DevServerProcess process({"--port", "0", "--pair-code", "ABCD", "--roster", "+15550001,+15550002",
                            "--self-handle", "me@example.test", "--poll-interval", "5", "--outbox",
                            "+15550001=Hello there"});
  ASSERT_TRUE(process.started()) << "corvane-devserver was not built";
  const std::string url = process.url();
  ASSERT_TRUE(url.starts_with("http://127.0.0.1:")) << url;

  // Pairing: the code works once, and only the token it gave opens the API.
  APIClient pairing(url, std::nullopt, kUserAgent);
  const PairResponse paired = pairing.pair({"ABCD", "Test Mac", "Linux 6.1", "mac-0.0.1"});
  EXPECT_FALSE(paired.token.empty());
  try {
    pairing.pair({"ABCD", "Test Mac", "Linux 6.1", "mac-0.0.1"});
    ADD_FAILURE() << "a code paired twice";
  } catch (const APIError& e) {
    EXPECT_EQ(e.description(),
              "POST /api/agent/pair → 400: That code is not valid or was used already.");
  }
  try {
    APIClient(url, "not-a-token", kUserAgent).getConfig();
    ADD_FAILURE() << "an unknown token was accepted";
  } catch (const APIError& e) {
    EXPECT_EQ(e.kind(), APIError::Kind::unauthorized);
  }

  APIClient api(url, paired.token, kUserAgent);
  EXPECT_EQ(
      api.getConfig(),
      (AgentConfig{1, {"+15550001", "+15550002"}, 30, 30, 5, {true, {"me@example.test"}}, "dev"}));

  const SyncedMessage onRoster{"g1",
                               "+15550001",
                               "hi",
                               false,
                               "2023-11-14T22:13:20.123Z",
                               "iMessage",
                               {AttachmentKind::image},
                               {},
                               {}};
  const SyncedMessage offRoster{"g2",  "+15559999", "psst", true, "2023-11-14T22:13:21.000Z",
                                "SMS", {},          {},     {}};
  const DirectoryEntry entry{
      "+15550001", "Alex", {}, {}, {}, "iMessage", "2023-11-14T22:13:20.123Z", false, 1};
  EXPECT_EQ(api.sync({{entry}, {onRoster, offRoster}, 42}), (SyncResponse{1, 1}));

  // The seeded item, then one added through the development endpoint with an
  // id that needs escaping on its way back in the ack path.
  httplib::Client dev(url);
  const auto added = dev.Post("/dev/outbox",
                              R"({"id":"a b/c","handle":"me","text":"Noted",)"
                              R"("kind":"assistant"})",
                              "application/json");
  ASSERT_TRUE(added);
  EXPECT_EQ(added->status, 200) << added->body;
  const auto outbox = api.getOutbox();
  ASSERT_EQ(outbox.items.size(), 2u);
  EXPECT_EQ(outbox.items[0],
            (OutboxItem{"item-1", "+15550001", "Hello there", OutboxItem::Kind::user}));
  EXPECT_EQ(outbox.items[1].id, "a b/c");
  api.ackOutbox("item-1", {SendStatus::sent, {}});
  api.ackOutbox("a b/c", {SendStatus::failed, "not delivered"});
  EXPECT_TRUE(api.getOutbox().items.empty());

  const SelfMessageRequest note{"s1", "buy milk", "2023-11-14T22:13:22.000Z"};
  EXPECT_EQ(api.postSelf(note).queued, 1);
  EXPECT_EQ(api.postSelf(note).queued, 0);  // same guid again
  api.postStatus({"0.0.1", "Linux 6.1", true, PermissionState::unknown, PermissionState::unknown,
                  true, std::vector<std::string>{"me@example.test"}});

  // Bodies are checked against the wire records.
  const auto bad = dev.Post(
      "/api/agent/sync",
      httplib::Headers{{"Authorization", "Bearer " + paired.token}, {"X-Quoddle-Protocol", "1"}},
      R"({"directory":[],"messages":[]})", "application/json");
  ASSERT_TRUE(bad);
  EXPECT_EQ(bad->status, 400);
  EXPECT_EQ(decodeJSON<ErrorBody>(bad->body).message,
            R"(The body is not a valid SyncRequest: key "cursor": missing)");

  const auto stateAnswer = dev.Get("/dev/state");
  ASSERT_TRUE(stateAnswer);
  const WireJSON state = parseWireJSON(stateAnswer->body);
  ASSERT_EQ(state["messages"].size(), 1u);
  EXPECT_EQ(state["messages"][0].get<SyncedMessage>(), onRoster);
  EXPECT_EQ(state["directory"][0].get<DirectoryEntry>(), entry);
  EXPECT_EQ(state["devices"][0]["deviceName"], "Test Mac");
  EXPECT_EQ(state["devices"][0]["cursor"], 42);
  EXPECT_EQ(state["outbox"][0]["ack"]["status"], "sent");
  EXPECT_EQ(state["outbox"][1]["ack"]["error"], "not delivered");
  EXPECT_EQ(state["selfNotes"].size(), 1u);
  ASSERT_EQ(state["statusReports"].size(), 1u);
  EXPECT_EQ(state["statusReports"][0]["ownHandles"][0], "me@example.test");

  EXPECT_EQ(process.stop(), 0);
  // One summary line per request after the URL, none revealing the token.
  const auto lines = process.lines();
  EXPECT_EQ(lines.size(), 1u + 15u);
  for (const auto& line : lines) {
    EXPECT_EQ(line.find(paired.token), std::string::npos) << line;
  }
  EXPECT_NE(std::find_if(lines.begin(), lines.end(),
                         [](const std::string& l) {
                           return l.find("POST /api/agent/sync → 200 (2 messages") !=
                                  std::string::npos;
                         }),
            lines.end());
}

TEST(DevServerTest, HelpSaysItIsADevelopmentToolAndHowToRunTheAgent) {
  if (!std::getenv("CORVANE_TEST_BIN_DIR")) GTEST_SKIP() << "run through ctest";
  DevServerProcess process({"--help"});
  ASSERT_TRUE(process.started());
  process.line(1000);  // waits for the end of the output
  std::string text;
  for (const auto& line : process.lines()) text += line + "\n";
  EXPECT_NE(text.find("development tool, not the Corvane service"), std::string::npos) << text;
  EXPECT_NE(text.find("--headless --server http://127.0.0.1:8787"), std::string::npos) << text;
  EXPECT_EQ(process.stop(), 0);
}

}  // namespace
}  // namespace corvane
