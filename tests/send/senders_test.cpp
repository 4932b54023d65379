#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "core/chatdb/chat_db.h"
#include "core/send/apple_script_sender.h"
#include "core/send/apple_scripts.h"
#include "core/send/fake_sender.h"
#include "tests/e2e/child_process.h"
#include "tests/support/temp_dir.h"
#include "tools/chatdb-gen/chat_db_builder.h"

namespace corvane {
namespace {

using chatdbgen::ChatDbBuilder;
using chatdbgen::MessageSpec;
using testing::TempDir;

const std::string kAlex = "+14155550100";
const std::string kAutomationStderr =
    "execution error: Not authorized to send Apple events to Messages. (-1743)";

TEST(NormalizeSentTextTest, CollapsesWhiteSpaceAndDropsAttachmentMarks) {
  struct Case {
    std::string input, expected;
  };
  const Case cases[] = {
      {"Hello\uFFFC  world\n", "Hello world"},
      {"  \t\n", ""},
      {"a\u00a0\u2028b", "a b"},
      {"line one\r\n\r\nline two", "line one line two"},
      {"caf\u00e9 \U0001F600", "caf\u00e9 \U0001F600"},
  };
  for (const auto& c : cases) EXPECT_EQ(normalizeSentText(c.input), c.expected) << c.input;
}

// Stands in for Messages: every script run is recorded, and `onRun` may write
// the row Messages would write. The clock only moves when the sender sleeps.
class AppleScriptSenderTest : public ::testing::Test {
 protected:
  struct Run {
    std::string script;
    std::vector<std::string> args;
    double timeoutSec;
  };

  AppleScriptSenderTest() : builder(dir.file("chat.db")), chat(builder.oneToOne(kAlex)) {
    builder.message(chat, MessageSpec{.text = "older", .fromMe = true});
  }

  AppleScriptSender sender(bool withDatabase = true) {
    AppleScriptSender::Options o;
    o.runner = [this](std::string_view script, const std::vector<std::string>& args, double t) {
      runs.push_back({std::string(script), args, t});
      OsascriptResult r;
      if (results.size() >= runs.size()) r = results[runs.size() - 1];
      if (onRun) onRun(runs.back());
      return r;
    };
    if (withDatabase) o.chatDBPath = builder.path();
    o.log = [this](const std::string& line) { logs.push_back(line); };
    o.clockMs = [this] { return nowMs; };
    o.sleep = [this](double s) {
      sleeps.push_back(s);
      nowMs += static_cast<std::int64_t>(s * 1000);
      if (onSleep) onSleep();
    };
    return AppleScriptSender(std::move(o));
  }

  std::int64_t writeOutgoing(const std::string& text, std::int64_t error = 0,
                             const std::string& service = "iMessage") {
    return builder.message(chat, MessageSpec{.text = text, .fromMe = true, .service = service, .error = error});
  }

  TempDir dir;
  ChatDbBuilder builder;
  std::int64_t chat;
  std::vector<OsascriptResult> results;  // per run; success when missing
  std::function<void(const Run&)> onRun;
  std::function<void()> onSleep;
  std::vector<Run> runs;
  std::vector<std::string> logs;
  std::vector<double> sleeps;
  std::int64_t nowMs = 1000;
};

// Without a database, or with one that doesn't open, nothing is waited for.
TEST_F(AppleScriptSenderTest, WithoutDatabaseASuccessfulScriptIsUnverified) {
  std::filesystem::remove(builder.path());
  EXPECT_EQ(sender().send(kAlex, "hi"), (SendResult{true, "iMessage", false, std::nullopt}));
  runs.clear();
  const auto result = sender(false).send(kAlex, "hi there");
  EXPECT_EQ(result, (SendResult{true, "iMessage", false, std::nullopt}));
  ASSERT_EQ(runs.size(), 1u);
  EXPECT_EQ(runs[0].script, AppleScripts::iMessage);
  EXPECT_EQ(runs[0].args, (std::vector<std::string>{"hi there", kAlex}));
  EXPECT_EQ(runs[0].timeoutSec, 30);
  EXPECT_TRUE(sleeps.empty());
}

TEST_F(AppleScriptSenderTest, ConfirmedOnceTheRowStaysCleanForTheSettlePeriod) {
  onRun = [&](const Run&) { writeOutgoing("Hello\uFFFC   world"); };
  const auto result = sender().send(kAlex, "Hello world\n");
  EXPECT_EQ(result, (SendResult{true, "iMessage", true, std::nullopt}));
  // Seen at once, confirmed after 2 s of 0.5 s polls.
  EXPECT_EQ(sleeps, (std::vector<double>{0.5, 0.5, 0.5, 0.5}));
  EXPECT_TRUE(logs.empty());
}

TEST_F(AppleScriptSenderTest, AnErrorWrittenDuringSettleFailsTheAttempt) {
  std::int64_t row = 0;
  onRun = [&](const Run& run) {
    if (run.script == AppleScripts::iMessage) row = writeOutgoing("hi");
  };
  onSleep = [&] {
    if (sleeps.size() == 2) builder.db().run("UPDATE message SET error = 22 WHERE ROWID = ?", {row});
  };
  const auto result = sender().send(kAlex, "hi");
  // iMessage failed in Messages, so SMS was tried and nothing confirmed it.
  ASSERT_EQ(runs.size(), 2u);
  EXPECT_EQ(runs[1].script, AppleScripts::sms);
  EXPECT_EQ(logs.front(),
            "iMessage failed for " + kAlex + " (Messages reported send error 22 (iMessage)); trying SMS");
  EXPECT_EQ(result, (SendResult{true, "SMS", false, std::nullopt}));
  EXPECT_EQ(logs.back(), "sent via SMS but couldn't confirm it in chat.db within the timeout");
}

TEST_F(AppleScriptSenderTest, FallsBackToSMSWhenIMessageFails) {
  results = {{1, "", "execution error: Messages got an error: Can\u2019t get buddy. (-1728)"}, {}};
  onRun = [&](const Run& run) {
    if (run.script == AppleScripts::sms) writeOutgoing("hi", 0, "SMS");
  };
  const auto result = sender().send(kAlex, "hi");
  EXPECT_EQ(result, (SendResult{true, "SMS", true, std::nullopt}));
  ASSERT_EQ(runs.size(), 2u);
  EXPECT_EQ(runs[1].args, (std::vector<std::string>{"hi", kAlex}));
  ASSERT_EQ(logs.size(), 1u);
  EXPECT_TRUE(logs[0].starts_with("iMessage failed for " + kAlex + " (")) << logs[0];
}

// SMS is tried only for a phone number and a failure other than refused
// automation; when it fails too, both reasons are given.
TEST_F(AppleScriptSenderTest, FailedSends) {
  const struct {
    std::string handle;
    std::vector<OsascriptResult> results;
    std::string error;
  } cases[] = {
      {kAlex, {{1, "", "first problem"}, {1, "", ""}},
       "iMessage: " + Osascript::explain("first problem") + "; SMS: " + Osascript::explain("")},
      {"alex@example.org", {{1, "", "some failure"}}, Osascript::explain("some failure")},
      {kAlex, {{1, "", kAutomationStderr}}, Osascript::explain(kAutomationStderr)},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.error);
    runs.clear();
    logs.clear();
    results = c.results;
    const auto result = sender().send(c.handle, "hi");
    EXPECT_FALSE(result.ok);
    EXPECT_FALSE(result.verified);
    EXPECT_EQ(result.error, c.error);
    EXPECT_EQ(runs.size(), c.results.size());
    EXPECT_EQ(logs.size(), c.results.size() - 1);
  }
}

TEST_F(AppleScriptSenderTest, UnconfirmedWithinTimeoutStillCountsAsSent) {
  writeOutgoing("hi");  // the same text sent earlier is not this send
  const auto result = sender().send(kAlex, "hi");
  EXPECT_EQ(result, (SendResult{true, "iMessage", false, std::nullopt}));
  EXPECT_EQ(sleeps.size(), 21u);  // polls at 0, 0.5, ..., 10 s
  EXPECT_EQ(logs, std::vector<std::string>{
                      "sent via iMessage but couldn't confirm it in chat.db within the timeout"});
}

class FakeSenderTest : public ::testing::Test {
 protected:
  FakeSender sender(std::optional<std::string> file) {
    return FakeSender({.log = [this](const std::string& l) { logs.push_back(l); },
                       .logFile = std::move(file),
                       .nowMs = [] { return std::int64_t{1700000000123}; }});
  }
  TempDir dir;
  std::vector<std::string> logs;
};

// What is logged and written is the trimmed text that was checked.
TEST_F(FakeSenderTest, RecordsEverySendAsOneJSONLine) {
  const std::string path = dir.file("fake-sent.jsonl");
  std::ofstream(path) << "{\"earlier\":1}\n";
  auto fake = sender(path);
  EXPECT_EQ(fake.send(kAlex, " hi \"there\"\n"),
            (SendResult{true, "iMessage", false, std::nullopt}));
  EXPECT_EQ(fake.send("sam@example.org", "caf\u00e9"), (SendResult{true, "iMessage", false, std::nullopt}));
  const auto written = testing::linesOf(testing::readFile(path));
  ASSERT_EQ(written.size(), 3u);
  EXPECT_EQ(written[0], "{\"earlier\":1}");
  EXPECT_EQ(written[1],
            "{\"at\":\"2023-11-14T22:13:20.123Z\",\"handle\":\"+14155550100\","
            "\"text\":\"hi \\\"there\\\"\"}");
  EXPECT_EQ(nlohmann::json::parse(written[2])["text"], "caf\u00e9");
  EXPECT_EQ(logs, (std::vector<std::string>{"[fake-send] \u2192 " + kAlex + ": hi \"there\"",
                                            "[fake-send] \u2192 sam@example.org: caf\u00e9"}));
}

TEST_F(FakeSenderTest, EmptyTextIsRefusedAndNothingIsWritten) {
  const std::string path = dir.file("fake-sent.jsonl");
  auto fake = sender(path);
  EXPECT_EQ(fake.send(kAlex, " \n\t"), (SendResult{false, std::nullopt, false, "empty message"}));
  EXPECT_TRUE(logs.empty());
  EXPECT_FALSE(std::ifstream(path).good());
}

TEST_F(FakeSenderTest, UnwritableLogFileIsIgnored) {
  auto fake = sender(dir.file("no/such/dir/fake-sent.jsonl"));
  EXPECT_TRUE(fake.send(kAlex, "hi").ok);
}

}  // namespace
}  // namespace corvane
