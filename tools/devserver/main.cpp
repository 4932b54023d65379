// corvane-devserver: a local stand-in for the agent API, for development,
// demos and end-to-end tests. Not the service.
#include <httplib.h>
#include <pthread.h>
#include <signal.h>

#include <charconv>
#include <chrono>
#include <cstdio>
#include <iostream>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "core/protocol/server_url.h"
#include "core/protocol/wire_json.h"
#include "tools/devserver/dev_server.h"
#include "tools/devserver/dev_store.h"
#include "tools/devserver/summary.h"

namespace {

using namespace corvane;
using namespace corvane::devserver;

constexpr const char* kUsage =
    R"(corvane-devserver: a local development server for the Corvane agent API.

This is a development tool, not the Corvane service: plain HTTP on this
machine, no accounts, every request logged. It pairs devices with the codes
you give it, answers the config call from the options below, stores what the
agent uploads, and serves an outbox you fill yourself.

Usage: corvane-devserver [options]

  --host ADDR          address to listen on (default 127.0.0.1; keep it on loopback)
  --port N             port to listen on (default 8787; 0 picks a free one)
  --db FILE            keep data in this SQLite file (default: in memory, gone on exit)
  --pair-code CODE     a code that pairs one device (repeatable)
  --token TOKEN        accept this device token without pairing (repeatable)
  --roster H1,H2       roster handles, comma-separated (repeatable); messages of
                       other handles are dropped
  --backfill-days N    config backfillDays (default 30)
  --directory-days N   config directoryDays (default 30)
  --poll-interval SEC  config pollIntervalSec (default 60)
  --self-handle H      the user's own handle; enables the self channel (repeatable)
  --plan NAME          config plan (default "dev")
  --outbox H=TEXT      queue a text for handle H (repeatable)
  --dump               print everything stored in --db as JSON and exit
  --summary            print a short readable summary of what --db holds and exit
  --help               this text

The first line on standard output is the server's URL; then one line per
request.

A local run of the agent:

  build/corvane-devserver --pair-code DEV1 --roster +15551234567 --db dev.sqlite
  build/Corvane --headless --server http://127.0.0.1:8787 --home /tmp/corvane-dev --pair DEV1
  build/Corvane --headless --server http://127.0.0.1:8787 --home /tmp/corvane-dev \
      --token TOKEN --fake-send --once

where TOKEN is the "token" printed by the pairing step. Or skip pairing:
start the server with --token dev-token and pass --token dev-token to the agent.

Development endpoints (no token needed):

  POST /dev/outbox   {"handle":"+15551234567","text":"Hi","kind":"user"} queues
                     an outbox item ("id" and "kind" optional)
  GET  /dev/state    everything stored, as JSON
)";

struct Options {
  std::string host = "127.0.0.1";
  int port = 8787;
  std::string db = ":memory:";
  std::vector<std::string> tokens;
  std::vector<OutboxItem> outbox;
  DevSettings settings;
  bool dump = false;
  bool summary = false;
};

[[noreturn]] void usageError(const std::string& message) {
  std::cerr << "corvane-devserver: " << message << " (see --help)\n";
  std::exit(64);
}

std::int64_t number(std::string_view option, std::string_view text) {
  std::int64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || value < 0) {
    usageError(std::string(option) + " needs a whole number, not \"" + std::string(text) + "\"");
  }
  return value;
}

void appendList(std::vector<std::string>& out, std::string_view list) {
  while (!list.empty()) {
    const auto comma = list.find(',');
    const auto item = list.substr(0, comma);
    if (!item.empty()) out.emplace_back(item);
    list = comma == std::string_view::npos ? std::string_view() : list.substr(comma + 1);
  }
}

Options parseOptions(int argc, char** argv) {
  Options options;
  AgentConfig& config = options.settings.config;
  config = {QuoddleProtocol::version, {}, 30, 30, 60, {false, {}}, "dev"};
  for (int i = 1; i < argc; ++i) {
    const std::string_view arg = argv[i];
    if (arg == "--help" || arg == "-h") {
      std::cout << kUsage;
      std::exit(0);
    }
    if (arg == "--summary" || arg == "--dump") {
      (arg == "--summary" ? options.summary : options.dump) = true;
      continue;
    }
    if (i + 1 >= argc) usageError("unknown option or missing value: " + std::string(arg));
    const std::string_view value = argv[++i];
    if (arg == "--host") {
      options.host = value;
    } else if (arg == "--port") {
      const auto port = number(arg, value);
      if (port > 65535) usageError("--port must be at most 65535");
      options.port = static_cast<int>(port);
    } else if (arg == "--db") {
      options.db = value;
    } else if (arg == "--pair-code") {
      options.settings.pairCodes.emplace_back(value);
    } else if (arg == "--token") {
      options.tokens.emplace_back(value);
    } else if (arg == "--roster") {
      appendList(config.rosterHandles, value);
    } else if (arg == "--backfill-days") {
      config.backfillDays = number(arg, value);
    } else if (arg == "--directory-days") {
      config.directoryDays = number(arg, value);
    } else if (arg == "--poll-interval") {
      config.pollIntervalSec = number(arg, value);
    } else if (arg == "--self-handle") {
      config.selfChannel.enabled = true;
      config.selfChannel.handles.emplace_back(value);
    } else if (arg == "--plan") {
      config.plan = value;
    } else if (arg == "--outbox") {
      const auto eq = value.find('=');
      if (eq == std::string_view::npos || eq == 0) usageError("--outbox wants HANDLE=TEXT");
      options.outbox.push_back({"", std::string(value.substr(0, eq)),
                                std::string(value.substr(eq + 1)), OutboxItem::Kind::user});
    } else {
      usageError("unknown option " + std::string(arg));
    }
  }
  return options;
}

int run(const Options& options) {
  DevStore store(options.db);
  if (options.summary) {
    std::cout << summarize(store.state());
    return 0;
  }
  if (options.dump) {
    std::cout << store.state().dump(2, ' ', false, WireJSON::error_handler_t::replace) << "\n";
    return 0;
  }
  for (std::size_t i = 0; i < options.tokens.size(); ++i) {
    const std::string name = "pre-authorised device " + std::to_string(i + 1);
    store.addDevice(options.tokens[i], {"dev-token-" + std::to_string(i + 1), name},
                    PairRequest{"", name, "unknown", "unknown"});
  }
  for (const auto& item : options.outbox) store.addOutboxItem(item);

  // Stop on Ctrl-C or SIGTERM through a thread that waits for the signal,
  // not in a handler; worker threads inherit the blocked mask.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

  httplib::Server http;
  DevServer server(options.settings, store, std::cout);
  server.install(http);
  int port = options.port;
  if (port == 0) {
    port = http.bind_to_any_port(options.host);
  } else if (!http.bind_to_port(options.host, port)) {
    port = -1;
  }
  if (port <= 0) {
    std::cerr << "corvane-devserver: cannot listen on " << options.host << ":" << options.port
              << "\n";
    return 1;
  }

  std::cout << "http://" << options.host << ":" << port << std::endl;
  if (!ServerURL::isLoopback(options.host)) {
    std::cerr << "corvane-devserver: warning: listening on " << options.host
              << ", not loopback; the agent only talks plain http to loopback hosts\n";
  }
  std::cerr << "corvane-devserver: development server, not the service; data "
            << (options.db == ":memory:" ? "in memory" : "in " + options.db) << "; "
            << options.settings.pairCodes.size() << " pair code(s), " << options.tokens.size()
            << " token(s); Ctrl-C stops\n";

  std::thread([&http, stopSignals] {
    int signal = 0;
    sigwait(&stopSignals, &signal);
    // A stop() that comes before the accept loop runs would be lost.
    while (!http.is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    http.stop();
  }).detach();
  http.listen_after_bind();
  std::cerr << "corvane-devserver: stopped\n";
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const Options options = parseOptions(argc, argv);
  try {
    return run(options);
  } catch (const std::exception& e) {
    std::cerr << "corvane-devserver: " << e.what() << "\n";
    return 1;
  }
}
