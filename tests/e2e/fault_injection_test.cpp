// Faults injected into real runs of the headless agent: kills at any point of
// a cycle, a hostile server, a Messages database that is locked or damaged,
// and an agent home that can't take the next save.
#include <gtest/gtest.h>
#include <signal.h>

#include <fstream>
#include <functional>
#include <map>
#include <random>
#include <thread>

#include "core/chatdb/sqlite_db.h"
#include "tests/api/loopback_server.h"
#include "tests/e2e/headless_fixture.h"

namespace corvane::e2e {
namespace {

using testing::ScriptedServer;

using namespace std::chrono_literals;
using namespace std::string_view_literals;

// What a run may grow to. The agent holds at most 16 MiB of an answer; this
// leaves room for that, the program itself and the test process's own size,
// which the child's high-water mark starts from.
constexpr long kPeakLimitKiB = 128 * 1024;

using FaultInjection = HeadlessE2E;

// SIGKILLs the agent at seeded random points of its cycles, half of them
// right after a send was logged and half in the upload and the commit of the
// cursor, with new rows and new outbox items arriving before every run; then
// one clean run. Nothing may be sent twice, state.json must be whole after
// every kill, every item must be acknowledged exactly once, and every roster
// row must reach the server.
TEST_F(FaultInjection, KilledAtAnyPointNeverSendsTwiceAndLosesNothing) {
  constexpr int kKills = 100;
  constexpr int kItemsPerRound = 2;
  constexpr unsigned kSeed = 20240611;
  SCOPED_TRACE("seed " + std::to_string(kSeed));
  std::mt19937 random(kSeed);

  ChatDbBuilder db(chatDB());
  const auto alex = db.oneToOne(kAlex);
  const auto stranger = db.oneToOne(kStranger);
  std::multiset<std::string> rosterTexts = {"alex before"};
  messageAt(db, alex, "alex before", kDayMs);
  auto server = devServer({"--token", kToken, "--roster", kAlex});

  const auto timesSent = [&] {
    std::map<std::string, int> times;
    for (const auto& record : sentRecords()) ++times[record["text"].get<std::string>()];
    return times;
  };
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
    for (const auto& [text, n] : timesSent())
      EXPECT_EQ(n, 1) << "\"" << text << "\" sent " << n << "x";
  };

  int killedAfterASend = 0;
  for (int i = 0; i < kKills; ++i) {
    SCOPED_TRACE("kill " + std::to_string(i));
    for (int k = 0; k < kItemsPerRound; ++k) {
      const std::string id = "r" + std::to_string(i) + "-" + std::to_string(k);
      ASSERT_TRUE(server->addOutbox({{"id", id}, {"handle", kAlex}, {"text", "note " + id}}));
    }
    const std::string live = "alex live " + std::to_string(i);
    messageAt(db, alex, live, 0);
    messageAt(db, stranger, "stranger live " + std::to_string(i), 0);
    rosterTexts.insert(live);

    const std::size_t configsBefore = server->requestsSeen(kConfigRequest);
    auto agent = startCorvane(cycleArgs(server->url()));
    bool afterSend = false;
    if (random() % 2 == 0) {
      // Around a send: the write-ahead record, the send, its record, the ack.
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

  auto sentTimes = timesSent();
  const json seen = server->state();
  const std::string requests = server->log();
  ASSERT_EQ(seen["outbox"].size(), static_cast<std::size_t>(kKills * kItemsPerRound));
  std::map<std::string, std::string> statusOf;
  for (const auto& item : seen["outbox"]) {
    SCOPED_TRACE(item.dump());
    const std::string id = item["id"];
    const auto& ack = item["ack"];
    ASSERT_TRUE(ack.is_object()) << "never acknowledged";
    // Once acknowledged, an item leaves the outbox the agent is given, so a
    // second ack would mean the agent acked something it was not shown.
    const std::string ackRequest = "] POST /api/agent/outbox/" + id + " ";
    EXPECT_EQ(ChildProcess::occurrences(requests, ackRequest), 1u);
    EXPECT_EQ(ChildProcess::occurrences(requests, ackRequest + "\u2192 200 "), 1u);
    const std::string text = item["text"];
    if (ack["status"] == "sent") {
      EXPECT_EQ(sentTimes[text], 1);
    } else {
      // Cut off between the write-ahead record and the end of the send: it
      // may or may not have gone out, but it is never tried again.
      EXPECT_EQ(ack["status"], "failed");
      EXPECT_EQ(ack["error"], "interrupted before send completed");
      EXPECT_LE(sentTimes[text], 1);
    }
    statusOf[id] = ack["status"].get<std::string>();
  }
  const json done = state()["outboxDone"];
  EXPECT_EQ(done.size(), static_cast<std::size_t>(kKills * kItemsPerRound));
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

// The first answer the agent gets is broken in one way or another. The cycle
// must fail with the error kind that fits (a network error is retried with a
// warning, an answer of the wrong shape is an error), soon, and without
// holding more of the answer than its cap.
TEST_F(FaultInjection, HostileAnswersFailTheCycleQuicklyAndInBoundedMemory) {
  using Connection = ScriptedServer::Connection;
  const std::string networkError = R"(warn: (Can't reach 127\.0\.0\.1 \(.+\)))";
  const std::string shapeError =
      R"(error: cycle failed: (GET /api/agent/config: unexpected response shape \()";
  const std::string tooLarge = shapeError + R"(the answer is larger than 16 MiB\)))";
  const std::string head200 = "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\n";
  const std::string filler(16 * 1024, ' ');

  struct Case {
    const char* name;
    ScriptedServer::Script script;
    std::string expected;  // the last log line without its " — retrying in Ns"
  };
  const std::vector<Case> cases = {
      {"bytes that are not HTTP",
       [](Connection& c) { c.send("\x16\x03\x01\x00\xff garbage\r\n\r\n\0\x01"sv); }, networkError},
      {"a 200 announcing 2 GiB, a few bytes, then silence",
       [&](Connection& c) {
         c.send(head200 + "Content-Length: 2147483648\r\n\r\n{\"plan\":");
         c.waitForHangUp();
       },
       tooLarge},
      {"a chunked body that never ends",
       [&](Connection& c) {
         if (!c.send(head200 + "Transfer-Encoding: chunked\r\n\r\n")) return;
         c.sendForever("4000\r\n" + filler + "\r\n");
       },
       tooLarge},
      {"headers that never end",
       [&](Connection& c) {
         if (!c.send("HTTP/1.1 200 OK\r\n")) return;
         c.sendForever("X-Padding: " + std::string(100, 'p') + "\r\n");
       },
       networkError},
      {"a connection closed in the middle of the body",
       [&](Connection& c) {
         c.send(head200 + "Content-Length: 4096\r\n\r\n" + R"({"protocolVersion":1,"roster)");
       },
       networkError},
      {"a connection closed without a word", [](Connection&) {}, networkError},
  };

  ChatDbBuilder db(chatDB());
  db.oneToOne(kAlex);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ScriptedServer server(c.script);
    ASSERT_TRUE(server.listening());
    // Within the child's 20 s wait, so none of these relies on the 30 s
    // time-out of the request.
    const AgentRun run = corvane(cycleArgs(server.url()));
    ASSERT_EXIT_CODE(run, 1);
    ASSERT_TRUE(server.waitForServed(1)) << "the script did not end after the agent did";

    const std::string line = run.log().back();
    std::smatch m;
    ASSERT_TRUE(std::regex_match(line, m, std::regex(c.expected + " \u2014 retrying in \\d+s")))
        << line;
    // The failure is what the state remembers.
    const std::string lastError = state()["lastError"];
    EXPECT_TRUE(lastError.ends_with(" " + m[1].str())) << lastError;

    ASSERT_TRUE(run.peakKiB.has_value());
    EXPECT_LT(*run.peakKiB, kPeakLimitKiB);
    // It stopped reading soon after the cap; a few MiB of slack are socket buffers.
    EXPECT_LT(server.bytesSent(), 32u * 1024 * 1024);
    const auto heads = server.heads();
    ASSERT_EQ(heads.size(), 1u) << "a request after the failed one";
    EXPECT_TRUE(heads[0].starts_with(kConfigRequest + " HTTP/1.1\r\n")) << heads[0];
  }
}

// A writer holding the database's exclusive lock, as Messages does while it
// writes: held past the busy time-out (5 s) it fails the cycle with SQLite's
// own words; held for less it is waited out, and that cycle catches up.
TEST_F(FaultInjection, AWriteLockIsWaitedOutUpToTheBusyTimeOut) {
  ChatDbBuilder db(chatDB());
  const auto alex = db.oneToOne(kAlex);
  messageAt(db, alex, "alex before", kDayMs);
  auto server = devServer({"--token", kToken, "--roster", kAlex});

  db.db().exec("BEGIN EXCLUSIVE");
  messageAt(db, alex, "written under the lock", 0);
  const AgentRun locked = corvane(cycleArgs(server->url()));  // the lock outlasts the run
  ASSERT_EXIT_CODE(locked, 1);
  EXPECT_EQ(locked.log().back(), "error: SQLite error 5: database is locked") << locked.err;
  EXPECT_TRUE(server->state()["uploads"].empty());

  const auto lockedAt = std::chrono::steady_clock::now();
  auto agent = startCorvane(cycleArgs(server->url()));
  ASSERT_TRUE(server->waitForRequest(kConfigRequest, 2)) << agent->err();
  std::this_thread::sleep_until(lockedAt + 3s);
  // Every read needs the lock, so the cycle cannot be done yet.
  EXPECT_TRUE(agent->running()) << agent->err();
  db.db().exec("COMMIT");
  const auto status = agent->wait();
  ASSERT_TRUE(status.has_value()) << agent->err();
  ASSERT_EQ(*status, ExitStatus::exit(0)) << describe(*status) << "\n" << agent->err();
  EXPECT_EQ(fieldOf(server->state()["messages"], "text"),
            (std::multiset<std::string>{"alex before", "written under the lock"}));
}

// A database whose pages are damaged behind a valid header, or cut short:
// the cycle fails with SQLite's report of it, when the agent opens the
// database or later in the cycle, exits 1 rather than crashing, and uploads
// none of what it read before the damage.
TEST_F(FaultInjection, DamagedDatabasePagesFailTheCycleWithoutACrashOrAnUpload) {
  auto server = devServer({"--token", kToken, "--roster", kAlex});

  // Found when the agent opens the database (its check reads whatever pages
  // SQLite's plan for the first row needs) or by a later read of the cycle.
  const std::regex reported(
      "error: SQLite error 11: database disk image is malformed|"
      "error: cycle failed: SQLite error 11: database disk image is malformed \u2014 retrying in "
      "\\d+s");
  std::mt19937 random(7);
  for (const bool cut : {false, true}) {
    SCOPED_TRACE(cut ? "the file cut off after half its pages"
                     : "the page with the newest messages");
    fs::remove(chatDB());
    {
      ChatDbBuilder db(chatDB());
      const auto alex = db.oneToOne(kAlex);
      db.transaction([&] {
        for (int i = 0; i < 300; ++i) {
          messageAt(db, alex, "message " + std::to_string(i) + " " + std::string(200, 'x'),
                    kDayMs - i);
        }
      });
    }
    SQLiteDB read(chatDB(), /*readOnly=*/true);
    const auto number = [&](const std::string& sql) {
      return read.query(sql).at(0).at(0).int64().value();
    };
    const std::int64_t pageSize = number("PRAGMA page_size"), pages = number("PRAGMA page_count");
    const std::int64_t newest =
        number("SELECT MAX(pageno) FROM dbstat WHERE name = 'message' AND pagetype = 'leaf'");
    ASSERT_GT(pages, 20) << "too small to damage only in part";
    if (cut) {
      fs::resize_file(chatDB(), static_cast<std::uintmax_t>(pages / 2 * pageSize));
    } else {
      std::fstream file(chatDB(), std::ios::in | std::ios::out | std::ios::binary);
      std::string bytes(static_cast<std::size_t>(pageSize), '\0');
      for (auto& b : bytes) b = static_cast<char>(random());
      file.seekp((newest - 1) * pageSize);
      file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
      ASSERT_TRUE(file.good());
    }

    const AgentRun run = corvane(cycleArgs(server->url()));
    ASSERT_EXIT_CODE(run, 1);
    const std::string line = run.log().back();
    EXPECT_TRUE(std::regex_match(line, reported)) << run.err;
    EXPECT_TRUE(server->state()["uploads"].empty());
  }
}

// The file size limit cuts the write of the new state off part way: the
// cycle fails, the previous state stays whole, and once saves work again the
// row the failed cycle uploaded but could not commit goes up again.
TEST_F(FaultInjection, AWriteCutOffPartWayFailsTheSaveAndKeepsThePreviousState) {
  if (!fs::exists("/usr/bin/prlimit")) GTEST_SKIP() << "no prlimit to limit the file size with";
  ChatDbBuilder db(chatDB());
  const auto alex = db.oneToOne(kAlex);
  messageAt(db, alex, "alex before", kDayMs);
  auto server = devServer({"--token", kToken, "--roster", kAlex});
  ASSERT_EXIT_CODE(corvane(cycleArgs(server->url())), 0);
  const std::string saved = readFile(stateFile());
  ASSERT_TRUE(json::accept(saved)) << saved;

  const auto top = messageAt(db, alex, "alex during the fault", 0);
  // Ignored, SIGXFSZ leaves the write to fail with EFBIG; the log goes
  // through a pipe, which the limit doesn't cut.
  const AgentRun failed = corvane(
      cycleArgs(server->url()), std::nullopt,
      {"/bin/bash", "-c", "set -o pipefail; trap '' XFSZ; prlimit --fsize=64 \"$@\" 2>&1 | cat >&2",
       "bash"});
  ASSERT_EXIT_CODE(failed, 1);
  const std::string line = failed.log().back();
  EXPECT_TRUE(line.starts_with("error: cycle failed: couldn't ")) << failed.err;
  EXPECT_NE(line.find(" " + stateFile().string()), std::string::npos) << line;
  EXPECT_NE(line.find(": File too large \u2014 retrying in "), std::string::npos) << line;
  EXPECT_EQ(readFile(stateFile()), saved) << "the previous state was not kept";
  for (const auto& name : contentsOf(home())) {
    EXPECT_FALSE(name.ends_with(".tmp")) << "left behind: " << name;
  }

  ASSERT_EXIT_CODE(corvane(cycleArgs(server->url())), 0);
  EXPECT_EQ(state()["cursor"], top);
  const json seen = server->state();
  ASSERT_EQ(seen["uploads"].size(), 3u);
  EXPECT_EQ(seen["uploads"][2]["messages"], 1);
  EXPECT_EQ(fieldOf(seen["messages"], "text"),
            (std::multiset<std::string>{"alex before", "alex during the fault"}));
}

}  // namespace
}  // namespace corvane::e2e
