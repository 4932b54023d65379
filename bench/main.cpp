// corvane-bench: what the agent's reads and sync cycles cost on generated
// Messages databases of several sizes, against the floor of the same SQL
// stepped with raw SQLite. bench/README.md says how to run it and read it.
#include <sqlite3.h>
#include <sys/utsname.h>

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "bench/bench_server.h"
#include "bench/cycles.h"
#include "bench/datasets.h"
#include "bench/report.h"
#include "bench/sql_floor.h"
#include "bench/timing.h"
#include "core/chatdb/chat_db.h"
#include "core/chatdb/directory_cache.h"
#include "core/protocol/wire_json.h"
#include "tests/support/temp_dir.h"
#include "tools/chatdb-gen/roster.h"

namespace corvane::bench {
namespace {

constexpr std::size_t kRosterSize = 200;
constexpr std::int64_t kBackfillDays = 30;
constexpr std::int64_t kDirectoryDays = 365;
constexpr std::size_t kJSONBatch = 2000;
// The memory target is stated for a first cycle that backfills this many.
constexpr std::int64_t kMemoryBackfill = 100000;
constexpr std::size_t kMemoryRuns = 3;
// Later than every generated date, so nothing counts as new, and well within
// the six hours after which the directory is sent again in full.
constexpr std::int64_t kIdleLaterMs = 60000;

constexpr const char* kUsage =
    "Usage: corvane-bench [--data DIR] [--sizes 10k,100k,1M] [--runs N] [--only extraction]\n"
    "\n"
    "Times the agent's reads and sync cycles on generated Messages databases against\n"
    "the same SQL stepped with raw SQLite, and prints one table per size and the\n"
    "targets. bench/README.md says how to read them.\n"
    "\n"
    "  --data DIR    where the databases are generated and kept (build/bench-data)\n"
    "  --sizes LIST  message counts, k and M allowed (10k,100k,1M); the targets are\n"
    "                checked on the last\n"
    "  --runs N      timed runs per figure (15 up to 10k, 9 up to 100k, 5 above)\n"
    "  --only extraction\n"
    "                only the messagesAfter and messagesSince lines (for profiling)\n";

struct Options {
  bool help = false;
  std::string dataDir = "build/bench-data";
  std::vector<std::int64_t> sizes = {10000, 100000, 1000000};
  std::optional<std::size_t> runs;
  bool onlyExtraction = false;
};

std::string sizeName(std::int64_t n) {
  if (n % 1000000 == 0) return std::to_string(n / 1000000) + "M";
  if (n % 1000 == 0) return std::to_string(n / 1000) + "k";
  return std::to_string(n);
}

std::int64_t parseSize(const std::string& text) {
  std::size_t used = 0;
  const long long n = std::stoll(text, &used);
  const std::string unit = text.substr(used);
  if (unit.empty()) return n;
  if (unit == "k" || unit == "K") return n * 1000;
  if (unit == "m" || unit == "M") return n * 1000000;
  throw std::invalid_argument("bad size " + text);
}

Options parseOptions(int argc, char** argv) {
  Options o;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    const auto value = [&]() -> std::string {
      if (i + 1 >= argc) throw std::invalid_argument(arg + " needs a value");
      return argv[++i];
    };
    if (arg == "--data") {
      o.dataDir = value();
    } else if (arg == "--sizes") {
      o.sizes.clear();
      const std::string list = value();
      for (std::size_t start = 0; start <= list.size();) {
        const std::size_t comma = std::min(list.find(',', start), list.size());
        o.sizes.push_back(parseSize(list.substr(start, comma - start)));
        start = comma + 1;
      }
    } else if (arg == "--runs") {
      o.runs = std::stoul(value());
    } else if (arg == "--only") {
      if (value() != "extraction") throw std::invalid_argument("--only takes extraction");
      o.onlyExtraction = true;
    } else if (arg == "--help" || arg == "-h") {
      o.help = true;
    } else {
      throw std::invalid_argument("unknown option " + arg + " (see --help)");
    }
  }
  return o;
}

// Enough runs for a stable median, few enough that the largest size stays
// within the time budget.
std::size_t defaultRuns(std::int64_t messages) {
  return messages <= 10000 ? 15 : messages <= 100000 ? 9 : 5;
}

std::string loadAverage() {
  std::ifstream in("/proc/loadavg");
  double one = 0, five = 0, fifteen = 0;
  in >> one >> five >> fifteen;
  char buf[64];
  std::snprintf(buf, sizeof buf, "%.2f %.2f %.2f", one, five, fifteen);
  return buf;
}

void printMachine() {
  std::string cpu = "unknown CPU";
  std::ifstream info("/proc/cpuinfo");
  for (std::string line; std::getline(info, line);) {
    if (line.rfind("model name", 0) == 0) {
      cpu = line.substr(line.find(':') + 2);
      break;
    }
  }
  long long memKB = 0;
  std::ifstream meminfo("/proc/meminfo");
  for (std::string line; std::getline(meminfo, line);) {
    if (line.rfind("MemTotal:", 0) == 0) memKB = std::stoll(line.substr(9));
  }
  utsname u{};
  uname(&u);
  std::printf("machine: %s, %u cores, %.1f GB RAM, %s %s\n", cpu.c_str(),
              std::thread::hardware_concurrency(), static_cast<double>(memKB) / 1048576, u.sysname,
              u.release);
  std::printf("build:   %s, compiler %s, SQLite %s\n", CORVANE_BENCH_BUILD_TYPE, __VERSION__,
              sqlite3_libversion());
  std::printf("load:    %s at start (1, 5, 15 min)\n", loadAverage().c_str());
}

std::vector<std::string> statementsOf(ChatDB& db, const std::function<void()>& op) {
  std::vector<std::string> seen;
  db.setStatementObserver([&](const std::string& sql) { seen.push_back(sql); });
  op();
  db.setStatementObserver(nullptr);
  return seen;
}

// The floor is only a floor if it runs exactly the agent's statements.
void requireSameStatements(const std::string& what, const std::vector<std::string>& agent,
                           SqlFloor& floor, const std::function<void()>& floorOp) {
  floor.clearStatements();
  floorOp();
  if (floor.statements() != agent) {
    throw std::runtime_error("the floor of " + what + " runs " +
                             std::to_string(floor.statements().size()) + " statements, the agent " +
                             std::to_string(agent.size()) + ", or their texts differ");
  }
}

// Checks that `floorOp` runs the statements `agentOp` runs, then times the
// two alternately. `agentOp` returns how many items it read, kept in `count`.
MeasuredPair againstFloor(const std::string& what, ChatDB& db, SqlFloor& floor, std::size_t runs,
                          const std::function<std::size_t()>& agentOp,
                          const std::function<void()>& floorOp, std::size_t& count) {
  requireSameStatements(what, statementsOf(db, [&] { agentOp(); }), floor, floorOp);
  return measurePair(
      runs,
      [&] {
        count = agentOp();
        return 0.0;
      },
      [&] {
        floorOp();
        return 0.0;
      });
}

AgentConfig cycleConfig(const chatdbgen::RosterSummary& roster, std::int64_t backfillDays) {
  return AgentConfig{.protocolVersion = 1,
                     .rosterHandles = roster.roster,
                     .backfillDays = backfillDays,
                     .directoryDays = kDirectoryDays,
                     .pollIntervalSec = 60,
                     .selfChannel = {.enabled = true, .handles = roster.ownHandles},
                     .plan = "free"};
}

std::vector<std::int64_t> paramsOf(const ChatDB::ChatMap& chats, std::int64_t a, std::int64_t b) {
  std::vector<std::int64_t> params;
  for (const auto& [id, _] : chats) params.push_back(id);
  params.push_back(a);
  params.push_back(b);
  return params;
}

std::string ratioOf(double agent, double floor) { return floor > 0 ? times(agent / floor) : ""; }

// The agent's median over the floor's, and the spread of the runs' own ratios.
Figure figureOf(const MeasuredPair& m, std::size_t runs) {
  return {m.agent.wall.median / m.floor.wall.median, m.ratio.min, m.ratio.max, runs};
}

Line timeLine(std::string figure, const MeasuredPair& m) {
  return {std::move(figure), timeRange(m.agent.wall), timeRange(m.floor.wall),
          ratioOf(m.agent.wall.median, m.floor.wall.median)};
}

struct MemoryFigure {
  Stats peakKB, addedKB;
  double jsonBytes = 0;
  std::int64_t messages = 0;
};

MemoryFigure measureMemory(const std::string& self, BenchServer& server, const std::string& path) {
  std::vector<double> peak, added, json;
  MemoryFigure m;
  for (std::size_t i = 0; i < kMemoryRuns; ++i) {
    server.resetCounts();
    const PeakMemory p = firstCyclePeakMemory(self, server, path, kEndMs);
    peak.push_back(static_cast<double>(p.peakKB));
    added.push_back(static_cast<double>(p.peakKB - p.baselineKB));
    m.jsonBytes = static_cast<double>(server.syncBytes());
    m.messages = p.messages;
  }
  m.peakKB = summarize(peak);
  m.addedKB = summarize(added);
  return m;
}

Line memoryLine(std::string figure, const MemoryFigure& m) {
  const auto mb = [](double kb) { return megabytes(kb * 1024); };
  return {std::move(figure),
          mb(m.peakKB.median) + " [" + mb(m.peakKB.min) + " \u2013 " + mb(m.peakKB.max) +
              "], cycle added " + mb(m.addedKB.median),
          "JSON uploaded " + megabytes(m.jsonBytes), ratioOf(m.addedKB.median * 1024, m.jsonBytes)};
}

// What the targets are checked on, from the size they are stated for.
struct TargetFigures {
  std::int64_t size = 0;
  Figure extraction, directory, idle, upload;
  // Cycles that keep the directory between them, against the directory floor.
  Figure cachedUnchanged, cachedNewMessage, cachedDeleted, cachedFirst;
  std::optional<MemoryFigure> memory;
};

// Cycles of an agent that keeps its directory between cycles (the daemon and
// the application do), on a copy of the database that the benchmark changes
// between runs as the Messages application would. The floor is the idle
// cycle's: the directory statements and maxRowId on the original.
void cachedCycles(const std::string& path, BenchServer& server, std::size_t runs,
                  std::int64_t chat, const Operation& floorOp,
                  std::vector<Line>& lines, TargetFigures& result) {
  testing::TempDir work;
  const std::string copy = work.file("chat.db");
  std::filesystem::copy_file(path, copy);
  SQLiteDB writer(copy, /*readOnly=*/false);
  testing::TempDir stateDir;
  CycleRunner runner(server.url(), copy, stateDir.path());
  const auto cache = std::make_shared<DirectoryCache>();
  runner.useDirectoryCache(cache);
  std::int64_t nowMs = kEndMs + kIdleLaterMs;
  runner.run(nowMs);

  // Each timed cycle must have taken the path its line names.
  const auto cycleExpecting = [&](DirectoryCache::Refresh expected, const char* what) {
    return [&, expected, what] {
      runner.run(nowMs);
      if (cache->lastRefresh() != expected) {
        throw std::runtime_error(std::string("the cached cycle after ") + what +
                                 " did not take the expected path");
      }
      return 0.0;
    };
  };
  const auto line = [&](const std::string& figure, const MeasuredPair& m, Figure& ratio) {
    lines.push_back(timeLine(figure, m));
    ratio = figureOf(m, runs);
  };

  line("cached cycle, database unchanged (floor: directory + maxRowId)",
       measurePair(runs, cycleExpecting(DirectoryCache::Refresh::unchanged, "no change"), floorOp),
       result.cachedUnchanged);

  std::int64_t guid = 0;
  const auto arrive = [&] {
    nowMs += 60000;
    const std::int64_t date = ChatDB::toAppleNanos(nowMs);
    const std::int64_t rowid = writer.run(
        "INSERT INTO message (guid, text, date, is_from_me, service) VALUES (?, ?, ?, 0, ?)",
        {"bench-new-" + std::to_string(++guid), "a new message", date, "iMessage"});
    writer.run("INSERT INTO chat_message_join (chat_id, message_id, message_date) VALUES (?, ?, ?)",
               {chat, rowid, date});
  };
  line("cached cycle, one new message in one chat",
       measurePair(runs, cycleExpecting(DirectoryCache::Refresh::incremental, "a new message"),
                   floorOp, arrive),
       result.cachedNewMessage);

  // Older messages of the same chat, one deleted before each run.
  std::vector<std::int64_t> victims;
  for (const auto& row : writer.query(
           "SELECT message_id AS id FROM chat_message_join WHERE chat_id = ? ORDER BY message_id "
           "LIMIT ?",
           {chat, static_cast<std::int64_t>(runs + 1)})) {
    victims.push_back(row["id"].int64().value_or(0));
  }
  const auto remove = [&] {
    if (victims.empty()) throw std::runtime_error("no message left to delete");
    const std::int64_t id = victims.back();
    victims.pop_back();
    writer.run("DELETE FROM message WHERE ROWID = ?", {id});
    writer.run("DELETE FROM chat_message_join WHERE message_id = ?", {id});
    nowMs += 60000;
  };
  line("cached cycle, one message deleted",
       measurePair(runs, cycleExpecting(DirectoryCache::Refresh::incremental, "a deletion"),
                   floorOp, remove),
       result.cachedDeleted);

  line("cached cycle, first after start (nothing cached)",
       measurePair(runs, cycleExpecting(DirectoryCache::Refresh::full, "a start"), floorOp,
                   [&] { cache->clear(); }),
       result.cachedFirst);
}

TargetFigures benchSize(const Options& options, const std::string& self, BenchServer& server,
                        std::int64_t messages, bool largest) {
  const std::string path = ensureDatabase(options.dataDir, messages);
  const std::size_t runs = options.runs.value_or(defaultRuns(messages));
  TargetFigures result;
  result.size = messages;

  ChatDB db(path, std::string("US"));
  SqlFloor floor(path);
  const std::int64_t upTo = db.maxRowId();
  const auto chats = db.oneToOneChats();
  ChatDB::ChatMap every;
  for (const auto& c : chats) {
    if (c.handle) every.emplace(c.chatId, *c.handle);
  }
  const auto roster = chatdbgen::readRoster(path, kRosterSize);
  const auto rosterChats = db.chatsForHandles(roster.roster, chats);
  const std::int64_t since30 = kEndMs - kBackfillDays * SyncEngine::dayMs;
  const std::int64_t since365 = kEndMs - kDirectoryDays * SyncEngine::dayMs;
  const std::int64_t idleNow = kEndMs + kIdleLaterMs;
  const std::int64_t idleSince365 = idleNow - kDirectoryDays * SyncEngine::dayMs;
  const auto afterParams = paramsOf(every, 0, upTo);
  const auto sinceParams = paramsOf(rosterChats, since30, upTo);
  const std::string maxSQL = statementsOf(db, [&] { db.maxRowId(); }).front();
  const EmptyContactBook noContacts;
  std::vector<Line> lines;
  const auto printLines = [&] {
    printTable("== " + sizeName(messages) + " messages (" + path + "): " +
                   grouped(static_cast<long long>(every.size())) +
                   " one-to-one chats, roster of " + std::to_string(roster.roster.size()) +
                   "; median [min \u2013 max] of " + std::to_string(runs) + " runs; load now " +
                   loadAverage(),
               lines);
    std::fflush(stdout);
  };

  // Extraction of everything, and the 30-day backfill of the roster.
  std::size_t extractedCount = 0, backfillCount = 0, entries = 0, unused = 0;
  const auto extraction = againstFloor(
      "messagesAfter", db, floor, runs, [&] { return db.messagesAfter(every, 0, upTo).size(); },
      [&] { floor.extraction(db, afterWhere(every.size()), afterParams); }, extractedCount);
  lines.push_back(timeLine("messagesAfter, every 1:1 chat from 0 (" +
                               grouped(static_cast<long long>(extractedCount)) + " msgs)",
                           extraction));
  lines.push_back({"messagesAfter, CPU of the agent's thread", timeRange(extraction.agent.cpu),
                   timeRange(extraction.floor.cpu),
                   ratioOf(extraction.agent.cpu.median, extraction.floor.cpu.median)});
  result.extraction = figureOf(extraction, runs);

  const auto backfillFloor = [&] {
    floor.extraction(db, sinceWhere(rosterChats.size()), sinceParams);
  };
  const auto since = againstFloor(
      "messagesSince", db, floor, runs,
      [&] { return db.messagesSince(rosterChats, since30, upTo).size(); }, backfillFloor,
      backfillCount);
  lines.push_back(timeLine("messagesSince, 30 days, " + std::to_string(roster.roster.size()) +
                               " handles (" + grouped(static_cast<long long>(backfillCount)) +
                               " msgs)",
                           since));
  if (options.onlyExtraction) {
    printLines();
    return result;
  }

  // The directory, and maxRowId (the rest of an idle cycle's floor).
  const auto dir = againstFloor(
      "buildDirectory", db, floor, runs,
      [&] { return db.buildDirectory(since365, noContacts, {}).size(); },
      [&] { floor.directory(db, since365); }, entries);
  lines.push_back(timeLine(
      "buildDirectory, 365 days (" + grouped(static_cast<long long>(entries)) + " entries)", dir));
  result.directory = figureOf(dir, runs);
  const auto rowId = againstFloor(
      "maxRowId", db, floor, runs, [&] { return static_cast<std::size_t>(db.maxRowId()); },
      [&] { floor.run(maxSQL, {}); }, unused);
  lines.push_back(timeLine("maxRowId", rowId));

  // Whole cycles against the loopback server.
  server.setConfig(cycleConfig(roster, kBackfillDays));
  testing::TempDir stateDir;
  CycleRunner runner(server.url(), path, stateDir.path());

  runner.forgetState();
  runner.run(kEndMs);
  const auto idle = measurePair(
      runs,
      [&] {
        const CycleResult r = runner.run(idleNow);
        if (r.sync.batches != 0) throw std::runtime_error("the idle cycle uploaded something");
        return 0.0;
      },
      [&] {
        floor.directory(db, idleSince365);
        floor.run(maxSQL, {});
        return 0.0;
      });
  lines.push_back(timeLine("idle cycle, wall (floor: directory + maxRowId)", idle));
  lines.push_back({"idle cycle, CPU of the agent's thread", timeRange(idle.agent.cpu),
                   timeRange(idle.floor.cpu),
                   ratioOf(idle.agent.cpu.median, idle.floor.cpu.median)});
  result.idle = figureOf(idle, runs);

  cachedCycles(path, server, runs, rosterChats.begin()->first,
               [&] {
                 floor.directory(db, idleSince365);
                 floor.run(maxSQL, {});
                 return 0.0;
               },
               lines, result);

  server.resetCounts();
  runner.forgetState();
  const CycleResult firstResult = runner.run(kEndMs);
  runner.takeSyncSeconds();
  const double uploadBytes = static_cast<double>(server.syncBytes());
  const auto first = measurePair(
      runs,
      [&] {
        runner.forgetState();
        runner.run(kEndMs);
        return runner.takeSyncSeconds();
      },
      [&] {
        // Every statement a first cycle runs: the cursor, the chats, the
        // directory (which reads the chats again) and the backfill.
        floor.run(maxSQL, {});
        floor.run(db.oneToOneChatsSQL(), {});
        floor.directory(db, since365);
        backfillFloor();
        return 0.0;
      });
  lines.push_back(timeLine("first cycle, 30-day backfill, wall (" +
                               grouped(firstResult.sync.messages) + " msgs, " +
                               grouped(firstResult.sync.directory) + " entries)",
                           first));
  lines.push_back({"first cycle, CPU of the agent's thread", timeRange(first.agent.cpu),
                   timeRange(first.floor.cpu),
                   ratioOf(first.agent.cpu.median, first.floor.cpu.median)});
  lines.push_back({"  of which encoding + upload (" + grouped(firstResult.sync.batches) +
                       " requests, " + megabytes(uploadBytes) + ")",
                   timeRange(first.agent.extra), "vs messagesSince above",
                   ratioOf(first.agent.extra.median, since.agent.wall.median)});
  const double sinceMedian = since.agent.wall.median;
  result.upload = {first.agent.extra.median / sinceMedian, first.agent.extra.min / sinceMedian,
                   first.agent.extra.max / sinceMedian, runs};

  // JSON encoding of one upload batch.
  SyncRequest batch;
  batch.cursor = upTo;
  for (const auto& m : db.messagesAfter(every, 0, upTo)) {
    if (batch.messages.size() == kJSONBatch) break;
    batch.messages.push_back(m.message);
  }
  std::size_t jsonBytes = 0;
  const auto json = measure(runs * 3, [&] {
    jsonBytes = encodeJSON(batch).size();
    return 0.0;
  });
  const double extractSame = extraction.agent.wall.median *
                             static_cast<double>(batch.messages.size()) /
                             static_cast<double>(std::max<std::size_t>(extractedCount, 1));
  lines.push_back({"JSON encoding, " + grouped(static_cast<long long>(batch.messages.size())) +
                       " msgs (" + megabytes(static_cast<double>(jsonBytes)) + ")",
                   timeRange(json.wall), "vs extracting as many",
                   ratioOf(json.wall.median, extractSame)});

  // Peak memory of a first cycle, each in a fresh process.
  lines.push_back(
      memoryLine("peak memory, first cycle, 30-day backfill", measureMemory(self, server, path)));
  if (largest) {
    // Enough days of the roster's history for about 100k messages (all of
    // it when the database is smaller).
    const double perDay = static_cast<double>(backfillCount) / kBackfillDays;
    const auto days = static_cast<std::int64_t>(
        std::min(800.0, perDay > 0 ? std::ceil(kMemoryBackfill / perDay) : 800.0));
    server.setConfig(cycleConfig(roster, days));
    result.memory = measureMemory(self, server, path);
    lines.push_back(memoryLine("peak memory, first cycle, " + std::to_string(days) +
                                   "-day backfill (" + grouped(result.memory->messages) + " msgs)",
                               *result.memory));
  }

  printLines();
  return result;
}

}  // namespace

int run(int argc, char** argv) {
  const Options options = parseOptions(argc, argv);
  if (options.help) {
    std::fputs(kUsage, stdout);
    return 0;
  }
  const std::string self = std::filesystem::read_symlink("/proc/self/exe");
  printMachine();
  BenchServer server;
  std::vector<TargetFigures> figures;
  for (std::size_t i = 0; i < options.sizes.size(); ++i) {
    figures.push_back(
        benchSize(options, self, server, options.sizes[i], i + 1 == options.sizes.size()));
  }

  // The targets are stated for the largest database.
  const TargetFigures& f = figures.back();
  const std::string on = sizeName(f.size) + " messages";
  std::vector<Target> targets = {
      {"messagesAfter from 0 vs its SQL floor", f.extraction, 1.3, false, on},
      {"buildDirectory vs its SQL floor", f.directory, 1.2, false, on},
      {"idle cycle vs directory + maxRowId floor", f.idle, 1.5, false, on},
      {"first cycle: encoding + upload vs extraction", f.upload, 0.5, false, on},
      {"cached cycle, unchanged vs directory floor", f.cachedUnchanged, 0.05, false, on},
      {"cached cycle, one new message vs directory floor", f.cachedNewMessage, 0.15, false, on},
      {"cached cycle, one deletion vs directory floor", f.cachedDeleted, 0.30, false, on},
      {"cached cycle, first after start vs directory floor", f.cachedFirst, 1.05, false, on},
  };
  if (options.onlyExtraction) targets.resize(1);
  if (f.memory) {
    const double json = f.memory->jsonBytes / 1024;
    targets.push_back({"first cycle: memory added vs JSON uploaded",
                       {f.memory->addedKB.median / json, f.memory->addedKB.min / json,
                        f.memory->addedKB.max / json, kMemoryRuns},
                       4, true, grouped(f.memory->messages) + " msgs backfilled"});
  }
  printTargets(targets);
  std::printf("\nload:    %s at the end\n", loadAverage().c_str());
  return 0;
}

}  // namespace corvane::bench

int main(int argc, char** argv) {
  if (argc > 1 && std::string(argv[1]) == corvane::bench::kChildFlag) {
    return corvane::bench::firstCycleChild(argc - 2, argv + 2);
  }
  try {
    return corvane::bench::run(argc, argv);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "corvane-bench: %s\n", e.what());
    return 1;
  }
}
