// corvane-soak: runs the agent's daemon loop for a long time against a copy of
// a generated Messages database and the development server, with the world
// moving between cycles, and checks that the agent's process does not grow:
// resident memory, open descriptors and threads after the first 100 cycles.
//
// Linux only: the figures come from /proc/self.
#include <dirent.h>
#include <signal.h>
#include <sqlite3.h>
#if defined(__GLIBC__)
#include <malloc.h>
#endif

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/datasets.h"
#include "bench/soak_messages.h"
#include "bench/soak_server.h"
#include "core/api/api_client.h"
#include "core/contacts/contact_book.h"
#include "core/send/apple_script_sender.h"
#include "core/sync/heap.h"
#include "core/sync/state_store.h"
#include "core/sync/sync_engine.h"
#include "tests/support/temp_dir.h"
#include "tools/chatdb-gen/roster.h"

namespace corvane::bench {
namespace {

constexpr const char* kUsage =
    "usage: corvane-soak [--cycles N] [--messages N] [--data DIR] [--seed N] [--sends-every N]\n"
    "  --cycles N    daemon cycles to run (default 1000, at least 200)\n"
    "  --messages N  size of the generated database copied for the run (default 50000)\n"
    "  --data DIR    where generated databases are cached (default build/bench-data)\n"
    "  --seed N      seed of the arrivals, sends and faults (default 1)\n"
    "  --sends-every N  an approved text every N cycles (default 3; 0: only with the\n"
    "                faults on acknowledgements)\n";

constexpr int kReportEvery = 100;
constexpr std::int64_t kGrowthGoalKB = 1024;
constexpr std::size_t kRosterSize = 50;
constexpr std::size_t kStrangers = 20;
constexpr std::int64_t kPollSec = 60;
const std::string kRegion = "US";

struct Options {
  int cycles = 1000;
  std::int64_t messages = 50000;
  std::string data = "build/bench-data";
  unsigned seed = 1;
  int sendsEvery = 3;
};

// The process's own figures, from /proc/self.
struct Sample {
  std::int64_t rssKB = 0;
  std::int64_t fds = 0;
  std::int64_t threads = 0;
  std::int64_t heapKB = 0;  // allocated and not freed: finer than the resident set
  std::int64_t sqliteKB = 0;  // of which SQLite's (page caches, schemas, statements)
};

std::int64_t statusField(const std::string& name) {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind(name + ":", 0) == 0) return std::stoll(line.substr(name.size() + 1));
  }
  return -1;
}

Sample sample() {
  Sample s;
  s.rssKB = statusField("VmRSS");
  s.threads = statusField("Threads");
  if (DIR* dir = opendir("/proc/self/fd")) {
    while (const dirent* entry = readdir(dir)) {
      if (entry->d_name[0] != '.') ++s.fds;
    }
    closedir(dir);
    --s.fds;  // the listing's own descriptor
  }
#if defined(__GLIBC__)
  const struct mallinfo2 heap = mallinfo2();
  s.heapKB = static_cast<std::int64_t>((heap.uordblks + heap.hblkhd) / 1024);
#else
  s.heapKB = -1;
#endif
  s.sqliteKB = sqlite3_memory_used() / 1024;
  return s;
}

// Counts the cycles the daemon reported as failed: each failure is one warn
// or error line ending in " — retrying in Ns" (an unacknowledged outbox item
// is a warning too, but not a failed cycle).
class CountingLogger final : public SyncLogger {
 public:
  void info(const std::string&) override {}
  void warn(const std::string& message) override { note(message); }
  void error(const std::string& message) override { note(message); }

  // The failure line since the last take, or empty.
  std::string takeFailure() { return std::exchange(failure_, {}); }

 private:
  void note(const std::string& message) {
    if (message.find(" \u2014 retrying in ") != std::string::npos) failure_ = message;
  }
  std::string failure_;
};

// One fault per week of cycles, in turn at each stage of a cycle; those on
// the config, the upload and the outbox fail the cycle, one on the
// acknowledgement only delays it.
struct FaultPlan {
  Fault fault;
  const char* path;
  bool failsCycle;
};
constexpr int kFaultEvery = 7;
const FaultPlan kFaults[] = {
    {Fault::status500, "/api/agent/config", true},  {Fault::dropped, "/api/agent/sync", true},
    {Fault::status500, "/api/agent/outbox", true},  {Fault::dropped, "/api/agent/outbox/", false},
    {Fault::dropped, "/api/agent/config", true},    {Fault::status500, "/api/agent/sync", true},
};

Options parse(int argc, char** argv) {
  Options o;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--help" || arg == "-h") {
      std::fputs(kUsage, stdout);
      std::exit(0);
    }
    if (i + 1 >= argc) {
      std::fputs(kUsage, stderr);
      std::exit(64);
    }
    const std::string value = argv[++i];
    try {
      if (arg == "--cycles") {
        o.cycles = std::stoi(value);
      } else if (arg == "--messages") {
        o.messages = std::stoll(value);
      } else if (arg == "--data") {
        o.data = value;
      } else if (arg == "--sends-every") {
        o.sendsEvery = std::stoi(value);
      } else if (arg == "--seed") {
        o.seed = static_cast<unsigned>(std::stoul(value));
      } else {
        throw std::invalid_argument(arg);
      }
    } catch (const std::exception&) {
      std::fputs(kUsage, stderr);
      std::exit(64);
    }
  }
  if (o.cycles < 2 * kReportEvery || o.messages < 1000 || o.sendsEvery < 0) {
    std::fputs(kUsage, stderr);
    std::exit(64);
  }
  return o;
}

// Numbers for new correspondents, clear of the generator's and the user's own.
std::string newNumber(int n) {
  char buffer[32];
  std::snprintf(buffer, sizeof buffer, "+1312555%04d", n % 10000);
  return buffer;
}

class Soak {
 public:
  Soak(const Options& options, const std::string& chatDB, const chatdbgen::RosterSummary& roster,
       SoakServer& server)
      : options_(options),
        roster_(roster),
        server_(server),
        random_(options.seed),
        messages_(chatDB, kRegion, roster.ownHandles.at(0)) {
    for (std::size_t i = 0; i < roster_.roster.size(); ++i) {
      cards_.push_back(card(roster_.roster[i], "Friend", std::to_string(i)));
    }
    // A few people off the roster write now and then. They write once before
    // the run too, so that they are in the directory from the first cycle:
    // the directory then grows only by the new correspondents below, as it
    // would in a steady state where as many people fall out of its window as
    // come into it.
    const std::set<std::string> onRoster(roster_.roster.begin(), roster_.roster.end());
    std::vector<std::string> others;
    for (const auto& handle : messages_.handles()) {
      if (!onRoster.contains(handle) && handle != roster_.ownHandles.at(0)) others.push_back(handle);
    }
    std::shuffle(others.begin(), others.end(), random_);
    others.resize(std::min<std::size_t>(others.size(), kStrangers));
    if (others.empty()) throw std::runtime_error("the database has no one off the roster");
    for (const auto& handle : others) messages_.write(handle, "earlier", false, nowMs_ - 3'600'000);
    strangers_ = std::move(others);
  }

  int run(const std::string& chatDB, const std::string& home) {
    auto log = std::make_shared<CountingLogger>();
    AppleScriptSender::Options send;
    send.runner = messages_.sendScriptRunner([this] { return nowMs_; });
    send.chatDBPath = chatDB;
    send.verifyTimeoutSec = 10.0;
    send.settleSec = 2.0;
    send.pollSec = 0.5;
    // The sender's waits pass on a clock of its own, at once.
    send.clockMs = [this] { return senderClockMs_; };
    send.sleep = [this](double seconds) {
      senderClockMs_ += static_cast<std::int64_t>(seconds * 1000);
    };

    CycleDeps deps{.api = std::make_shared<APIClient>(server_.url(), std::string(SoakServer::token),
                                                      "corvane-soak/1"),
                   .chatDBPath = chatDB,
                   .store = std::make_shared<FileStateStore>(home),
                   .sender = std::make_shared<AppleScriptSender>(std::move(send)),
                   .contacts = nullptr,
                   .region = kRegion,
                   .dryRun = false,
                   .log = log,
                   .now = [this] { return nowMs_; }};
    SyncEngine::DaemonOptions daemon;
    // Reloaded every cycle rather than hourly, so that renamed cards reach
    // the directory at once and every cycle builds a book.
    daemon.contactsTTLSec = 0;
    daemon.loadContacts = [this] {
      return std::make_shared<const IndexedContactBook>(cards_, kRegion);
    };
    daemon.random = [this] { return std::uniform_real_distribution<double>(0, 1)(random_); };
    StopSource stop;
    daemon.sleep = [&](std::int64_t seconds) {
      between(seconds, *log);
      if (cycle_ >= options_.cycles) stop.requestStop();
    };

    std::printf("%6s %8s %5s %8s %8s %10s %6s %7s %9s %6s\n", "cycle", "rss kB", "fds", "threads",
                "heap kB", "sqlite kB", "ok", "failed", "uploaded", "sent");
    start_ = std::chrono::steady_clock::now();
    const int status = SyncEngine::runDaemon(std::move(deps), std::move(daemon), stop.token());
    if (status != 0) {
      std::printf("the daemon ended with status %d\n", status);
      return 1;
    }
    return verdict();
  }

 private:
  static IndexedContactBook::Entry card(const std::string& handle, const std::string& first,
                                        const std::string& last) {
    IndexedContactBook::Entry entry;
    entry.name = ContactName(first, last, std::nullopt, std::nullopt);
    (handle.find('@') == std::string::npos ? entry.phones : entry.emails).push_back(handle);
    return entry;
  }

  std::size_t pick(std::size_t n) { return std::uniform_int_distribution<std::size_t>(0, n - 1)(random_); }
  bool chance(int oneIn) { return pick(static_cast<std::size_t>(oneIn)) == 0; }

  // After each cycle: the figures, then what happens before the next one.
  void between(std::int64_t seconds, CountingLogger& log) {
    ++cycle_;
    nowMs_ += seconds * 1000;
    const std::string failure = log.takeFailure();
    bool expected = false;
    if (armed_) {
      const bool hit = server_.disarm();
      expected = hit && armed_->failsCycle;
      faultsHit_ += hit ? 1 : 0;
      armed_ = nullptr;
    }
    if (!failure.empty()) {
      ++failed_;
      if (!expected) {
        ++unexpected_;
        std::printf("cycle %d failed without a fault: %s\n", cycle_, failure.c_str());
      }
    } else if (expected) {
      ++unexpected_;
      std::printf("cycle %d succeeded through a fault that should have failed it\n", cycle_);
    }
    if (cycle_ % kReportEvery == 0) report();
    if (cycle_ < options_.cycles) changeTheWorld();
  }

  void changeTheWorld() {
    const int next = cycle_ + 1;
    const FaultPlan* fault = nullptr;
    // The last cycle runs clean, so the run ends with nothing left pending.
    if (next % kFaultEvery == 0 && next < options_.cycles) {
      fault = &kFaults[(next / kFaultEvery) % std::size(kFaults)];
    }
    const auto& roster = roster_.roster;

    // New messages in roster chats; always one when the upload is to fail.
    std::size_t arriving = pick(4);
    if (fault && fault->path == std::string("/api/agent/sync")) arriving = std::max<std::size_t>(arriving, 1);
    for (std::size_t i = 0; i < arriving; ++i) {
      const std::string text = "soak " + std::to_string(next) + "." + std::to_string(i);
      written_.push_back(messages_.write(roster[pick(roster.size())], text, chance(3), nowMs_));
    }
    // Someone off the roster, who reaches the directory only.
    if (chance(4)) {
      messages_.write(strangers_[pick(strangers_.size())], "outside " + std::to_string(next),
                      false, nowMs_);
    }
    // A message deleted, sometimes before the agent saw it.
    if (chance(10) && !written_.empty()) {
      const std::size_t at = written_.size() - 1 - pick(std::min<std::size_t>(written_.size(), 20));
      messages_.remove(written_[at]);
      written_.erase(written_.begin() + static_cast<std::ptrdiff_t>(at));
    }
    if (written_.size() > 100) written_.erase(written_.begin(), written_.begin() + 50);
    // Directory changes: a new correspondent, with a card half of the time,
    // and a renamed card.
    if (next % 25 == 0) {
      const std::string handle = newNumber(next / 25);
      messages_.write(handle, "hello from a new number", false, nowMs_);
      if (chance(2)) cards_.push_back(card(handle, "New", std::to_string(next)));
    }
    if (next % 10 == 5) {
      auto& entry = cards_[pick(cards_.size())];
      entry.name = ContactName(entry.name.firstName, entry.name.lastName,
                               "v" + std::to_string(next), std::nullopt);
    }
    // A note to self now and then, for the self channel.
    if (next % 20 == 0) {
      messages_.write(roster_.ownHandles.at(0), "note to self " + std::to_string(next), true, nowMs_);
    }
    // Texts approved on the website; one in ten is the assistant's reply
    // into the self chat.
    const bool ackFault = fault && !fault->failsCycle;
    if ((options_.sendsEvery > 0 && next % options_.sendsEvery == 0) || ackFault) {
      OutboxItem item{.id = "soak-" + std::to_string(next),
                      .handle = roster[pick(roster.size())],
                      .text = "approved text " + std::to_string(next),
                      .kind = OutboxItem::Kind::user};
      if (next % 30 == 0) {
        item.handle = roster_.ownHandles.at(0);
        item.kind = OutboxItem::Kind::assistant;
      }
      server_.addOutbox(item);
    }
    if (fault) {
      server_.arm(fault->fault, fault->path);
      armed_ = fault;
    }
  }

  void report() {
    const Sample now = sample();
    const ServerCounts counts = server_.counts();
    std::printf("%6d %8lld %5lld %8lld %8lld %10lld %6d %7d %9lld %6lld\n", cycle_,
                static_cast<long long>(now.rssKB), static_cast<long long>(now.fds),
                static_cast<long long>(now.threads), static_cast<long long>(now.heapKB),
                static_cast<long long>(now.sqliteKB), cycle_ - failed_, failed_,
                static_cast<long long>(counts.messages), static_cast<long long>(counts.sent));
    std::fflush(stdout);
    if (cycle_ == kReportEvery) baseline_ = now;
    last_ = now;
    lastCounts_ = counts;
  }

  int verdict() {
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
    double load[3] = {0, 0, 0};
    getloadavg(load, 3);
    std::printf("%d cycles in %.0f s (%.1f ms a cycle), load average %.2f %.2f %.2f\n", cycle_,
                seconds, 1000 * seconds / cycle_, load[0], load[1], load[2]);
    std::printf("%d faults injected and met, %d cycles failed; outbox: %lld sent, %lld failed, "
                "%lld pending\n",
                faultsHit_, failed_, static_cast<long long>(lastCounts_.sent),
                static_cast<long long>(lastCounts_.failed), static_cast<long long>(lastCounts_.pending));

    bool ok = true;
    const auto goal = [&](const char* what, std::int64_t growth, std::int64_t limit,
                          const char* unit) {
      const bool met = growth <= limit;
      std::printf("%-16s %+lld%s after cycle %d (goal at most %lld%s): %s\n", what,
                  static_cast<long long>(growth), unit, kReportEvery, static_cast<long long>(limit),
                  unit, met ? "met" : "MISSED");
      if (!met) {
        std::printf("  missed by %lld%s\n", static_cast<long long>(growth - limit), unit);
        ok = false;
      }
    };
    goal("resident memory", last_.rssKB - baseline_.rssKB, kGrowthGoalKB, " kB");
    goal("descriptors", last_.fds - baseline_.fds, 0, "");
    goal("threads", last_.threads - baseline_.threads, 0, "");
    std::printf("%-16s %+lld kB after cycle %d, of which SQLite %+lld kB (no goal: where growth "
                "would show first)\n",
                "heap in use", static_cast<long long>(last_.heapKB - baseline_.heapKB), kReportEvery,
                static_cast<long long>(last_.sqliteKB - baseline_.sqliteKB));

    // A soak that didn't exercise the agent proves nothing.
    if (unexpected_ > 0) {
      std::printf("%d cycles did not fail or succeed as their fault said\n", unexpected_);
      ok = false;
    }
    if (faultsHit_ == 0 || lastCounts_.sent == 0 || lastCounts_.failed != 0 ||
        lastCounts_.pending != 0) {
      std::printf("the run did not go as planned: no fault met, nothing sent, or an outbox item "
                  "failed or left pending\n");
      ok = false;
    }
    return ok ? 0 : 1;
  }

  const Options& options_;
  const chatdbgen::RosterSummary& roster_;
  SoakServer& server_;
  std::mt19937_64 random_;
  MessagesApp messages_;
  std::vector<IndexedContactBook::Entry> cards_;
  std::vector<std::int64_t> written_;  // recent roster rows, candidates for deletion
  std::vector<std::string> strangers_;  // who writes from off the roster
  std::int64_t nowMs_ = kEndMs;        // the agent's clock, moved by the daemon's waits
  std::int64_t senderClockMs_ = 0;
  const FaultPlan* armed_ = nullptr;
  int cycle_ = 0, failed_ = 0, unexpected_ = 0, faultsHit_ = 0;
  Sample baseline_, last_;
  ServerCounts lastCounts_;
  std::chrono::steady_clock::time_point start_;
};

int soak(const Options& options) {
  if (sample().rssKB < 0) {
    std::fprintf(stderr, "corvane-soak reads /proc/self, which this system lacks (Linux only)\n");
    return 1;
  }
  // As the agent's entry point does: the allocator set for a resident, and a
  // server gone mid-request an error, not the end of the process.
  Heap::configureForResident();
  signal(SIGPIPE, SIG_IGN);

  const std::string generated = ensureDatabase(options.data, options.messages);
  const auto roster = chatdbgen::readRoster(generated, kRosterSize);
  const AgentConfig config{.protocolVersion = 1,
                           .rosterHandles = roster.roster,
                           .backfillDays = 30,
                           .directoryDays = 30,
                           .pollIntervalSec = kPollSec,
                           .selfChannel = {.enabled = true, .handles = roster.ownHandles},
                           .plan = "soak"};
  // Started before this process has any thread of its own.
  // This program by its real path, which tools such as valgrind can follow.
  SoakServer server(std::filesystem::read_symlink("/proc/self/exe").string(), config);

  testing::TempDir work;
  const std::string chatDB = work.file("chat.db");
  std::filesystem::copy_file(generated, chatDB);
  std::printf("corvane-soak: %d cycles on a copy of %s (%lld messages), roster of %zu, poll %lld s "
              "of simulated time, a send every %d cycles, seed %u\n",
              options.cycles, generated.c_str(), static_cast<long long>(options.messages),
              roster.roster.size(), static_cast<long long>(kPollSec), options.sendsEvery,
              options.seed);
  std::printf("the server runs in a child process: the figures are the agent's process alone "
              "(with the soak's Messages stand-in, a little SQLite)\n");
  Soak soak(options, chatDB, roster, server);
  return soak.run(chatDB, work.file("home"));
}

}  // namespace
}  // namespace corvane::bench

int main(int argc, char** argv) {
  using namespace corvane::bench;
  if (argc >= 2 && std::string(argv[1]) == kServerChildFlag) {
    return soakServerChild(argc - 2, argv + 2);
  }
  try {
    return soak(parse(argc, argv));
  } catch (const std::exception& e) {
    std::fprintf(stderr, "corvane-soak: %s\n", e.what());
    return 1;
  }
}
