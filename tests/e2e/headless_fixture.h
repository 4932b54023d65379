// The fixture of the end-to-end tests: the real Corvane executable in
// headless mode, with a Messages database and a home, user home and XDG
// directories of the test's own, against corvane-devserver (or a scripted
// server) on 127.0.0.1.
#pragma once

#include <gtest/gtest.h>
#include <httplib.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <regex>
#include <set>
#include <stdexcept>

#include "tests/e2e/child_process.h"
#include "tools/chatdb-gen/chat_db_builder.h"

namespace corvane::e2e {

namespace fs = std::filesystem;
using nlohmann::json;
using chatdbgen::ChatDbBuilder;
using testing::ChildProcess;
using testing::describe;
using testing::ExitStatus;
using chatdbgen::MessageSpec;
using testing::readFile;
using testing::TempDir;
using Stream = ChildProcess::Stream;

inline constexpr std::int64_t kDayMs = 86'400'000;
inline const std::string kToken = "e2e-device-token";
inline const std::string kAlex = "+14155550100";
inline const std::string kStranger = "+14155550777";
inline const std::string kConfigRequest = "GET /api/agent/config";

// The messages of the log, each without its "[time] " prefix.
inline std::vector<std::string> logMessages(const std::string& err) {
  static const std::regex kPrefix(R"(^\[\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z\] )");
  std::vector<std::string> out;
  for (const auto& line : testing::linesOf(err)) {
    std::smatch m;
    out.push_back(std::regex_search(line, m, kPrefix) ? m.suffix().str() : line);
  }
  return out;
}

// Everything below a directory, as relative paths.
inline std::vector<std::string> contentsOf(const fs::path& dir) {
  std::vector<std::string> out;
  for (const auto& entry : fs::recursive_directory_iterator(dir)) {
    out.push_back(entry.path().lexically_relative(dir).string());
  }
  return out;
}

inline std::multiset<std::string> fieldOf(const json& records, const char* key) {
  std::multiset<std::string> out;
  for (const auto& r : records) out.insert(r.at(key).get<std::string>());
  return out;
}

// corvane-devserver on a free loopback port. Killed with the object.
class DevServer {
 public:
  DevServer(const std::string& binary, std::vector<std::string> args,
            const std::vector<std::string>& environment)
      : process_(binary, (args.insert(args.begin(), {"--port", "0"}), args), environment) {
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

  // The request log with every request answered so far: a line may reach the
  // file after the agent has its answer, so a request of our own marks the
  // point to wait for.
  std::string log() {
    static const std::string kStateRequest = "GET /dev/state";
    const std::size_t before = requestsSeen(kStateRequest);
    state();
    waitForRequest(kStateRequest, before + 1);
    return process_.out();
  }

 private:
  ChildProcess process_;
  std::string url_;
};

struct AgentRun {
  std::optional<ExitStatus> status;
  std::string out;
  std::string err;
  std::optional<long> peakKiB;  // peak resident size
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
    // A sanitizer build's settings and suppressions hold for the agent too.
    for (const char* name : {"ASAN_OPTIONS", "LSAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS"}) {
      if (const char* value = std::getenv(name)) env.push_back(std::string(name) + "=" + value);
    }
    return env;
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

  // A run to its end; `prefix`, when given, is a program that runs the agent
  // (with its path and arguments after the prefix's own).
  AgentRun corvane(const std::vector<std::string>& args,
                   std::optional<std::string> envToken = std::nullopt,
                   std::vector<std::string> prefix = {}) const {
    auto child = startCorvane(args, std::move(envToken), std::move(prefix));
    AgentRun run;
    run.status = child->wait();
    run.out = child->out();
    run.err = child->spawnError() + child->err();
    run.peakKiB = child->peakResidentKiB();
    return run;
  }

  // Corvane with `args` as its whole command line: no "--headless" added,
  // and, as in every run here, no display.
  AgentRun corvaneCommand(const std::vector<std::string>& args) const {
    ChildProcess child(corvane_.string(), args, environment());
    AgentRun run;
    run.status = child.wait();
    run.out = child.out();
    run.err = child.spawnError() + child.err();
    return run;
  }

  std::unique_ptr<ChildProcess> startCorvane(const std::vector<std::string>& args,
                                             std::optional<std::string> envToken = std::nullopt,
                                             std::vector<std::string> prefix = {}) const {
    prefix.push_back(corvane_.string());
    prefix.push_back("--headless");
    prefix.insert(prefix.end(), args.begin(), args.end());
    const std::string binary = prefix.front();
    prefix.erase(prefix.begin());
    return std::make_unique<ChildProcess>(binary, prefix, environment(std::move(envToken)));
  }

  // Throws, which fails the test, when the server doesn't come up.
  std::unique_ptr<DevServer> devServer(std::vector<std::string> args) const {
    auto server = std::make_unique<DevServer>(devserver_.string(), std::move(args), environment());
    if (server->url().empty()) {
      throw std::runtime_error("corvane-devserver didn't start: " + server->failure());
    }
    return server;
  }

  json state() const { return json::parse(readFile(stateFile())); }

  // Lines of fake-sent.jsonl, decoded.
  std::vector<json> sentRecords() const {
    std::vector<json> out;
    for (const auto& line : testing::linesOf(readFile(fakeSent()))) {
      out.push_back(json::parse(line));
    }
    return out;
  }

  std::int64_t messageAt(ChatDbBuilder& db, std::int64_t chat, const std::string& text,
                         std::int64_t ageMs) {
    return db.message(chat, MessageSpec{.text = text, .dateMs = now_ - ageMs});
  }

  const std::int64_t now_ = std::chrono::duration_cast<std::chrono::milliseconds>(
                                std::chrono::system_clock::now().time_since_epoch())
                                .count();
  TempDir tmp_;
  fs::path corvane_, devserver_;
};

}  // namespace corvane::e2e

#define ASSERT_EXIT_CODE(run, expected)                                                     \
  do {                                                                                      \
    ASSERT_TRUE((run).status.has_value()) << "Corvane did not finish\n" << (run).err;       \
    ASSERT_EQ(*(run).status, ExitStatus::exit(expected)) << describe(*(run).status) << "\n" \
                                                         << (run).err;                      \
  } while (0)
