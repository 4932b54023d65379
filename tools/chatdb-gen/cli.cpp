#include "tools/chatdb-gen/cli.h"

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>

#include "tools/chatdb-gen/roster.h"

namespace corvane::chatdbgen {
namespace {

namespace fs = std::filesystem;

constexpr int kExitFailed = 1;
constexpr int kExitUsage = 64;
// Smaller databases are written before anyone would wonder.
constexpr std::int64_t kProgressFrom = 50000;

template <class Int>
std::optional<Int> parseInteger(std::string_view s) {
  Int value{};
  const auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), value);
  if (ec != std::errc() || end != s.data() + s.size()) return std::nullopt;
  return value;
}

std::optional<double> parseDouble(const std::string& s) {
  if (s.empty()) return std::nullopt;
  errno = 0;
  char* end = nullptr;
  const double value = std::strtod(s.c_str(), &end);
  if (errno != 0 || end != s.c_str() + s.size()) return std::nullopt;
  return value;
}

// Days since 1970-01-01 of a proleptic Gregorian date (H. Hinnant's algorithm).
std::int64_t daysFromCivil(std::int64_t y, unsigned m, unsigned d) {
  y -= m <= 2;
  const std::int64_t era = (y >= 0 ? y : y - 399) / 400;
  const auto yoe = static_cast<unsigned>(y - era * 400);
  const unsigned doy = (153 * (m > 2 ? m - 3 : m + 9) + 2) / 5 + d - 1;
  const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + static_cast<std::int64_t>(doe) - 719468;
}

// Fixed-width decimal field at `pos`, or absent.
std::optional<unsigned> field(std::string_view s, std::size_t pos, std::size_t width) {
  if (pos + width > s.size()) return std::nullopt;
  const auto part = s.substr(pos, width);
  if (part.find_first_not_of("0123456789") != std::string_view::npos) return std::nullopt;
  return parseInteger<unsigned>(part);
}

std::string countsLine(const GenerationSummary& s) {
  const auto sum = [&](auto member) {
    return std::to_string(s.oneToOne.*member + s.groups.*member + s.self.*member);
  };
  return std::to_string(s.oneToOneChats) + " one-to-one chats (" + std::to_string(s.smsChats) +
         " over SMS), " + std::to_string(s.groupChats) + " groups, " + std::to_string(s.self.rows) +
         " notes to self; " + sum(&ChatCounts::reactions) + " tap-backs, " +
         sum(&ChatCounts::withAttachments) + " with attachments, " + sum(&ChatCounts::replies) +
         " replies, " + sum(&ChatCounts::bodyOnly) + " texts only in attributedBody";
}

nlohmann::ordered_json countsJson(const ChatCounts& c) {
  return {{"rows", c.rows},
          {"events", c.events},
          {"reactions", c.reactions},
          {"withAttachments", c.withAttachments},
          {"linkPreviews", c.linkPreviews},
          {"replies", c.replies},
          {"bodyOnly", c.bodyOnly}};
}

void printResults(const CommandLine& cl, const std::optional<GenerationSummary>& generated,
                  std::ostream& out) {
  const RosterSummary roster = readRoster(cl.path, cl.rosterSize);
  if (!cl.json) {
    for (const auto& handle : roster.roster) out << handle << '\n';
    return;
  }
  nlohmann::ordered_json j = {{"path", cl.path},
                              {"messages", roster.maxRowId},
                              {"oneToOneChats", roster.oneToOneChats},
                              {"ownHandles", roster.ownHandles},
                              {"roster", roster.roster}};
  if (generated) {
    j["generated"] = {
        {"oneToOneChats", generated->oneToOneChats}, {"smsChats", generated->smsChats},
        {"groupChats", generated->groupChats},       {"oneToOne", countsJson(generated->oneToOne)},
        {"groups", countsJson(generated->groups)},   {"self", countsJson(generated->self)}};
  }
  out << j.dump(2) << '\n';
}

void removeQuietly(const fs::path& p) {
  std::error_code ignored;
  fs::remove(p, ignored);
}

// Writes next to the target and renames at the end, so an interrupted run
// never leaves a half-written database under the requested name.
int generate(const CommandLine& cl, std::ostream& out, std::ostream& err) {
  if (fs::exists(cl.path) && !cl.force) {
    err << "chatdb-gen: " << cl.path << " already exists; pass --force to replace it\n";
    return kExitFailed;
  }
  const fs::path partial = cl.path + ".partial";
  removeQuietly(partial);
  Progress progress;
  if (cl.generator.messages >= kProgressFrom) {
    progress = [&err](std::int64_t done, std::int64_t total) {
      err << "chatdb-gen: " << done * 100 / total << "% (" << done << " of " << total
          << " messages)\n"
          << std::flush;
    };
  }
  std::optional<GenerationSummary> summary;
  try {
    summary = generateChatDb(partial.string(), cl.generator, progress);
    fs::rename(partial, cl.path);
  } catch (...) {
    removeQuietly(partial);
    throw;
  }
  err << "chatdb-gen: wrote " << cl.path << ": " << cl.generator.messages << " messages in "
      << countsLine(*summary) << "\n";
  if (cl.json || cl.rosterSize > 0) printResults(cl, summary, out);
  return 0;
}

}  // namespace

const std::string& usageText() {
  static const std::string kUsage = R"(Usage: chatdb-gen [options] PATH

Writes a Messages-schema database of made-up conversations to PATH: one-to-one
chats (some people over both iMessage and SMS), group chats, a notes-to-self
chat, tap-backs, thread replies, attachments, link previews and texts kept only
in attributedBody. The same options and seed always give the same database.

Contents:
  --messages N        message rows in all, notes to self included (10000)
  --chats N           one-to-one chats with other people (200); about one in 25
                      is the SMS chat of someone who also has an iMessage chat
  --groups N          group chats, style 43; every tenth has one other member
                      left (20)
  --self-notes N      rows in the notes-to-self chat with the first own handle;
                      0 leaves that chat out (20)
  --body-only F       share of texts stored only in attributedBody, the text
                      column left empty (0.5)
  --reactions F       share of messages that are tap-backs (0.1)
  --attachments F     share of messages with photos, videos, voice messages,
                      stickers or files (0.15)
  --replies F         share of messages that answer an earlier one in a thread
                      (0.05)
  --own-handle H      the user's own number or e-mail address, stored as
                      destination_caller_id and account; repeat for several,
                      the first owns the notes-to-self chat
                      (+12065550100 and Sam.Rivera@example.net)
Dates:
  --days N            dates spread over N days ending at --end (730)
  --end WHEN          Unix ms, or a UTC date: 2025-01-01, 2025-01-01T08:30Z,
                      2025-01-01T08:30:15Z (2025-01-01)
  --seconds           store dates in seconds since 2001, as older systems did,
                      instead of nanoseconds
  --seed N            seed of the random choices (1)

Output:
  --force             replace PATH if it exists (otherwise refused)
  --print-roster K    after writing, print the K correspondents with the most
                      messages to stdout, one normalised handle per line (their
                      iMessage and SMS chats counted together, own handles left
                      out): the roster for a development server
  --json              print a JSON object instead of roster lines: "path", "messages"
                      (the highest ROWID), "oneToOneChats", "ownHandles",
                      "roster" (the --print-roster handles, empty without it) and,
                      after writing, "generated" with the counts of each kind
                      of chat ("oneToOne", "groups", "self")
  --roster-only       write nothing: read the existing database at PATH for
                      --print-roster or --json
  -h, --help          this text

Shares are fractions between 0 and 1; tap-backs carry no attachments. Progress
goes to stderr every tenth of the way for 50000 messages or more, and a line
with the counts when done. Exit status: 0 done, 1 failed, 64 bad usage.

Example, a roster of 20 from a large database:
  chatdb-gen --messages 100000 --chats 2000 --groups 200 --print-roster 20 chat.db
)";
  return kUsage;
}

std::optional<std::int64_t> parseWhen(std::string_view text) {
  if (const auto ms = parseInteger<std::int64_t>(text)) return ms;
  // YYYY-MM-DD, optionally THH:MM[:SS]Z.
  const auto year = field(text, 0, 4), month = field(text, 5, 2), day = field(text, 8, 2);
  if (!year || !month || !day || text[4] != '-' || text[7] != '-') return std::nullopt;
  if (*month < 1 || *month > 12 || *day < 1 || *day > 31) return std::nullopt;
  std::int64_t seconds = daysFromCivil(*year, *month, *day) * 86400;
  if (text.size() > 10) {
    const auto hour = field(text, 11, 2), minute = field(text, 14, 2);
    if (text[10] != 'T' || !hour || !minute || text.size() < 17 || text[13] != ':' || *hour > 23 ||
        *minute > 59) {
      return std::nullopt;
    }
    std::optional<unsigned> second = 0;
    std::size_t zone = 16;
    if (text[16] == ':') {
      second = field(text, 17, 2);
      zone = 19;
      if (!second || *second > 59) return std::nullopt;
    }
    if (text.substr(zone) != "Z") return std::nullopt;
    seconds += *hour * 3600 + *minute * 60 + *second;
  }
  return seconds * 1000;
}

CommandLine parseCommandLine(const std::vector<std::string>& args) {
  CommandLine cl;
  GeneratorOptions& g = cl.generator;
  bool ownHandleGiven = false;

  const auto count = [](std::int64_t& target) {
    return [&target](const std::string& v) {
      const auto n = parseInteger<std::int64_t>(v);
      if (!n || *n < 0) return false;
      target = *n;
      return true;
    };
  };
  const auto share = [](double& target) {
    return [&target](const std::string& v) {
      const auto d = parseDouble(v);
      if (!d) return false;
      target = *d;
      return true;
    };
  };
  const std::map<std::string, std::function<bool(const std::string&)>> valued = {
      {"--messages", count(g.messages)},
      {"--chats", count(g.chats)},
      {"--groups", count(g.groups)},
      {"--self-notes", count(g.selfNotes)},
      {"--days", count(g.days)},
      {"--body-only", share(g.bodyOnly)},
      {"--reactions", share(g.reactions)},
      {"--attachments", share(g.attachments)},
      {"--replies", share(g.replies)},
      {"--end",
       [&](const std::string& v) {
         const auto ms = parseWhen(v);
         if (ms) g.endMs = *ms;
         return ms.has_value();
       }},
      {"--seed",
       [&](const std::string& v) {
         const auto seed = parseInteger<std::uint64_t>(v);
         if (seed) g.seed = *seed;
         return seed.has_value();
       }},
      {"--own-handle",
       [&](const std::string& v) {
         if (!ownHandleGiven) g.ownHandles.clear();
         ownHandleGiven = true;
         g.ownHandles.push_back(v);
         return true;
       }},
      {"--print-roster",
       [&](const std::string& v) {
         const auto k = parseInteger<std::size_t>(v);
         if (k) cl.rosterSize = *k;
         return k.has_value();
       }},
  };
  const std::map<std::string, bool*> flags = {
      {"--help", &cl.help},      {"-h", &cl.help},     {"--force", &cl.force},
      {"--seconds", &g.seconds}, {"--json", &cl.json}, {"--roster-only", &cl.rosterOnly}};

  std::vector<std::string> positional;
  for (std::size_t i = 0; i < args.size(); ++i) {
    const std::string& arg = args[i];
    if (const auto flag = flags.find(arg); flag != flags.end()) {
      *flag->second = true;
    } else if (const auto option = valued.find(arg); option != valued.end()) {
      if (i + 1 >= args.size()) throw UsageError(arg + " needs a value");
      if (!option->second(args[++i])) throw UsageError("bad value for " + arg + ": " + args[i]);
    } else if (arg.starts_with("-") && arg != "-") {
      throw UsageError("unknown option " + arg);
    } else {
      positional.push_back(arg);
    }
  }
  if (cl.help) return cl;
  if (positional.size() != 1) throw UsageError("give exactly one database path");
  cl.path = positional.front();
  try {
    validate(g);
  } catch (const std::invalid_argument& e) {
    throw UsageError(e.what());
  }
  return cl;
}

int runCommandLine(const std::vector<std::string>& args, std::ostream& out, std::ostream& err) {
  CommandLine cl;
  try {
    cl = parseCommandLine(args);
  } catch (const UsageError& e) {
    err << "chatdb-gen: " << e.what() << "\nTry chatdb-gen --help.\n";
    return kExitUsage;
  }
  if (cl.help) {
    out << usageText();
    return 0;
  }
  try {
    if (!cl.rosterOnly) return generate(cl, out, err);
    if (!fs::exists(cl.path)) {
      err << "chatdb-gen: " << cl.path << " doesn't exist\n";
      return kExitFailed;
    }
    printResults(cl, std::nullopt, out);
    return 0;
  } catch (const std::exception& e) {
    err << "chatdb-gen: " << e.what() << "\n";
    return kExitFailed;
  }
}

}  // namespace corvane::chatdbgen
