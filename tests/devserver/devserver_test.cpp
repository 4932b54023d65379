// Runs the real corvane-devserver on loopback and drives it with the real
// API client, the way a local run of the agent would.
#include <gtest/gtest.h>
#include <httplib.h>
#include <signal.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "core/api/api_client.h"
#include "core/protocol/wire_json.h"
#include "tests/e2e/child_process.h"

namespace corvane {
namespace {

using testing::ChildProcess;
using testing::ExitStatus;
using testing::linesOf;

constexpr const char* kUserAgent = "corvane-mac/0.0.1";

TEST(DevServerTest, PairsSyncsServesTheOutboxAndRecordsEverything) {
  const char* bin = std::getenv("CORVANE_TEST_BIN_DIR");
  if (bin == nullptr) GTEST_SKIP() << "run through ctest";
  const auto process = std::make_unique<ChildProcess>(
      std::string(bin) + "/corvane-devserver",
      std::vector<std::string>{"--port", "0", "--pair-code", "ABCD", "--roster",
                               "+15550001,+15550002", "--self-handle", "me@example.test",
                               "--poll-interval", "5", "--outbox", "+15550001=Hello there"},
      std::vector<std::string>{"PATH=/usr/bin:/bin"});
  ASSERT_TRUE(process->waitFor(ChildProcess::Stream::out, "\n")) << process->spawnError();
  const std::string url = linesOf(process->out()).front();
  ASSERT_TRUE(url.starts_with("http://127.0.0.1:")) << url;

  // Only the token pairing gave opens the API (that a code works once,
  // HeadlessE2E's pairing test shows).
  const PairResponse paired =
      APIClient(url, std::nullopt, kUserAgent).pair({"ABCD", "Test Mac", "Linux 6.1", "mac-0.0.1"});
  EXPECT_FALSE(paired.token.empty());
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

  const SyncedMessage onRoster{"g1",      "+15550001", "hi", false, "2023-11-14T22:13:20.123Z",
                               "iMessage", {AttachmentKind::image}, {}, {}};
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


  const auto stateAnswer = dev.Get("/dev/state");
  ASSERT_TRUE(stateAnswer);
  const WireJSON state = parseWireJSON(stateAnswer->body);
  ASSERT_EQ(state["messages"].size(), 1u);
  EXPECT_EQ(state["messages"][0].get<SyncedMessage>(), onRoster);
  EXPECT_EQ(state["directory"][0].get<DirectoryEntry>(), entry);
  EXPECT_EQ(state["devices"][0]["cursor"], 42);
  EXPECT_EQ(state["outbox"][1]["ack"]["error"], "not delivered");

  process->signal(SIGTERM);
  EXPECT_EQ(process->wait(), ExitStatus::exit(0));
  // One summary line per request after the URL, none revealing the token.
  const auto lines = linesOf(process->out());
  EXPECT_EQ(lines.size(), 1u + 10u);
  for (const auto& line : lines) EXPECT_EQ(line.find(paired.token), std::string::npos) << line;
}

}  // namespace
}  // namespace corvane
